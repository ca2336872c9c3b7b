// Registration and death, alike and unlike in both versions of both sides.
#include <android/log.h>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

// By client: one for each version of each side.
template <typename C>
struct RegistryTest : ObjectTest {
    static constexpr bool kAct = std::is_base_of_v<V1_0::IActivityChangedCallback, C>;
    static constexpr bool kV1_1 = std::is_same_v<C, ActClient1> || std::is_same_v<C, EnvClient1>;
    // A process's later callback takes the place of the earlier, with a recipient of its own.
    static constexpr bool kReplaces = kAct && kV1_1;
    static constexpr uint64_t kNobody = kAct ? 0 : 1;  // the process without thread state

    static auto& table() {
        if constexpr (kAct && kV1_1) return Act::clientsV1_1();
        if constexpr (kAct && !kV1_1) return Act::clientsV1_0();
        if constexpr (!kAct && kV1_1) return Env::clientsV1_1();
        if constexpr (!kAct && !kV1_1) return Env::clientsV1_0();
    }
    static std::string say(char level, const std::string& text) {
        return std::string(1, level) + (kAct ? " AR_impl: " : " AR_impl_Env: ") + text;
    }
    static std::string linked(uint64_t pid, int total) {
        return say('D', "Pid[" + std::to_string(pid) + "] link to " + subject +
                                " death notification successful, total cb[" +
                                std::to_string(total) + "]");
    }
    void die(const wp<IBase>& who) {
        kAct ? act->HandleHidlDeath(70, who) : env->HandleHidlDeath(70, who);
    }

    static inline const std::string version = kV1_1 ? "V1_1" : "V1_0";
    static inline const std::string subject =
            kAct ? version + " ActivityInterface" : "EnvironmentInterface" + version;
    const std::string known =
            say('I', "It's already register pid[70] " +
                             (kAct ? version + " callback" : "callback, " + version));
    const std::string noMemory =
            say('E', kReplaces ? "registerActivityCallbackV1_1 deathRecipient new failed"
                     : kAct    ? "registerActivityCallback mDeathRecipient new failed"
                     : kV1_1   ? "registerEnvironmentCallbackV1_1 Death new failed"
                               : "registerEnvironmentCallback new mDeathRecipient failed");
    const std::string died =
            say('I', kAct ? "serviceDied, cookie is 70" : "ENV serviceDied, cookie is 70");
    const std::string gone =
            say('E', kAct ? "Invalide IBase object" : "Invalide IBase object, ENV");
    const std::string match = say(
            'I', "######" + version + (kAct ? "" : " ENV") + " Match, remainder cb[1]!!!######");
    const std::string finish = say('I', "finish");
    const sp<C> a = new C("a"), b = new C("b");
};
using Clients = ::testing::Types<ActClient0, ActClient1, EnvClient0, EnvClient1>;
TYPED_TEST_SUITE(RegistryTest, Clients, );

TYPED_TEST(RegistryTest, AddsEachProcessWithItsCookie) {
    this->enter(70, this->a);
    this->enter(-2, this->b);  // sign-extended
    EXPECT_EQ(TakeLog(), (Lines{this->linked(70, 1), this->linked(uint64_t(-2), 2)}));
    EXPECT_EQ(this->table().valueFor(this->a), 70u);
    EXPECT_EQ(this->table().valueFor(this->b), uint64_t(-2));
    EXPECT_EQ(this->b->cookies, std::vector<uint64_t>{uint64_t(-2)});
    // Each version 1.1 activity registration has a recipient of its own, the others share one.
    EXPECT_EQ(this->a->recipients[0] == this->b->recipients[0], !this->kReplaces);
}

TYPED_TEST(RegistryTest, SecondCallbackOfAProcess) {
    this->enter(70, this->a);
    TakeLog();
    this->enter(70, this->a);
    EXPECT_EQ(TakeLog(), Lines{this->known});
    this->enter(70, this->b);
    ASSERT_EQ(this->table().size(), 1u);
    if (this->kReplaces) {
        EXPECT_EQ(TakeLog(), (Lines{this->known + ", delete...", this->linked(70, 1)}));
        EXPECT_EQ(this->table().keyAt(0), this->b);
        ASSERT_EQ(Act::recipients(*this->act).size(), 1u);
        EXPECT_EQ(this->b->recipients[0], Act::recipients(*this->act).keyAt(0));
        EXPECT_TRUE(this->a->unlinked.empty());
    } else {
        EXPECT_EQ(TakeLog(), Lines{this->known});
        EXPECT_EQ(this->table().keyAt(0), this->a);
        EXPECT_TRUE(this->b->cookies.empty());
    }
    // The same object from another process is known, too.
    this->enter(71, this->table().keyAt(0) == this->a ? this->a : this->b);
    EXPECT_EQ(this->table().size(), 1u);
}

TYPED_TEST(RegistryTest, RefusesWhatCannotBeLinked) {
    EXPECT_TRUE(this->enter(sp<TypeParam>()).isOk());
    EXPECT_EQ(TakeLog(), Lines{this->say('E', "invalid Callback")});
    {
        WithoutMemory none;
        this->enter(70, this->a);
    }
    EXPECT_EQ(TakeLog(), Lines{this->noMemory});
    EXPECT_TRUE(this->a->cookies.empty());

    this->a->link = Status::fromStatusT(::android::FAILED_TRANSACTION);
    this->enter(70, this->a);
    EXPECT_EQ(TakeLog(), Lines{this->say('E', "Transaction error in linking to " + this->subject +
                                                      " death: " + this->a->link.description())});
    this->a->link = Status::ok();
    this->a->linkAnswer = false;
    this->enter(70, this->a);
    EXPECT_EQ(TakeLog(),
              Lines{this->say('W', "Unable to link to " + this->subject + " death notifications")});
    EXPECT_EQ(this->table().size(), 0u);
    // A version 1.1 recipient stays though its link failed: one for each attempt.
    EXPECT_EQ(Act::recipients(*this->act).size(), this->kReplaces ? 2u : 0u);

    this->a->linkAnswer = true;
    this->enter(70, this->a);
    EXPECT_EQ(TakeLog(), Lines{this->linked(70, 1)});
}

TYPED_TEST(RegistryTest, WithoutThreadStateAllCountAsOneProcess) {
    {
        WithoutThreadState none;
        EXPECT_TRUE(this->enter(this->a).isOk());
        EXPECT_TRUE(this->enter(this->b).isOk());
    }
    const Lines log = TakeLog();
    EXPECT_EQ(log[0],
              this->say('E', "IPCThreadState::self() " + this->version + " returns nullptr"));
    EXPECT_EQ(log[1], this->linked(this->kNobody, 1));
    ASSERT_EQ(this->table().size(), 1u);
    EXPECT_EQ(this->table().keyAt(0), this->kReplaces ? this->b : this->a);
    EXPECT_EQ(this->table().valueAt(0), this->kNobody);
}

TYPED_TEST(RegistryTest, DeathRemovesTheVeryObject) {
    this->enter(70, this->a);
    this->enter(71, this->b);
    TakeLog();
    // Through the recipient, as the runtime does it. Failing unlinks are nobody's concern.
    this->a->link = Status::fromStatusT(::android::DEAD_OBJECT);
    const sp<hidl_death_recipient> recipient = this->a->recipients[0].promote();
    recipient->serviceDied(70, wp<IBase>(sp<IBase>(this->a)));
    Lines expected{this->died};
    if (this->kAct && !this->kReplaces) expected.push_back("E AR_impl: DeathRecipient is nullptr");
    expected.push_back(this->match);
    if (this->kV1_1) expected.push_back(this->finish);
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(this->a->unlinked, std::vector<sp<hidl_death_recipient>>{recipient});
    ASSERT_EQ(this->table().size(), 1u);
    EXPECT_EQ(this->table().keyAt(0), this->b);
    // Again: nobody is left to match, nor is a NULL entry the object. The version 1.1 recipient
    // still stands for the process id.
    this->table().add(nullptr, 72);
    this->die(wp<IBase>(sp<IBase>(this->a)));
    EXPECT_EQ(TakeLog().back(), this->finish);
    EXPECT_EQ(Act::recipients(*this->act).size(), this->kReplaces ? 2u : 0u);
}

TYPED_TEST(RegistryTest, ANoticeThatCannotBePromoted) {
    this->enter(71, this->b);
    TakeLog();
    const wp<IBase> dead = sp<IBase>(new TypeParam("dead"));
    this->die(dead);
    EXPECT_EQ(TakeLog(), (Lines{this->died, this->gone, this->finish}));
    // An empty one matches a NULL entry alone.
    this->table().add(nullptr, 72);
    this->die(wp<IBase>());
    EXPECT_EQ(TakeLog()[2], this->match);
    ASSERT_EQ(this->table().size(), 1u);
    EXPECT_EQ(this->table().valueAt(0), 71u);
}

using DeathTest = ObjectTest;

TEST_F(DeathTest, TakesTheRequestsOfAVersion1_1ClientOnly) {
    const auto one = add<ActClient1>(70, "one");
    const auto zero = add<ActClient0>(70, "zero");
    const auto other = add<ActClient1>(71, "other");
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    enable(70, 2, 1, 0);
    plain({{1, 1, 10, 0, {}}});
    Act::barriers().push_back({70, 1, 1, 5});
    module.take();
    // The client table is free meanwhile: whoever registers now does not wait for the unlinking.
    zero->insideUnlink = [this] { add<ActClient1>(72, "third"); };
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(zero)));
    EXPECT_EQ(Act::requests().size(), 3u);
    // Both recipients are tried, whichever version died: the process's own, then the shared one.
    EXPECT_EQ(zero->unlinked,
              (std::vector<sp<hidl_death_recipient>>{one->recipients[0].promote(),
                                                     zero->recipients[0].promote()}));
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(one)));
    EXPECT_EQ(Texts(Act::requests()), Lines{"71 1 1 1000000000"});
    EXPECT_EQ(Act::natives(*act).size(), 2u);
    EXPECT_EQ(module.take(), Lines{});
    ASSERT_EQ(Act::clientsV1_1().size(), 2u);
    EXPECT_GE(Act::clientsV1_1().indexOfKey(other), 0);
    // What a death leaves behind.
    EXPECT_EQ(Texts(Act::barriers()), Lines{"70 1 1 5"});
    EXPECT_EQ(Texts(Act::lastEvents()), (Lines{"70 1 1 10", "71 1 1 10"}));
    EXPECT_EQ(Act::reported().size(), 2u);
}

TEST_F(DeathTest, AReplacedCallbackDiesForItselfAlone) {
    const auto before = add<ActClient1>(70, "before");
    enable(70, 1, 1, 0);
    add<ActClient1>(70, "now");
    TakeLog();
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(before)));
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl: serviceDied, cookie is 70", "I AR_impl: finish"}));
    plain({{1, 1, 10, 0, {}}});
    EXPECT_EQ(TakeJournal(), Lines{"now plain (1,1,10,0)"});
}

TEST_F(DeathTest, OneObjectInBothTablesLeavesBoth) {
    const auto client = add<ActClient1>(70, "both");
    const auto environment = add<EnvClient1>(70, "both");
    EXPECT_TRUE(act->registerActivityCallback(client).isOk());
    EXPECT_TRUE(env->registerEnvironmentCallback(environment).isOk());
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
    const wp<ActivityInterface> weakAct = std::exchange(act, nullptr);
    const wp<EnvironmentInterface> weakEnv = std::exchange(env, nullptr);
    EXPECT_EQ(TakeLog(), Lines{});
    client->recipients[0].promote()->serviceDied(70, wp<IBase>(sp<IBase>(client)));
    environment->recipients[0].promote()->serviceDied(70, wp<IBase>(sp<IBase>(environment)));
    EXPECT_EQ(Act::clientsV1_1().size() + Env::clientsV1_0().size(), 0u);
    act = weakAct.promote();
    env = weakEnv.promote();
}

TEST_F(LifeTest, DestructionDropsClientsAndKeepsRequests) {
    add<ActClient1>(1, "1");
    enable(1, 1, 1, 0);
    drop();
    EXPECT_EQ(Act::clientsV1_1().size(), 0u);
    EXPECT_EQ(Act::requests().size(), 1u);
}

TEST_F(LifeTest, WithoutTablesTheObjectsLiveAndSaySo) {
    drop();
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
    const auto dies = [](auto make) {
        __android_log_set_logger(__android_log_stderr_logger);
        make();
    };
    EXPECT_DEATH(dies([] { new ActivityInterface(&kActivityTable); }),
                 "AR_impl.*Assertion failed: sInterfaceExists");
    EXPECT_DEATH(dies([] { new EnvironmentInterface(&kEnvironmentTable); }),
                 "AR_impl_Env.*Assertion failed: sInterfaceExists");
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
