// Registration and death, alike and unlike in both versions of both sides.
#include <android/log.h>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {
namespace {

// The texts of a side, with its version put in.
struct ActSide {
    static constexpr bool kIsAct = true;
    static constexpr int kNobody = 0;
    static std::string tag() { return "AR_impl"; }
    static std::string known(const std::string& v) {
        return "I AR_impl: It's already register pid[70] " + v + " callback";
    }
    static std::string name(const std::string& v) { return v + " ActivityInterface"; }
    static std::string died() { return "I AR_impl: serviceDied, cookie is 70"; }
    static std::string gone() { return "E AR_impl: Invalide IBase object"; }
    static std::string match(const std::string& v) {
        return "I AR_impl: ######" + v + " Match, remainder cb[1]!!!######";
    }
};
struct EnvSide {
    static constexpr bool kIsAct = false;
    static constexpr int kNobody = 1;
    static std::string tag() { return "AR_impl_Env"; }
    static std::string known(const std::string& v) {
        return "I AR_impl_Env: It's already register pid[70] callback, " + v;
    }
    static std::string name(const std::string& v) { return "EnvironmentInterface" + v; }
    static std::string died() { return "I AR_impl_Env: ENV serviceDied, cookie is 70"; }
    static std::string gone() { return "E AR_impl_Env: Invalide IBase object, ENV"; }
    static std::string match(const std::string& v) {
        return "I AR_impl_Env: ######" + v + " ENV Match, remainder cb[1]!!!######";
    }
};
struct ActV1_0 : ActSide {
    using C = ActClient0;
    static auto& table() { return Act::clientsV1_0(); }
    static constexpr const char* kVersion = "V1_0";
    static constexpr bool kReplaces = false;
    static constexpr const char* kNoMemory =
            "E AR_impl: registerActivityCallback mDeathRecipient new failed";
};
struct ActV1_1 : ActSide {
    using C = ActClient1;
    static auto& table() { return Act::clientsV1_1(); }
    static constexpr const char* kVersion = "V1_1";
    static constexpr bool kReplaces = true;
    static constexpr const char* kNoMemory =
            "E AR_impl: registerActivityCallbackV1_1 deathRecipient new failed";
};
struct EnvV1_0 : EnvSide {
    using C = EnvClient0;
    static auto& table() { return Env::clientsV1_0(); }
    static constexpr const char* kVersion = "V1_0";
    static constexpr bool kReplaces = false;
    static constexpr const char* kNoMemory =
            "E AR_impl_Env: registerEnvironmentCallback new mDeathRecipient failed";
};
struct EnvV1_1 : EnvSide {
    using C = EnvClient1;
    static auto& table() { return Env::clientsV1_1(); }
    static constexpr const char* kVersion = "V1_1";
    static constexpr bool kReplaces = false;
    static constexpr const char* kNoMemory =
            "E AR_impl_Env: registerEnvironmentCallbackV1_1 Death new failed";
};

template <typename Side>
struct RegistryTest : ObjectTest {
    using C = typename Side::C;

    static std::string say(char level, const std::string& text) {
        return std::string(1, level) + " " + Side::tag() + ": " + text;
    }
    static std::string name() { return Side::name(Side::kVersion); }
    static std::string known() { return Side::known(Side::kVersion); }
    static std::string match() { return Side::match(Side::kVersion); }
    static std::string linked(uint64_t pid, int total) {
        return say('D', "Pid[" + std::to_string(pid) + "] link to " + name() +
                                " death notification successful, total cb[" +
                                std::to_string(total) + "]");
    }
    void enter(int pid, const sp<C>& client) {
        As caller(pid);
        Register(*act, *env, client);
    }
    void die(uint64_t cookie, const wp<IBase>& who) {
        if (Side::kIsAct) {
            act->HandleHidlDeath(cookie, who);
        } else {
            env->HandleHidlDeath(cookie, who);
        }
    }
};
using Sides = ::testing::Types<ActV1_0, ActV1_1, EnvV1_0, EnvV1_1>;
TYPED_TEST_SUITE(RegistryTest, Sides, );

TYPED_TEST(RegistryTest, AddsEachProcessWithItsCookie) {
    const sp<typename TypeParam::C> a = new typename TypeParam::C("a");
    const sp<typename TypeParam::C> b = new typename TypeParam::C("b");
    this->enter(70, a);
    this->enter(-2, b);  // sign-extended
    EXPECT_EQ(TakeLog(), (Lines{this->linked(70, 1), this->linked(uint64_t(-2), 2)}));
    EXPECT_EQ(TypeParam::table().valueFor(a), 70u);
    EXPECT_EQ(TypeParam::table().valueFor(b), uint64_t(-2));
    EXPECT_EQ(b->cookies, std::vector<uint64_t>{uint64_t(-2)});
    // Each version 1.1 activity registration has a recipient of its own, the others share one.
    EXPECT_EQ(a->recipients[0] == b->recipients[0], !TypeParam::kReplaces);
}

TYPED_TEST(RegistryTest, SecondCallbackOfAProcess) {
    const sp<typename TypeParam::C> a = new typename TypeParam::C("a");
    const sp<typename TypeParam::C> b = new typename TypeParam::C("b");
    this->enter(70, a);
    TakeLog();
    this->enter(70, a);
    EXPECT_EQ(TakeLog(), Lines{this->known()});
    this->enter(70, b);
    ASSERT_EQ(TypeParam::table().size(), 1u);
    if (TypeParam::kReplaces) {
        EXPECT_EQ(TakeLog(), (Lines{this->known() + ", delete...", this->linked(70, 1)}));
        EXPECT_EQ(TypeParam::table().keyAt(0), b);
        ASSERT_EQ(Act::recipients(*this->act).size(), 1u);
        EXPECT_EQ(b->recipients[0], Act::recipients(*this->act).keyAt(0));
        EXPECT_TRUE(a->unlinked.empty());
    } else {
        EXPECT_EQ(TakeLog(), Lines{this->known()});
        EXPECT_EQ(TypeParam::table().keyAt(0), a);
        EXPECT_TRUE(b->cookies.empty());
    }
    // The same object from another process is known, too.
    this->enter(71, TypeParam::table().keyAt(0) == a ? a : b);
    EXPECT_EQ(TypeParam::table().size(), 1u);
}

TYPED_TEST(RegistryTest, RefusesWhatCannotBeLinked) {
    const sp<typename TypeParam::C> a = new typename TypeParam::C("a");
    Register(*this->act, *this->env, sp<typename TypeParam::C>());
    EXPECT_EQ(TakeLog(), Lines{this->say('E', "invalid Callback")});
    {
        WithoutMemory none;
        this->enter(70, a);
    }
    EXPECT_EQ(TakeLog(), Lines{TypeParam::kNoMemory});
    EXPECT_TRUE(a->cookies.empty());

    a->link = Status::fromStatusT(::android::FAILED_TRANSACTION);
    this->enter(70, a);
    EXPECT_EQ(TakeLog(), Lines{this->say('E', "Transaction error in linking to " + this->name() +
                                                      " death: " + a->link.description())});
    a->link = Status::ok();
    a->linkAnswer = false;
    this->enter(70, a);
    EXPECT_EQ(TakeLog(),
              Lines{this->say('W', "Unable to link to " + this->name() + " death notifications")});
    EXPECT_EQ(TypeParam::table().size(), 0u);
    // A version 1.1 recipient stays though its link failed: one for each attempt.
    EXPECT_EQ(Act::recipients(*this->act).size(), TypeParam::kReplaces ? 2u : 0u);

    a->linkAnswer = true;
    this->enter(70, a);
    EXPECT_EQ(TakeLog(), Lines{this->linked(70, 1)});
}

TYPED_TEST(RegistryTest, WithoutThreadStateAllCountAsOneProcess) {
    const sp<typename TypeParam::C> a = new typename TypeParam::C("a");
    const sp<typename TypeParam::C> b = new typename TypeParam::C("b");
    {
        WithoutThreadState none;
        Register(*this->act, *this->env, a);
        Register(*this->act, *this->env, b);
    }
    const Lines log = TakeLog();
    EXPECT_EQ(log[0], this->say('E', std::string("IPCThreadState::self() ") + TypeParam::kVersion +
                                             " returns nullptr"));
    EXPECT_EQ(log[1], this->linked(TypeParam::kNobody, 1));
    ASSERT_EQ(TypeParam::table().size(), 1u);
    EXPECT_EQ(TypeParam::table().keyAt(0), TypeParam::kReplaces ? b : a);
    EXPECT_EQ(TypeParam::table().valueAt(0), unsigned(TypeParam::kNobody));
}

TYPED_TEST(RegistryTest, DeathRemovesTheVeryObject) {
    const sp<typename TypeParam::C> a = new typename TypeParam::C("a");
    const sp<typename TypeParam::C> b = new typename TypeParam::C("b");
    this->enter(70, a);
    this->enter(71, b);
    TakeLog();
    // Through the recipient, as the runtime does it. Failing unlinks are nobody's concern.
    a->link = Status::fromStatusT(::android::DEAD_OBJECT);
    const sp<hidl_death_recipient> recipient = a->recipients[0].promote();
    recipient->serviceDied(70, wp<IBase>(sp<IBase>(a)));
    Lines expected{TypeParam::died()};
    if (TypeParam::kIsAct && !TypeParam::kReplaces)
        expected.push_back("E AR_impl: DeathRecipient is nullptr");
    expected.push_back(this->match());
    const std::string finish = this->say('I', "finish");
    if (std::string(TypeParam::kVersion) == "V1_1") expected.push_back(finish);
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(a->unlinked, std::vector<sp<hidl_death_recipient>>{recipient});
    ASSERT_EQ(TypeParam::table().size(), 1u);
    EXPECT_EQ(TypeParam::table().keyAt(0), b);
    // Again: nobody is left to match, nor is a NULL entry the object. The version 1.1 recipient
    // still stands for the process id.
    TypeParam::table().add(nullptr, 72);
    this->die(70, wp<IBase>(sp<IBase>(a)));
    EXPECT_EQ(TakeLog().back(), finish);
    EXPECT_EQ(Act::recipients(*this->act).size(), TypeParam::kReplaces ? 2u : 0u);
}

TYPED_TEST(RegistryTest, ANoticeThatCannotBePromoted) {
    this->enter(71, new typename TypeParam::C("b"));
    TakeLog();
    wp<IBase> gone;
    {
        const sp<IBase> dead = new typename TypeParam::C("a");
        gone = dead;
    }
    const std::string finish = this->say('I', "finish");
    this->die(70, gone);
    EXPECT_EQ(TakeLog(), (Lines{TypeParam::died(), TypeParam::gone(), finish}));
    // An empty one matches a NULL entry alone.
    TypeParam::table().add(nullptr, 72);
    this->die(70, wp<IBase>());
    const Lines log = TakeLog();
    EXPECT_EQ(log[1], TypeParam::gone());
    EXPECT_EQ(log[2], this->match());
    ASSERT_EQ(TypeParam::table().size(), 1u);
    EXPECT_EQ(TypeParam::table().valueAt(0), 71u);
}

using DeathTest = ObjectTest;

TEST_F(DeathTest, TakesTheRequestsOfAVersion1_1ClientOnly) {
    const auto one = add<ActClient1>(70, "one");
    const auto zero = add<ActClient0>(70, "zero");
    const auto other = add<ActClient1>(71, "other");
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    enable(70, 2, 1, 0);
    module.take();
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(zero)));
    EXPECT_EQ(Act::requests().size(), 3u);
    // Both recipients are tried, whichever version died.
    EXPECT_EQ(zero->unlinked.size(), 2u);
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(one)));
    ASSERT_EQ(Act::requests().size(), 1u);
    EXPECT_EQ(Act::requests()[0].pid, 71u);
    EXPECT_EQ(Act::natives(*act).size(), 2u);
    EXPECT_EQ(module.take(), Lines{});
    ASSERT_EQ(Act::clientsV1_1().size(), 1u);
    EXPECT_EQ(Act::clientsV1_1().keyAt(0), other);
}

TEST_F(DeathTest, OneObjectInBothTablesLeavesBoth) {
    const auto client = add<ActClient1>(70, "both");
    const auto environment = add<EnvClient1>(70, "both");
    {
        As caller(70);
        ASSERT_TRUE(act->registerActivityCallback(client).isOk());
        ASSERT_TRUE(env->registerEnvironmentCallback(environment).isOk());
    }
    TakeLog();
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(client)));
    env->HandleHidlDeath(70, wp<IBase>(sp<IBase>(environment)));
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl: serviceDied, cookie is 70",
                                "I AR_impl: ######V1_1 Match, remainder cb[0]!!!######",
                                "I AR_impl: ######V1_0 Match, remainder cb[0]!!!######",
                                "I AR_impl_Env: ENV serviceDied, cookie is 70",
                                "I AR_impl_Env: ######V1_1 ENV Match, remainder cb[0]!!!######",
                                "I AR_impl_Env: ######V1_0 ENV Match, remainder cb[0]!!!######"}));
}

using LifeTest = ObjectTest;

TEST_F(LifeTest, AClientsRecipientKeepsTheObjectAlive) {
    const auto client = add<ActClient1>(70, "1");
    const auto environment = add<EnvClient0>(70, "0");
    TakeLog();
    ActivityInterface* activityObject = act.get();
    EnvironmentInterface* environmentObject = env.get();
    act = nullptr;
    env = nullptr;
    EXPECT_EQ(TakeLog(), Lines{});
    client->recipients[0].promote()->serviceDied(70, wp<IBase>(sp<IBase>(client)));
    environment->recipients[0].promote()->serviceDied(70, wp<IBase>(sp<IBase>(environment)));
    EXPECT_EQ(Act::clientsV1_1().size() + Env::clientsV1_0().size(), 0u);
    act = activityObject;
    env = environmentObject;
}

TEST_F(LifeTest, DestructionDropsClientsAndKeepsRequests) {
    add<ActClient1>(1, "1");
    enable(1, 1, 1, 0);
    Make(nullptr, nullptr);
    EXPECT_EQ(Act::clientsV1_1().size(), 0u);
    EXPECT_EQ(Act::requests().size(), 1u);
}

TEST_F(LifeTest, WithoutTablesEverythingFailsOnItsOwn) {
    act = nullptr;
    env = nullptr;
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl: Deconstruct ActivityInterface",
                                "I AR_impl_Env: Deconstruct EnvironmentInterface"}));
    module = {};
    act = new ActivityInterface(nullptr);
    env = new EnvironmentInterface(nullptr);
    EXPECT_EQ(TakeLog(),
              (Lines{"I AR_impl: Construct ActivityInterface",
                     "E AR_impl: ActivityInterface: mImpl interface is not available",
                     "E AR_impl_Env: EnvironmentInterface: mImpl interface is not available"}));
    EXPECT_EQ(module.activity, nullptr);
}

TEST_F(LifeTest, ASecondObjectEndsTheProcess) {
    EXPECT_DEATH(
            {
                __android_log_set_logger(__android_log_stderr_logger);
                new ActivityInterface(&kActivityTable);
            },
            "AR_impl.*Assertion failed: sInterfaceExists");
    EXPECT_DEATH(
            {
                __android_log_set_logger(__android_log_stderr_logger);
                new EnvironmentInterface(&kEnvironmentTable);
            },
            "AR_impl_Env.*Assertion failed: sInterfaceExists");
}

}  // namespace
}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
