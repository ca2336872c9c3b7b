// Registration and death, alike and unlike in both versions of both sides. What the log says of
// them is compared with the model, see ModelTest.
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

    static auto& table() {
        if constexpr (kAct && kV1_1) return Act::clientsV1_1();
        if constexpr (kAct && !kV1_1) return Act::clientsV1_0();
        if constexpr (!kAct && kV1_1) return Env::clientsV1_1();
        if constexpr (!kAct && !kV1_1) return Env::clientsV1_0();
    }
    const sp<C> a = new C("a"), b = new C("b");
};
using Clients = ::testing::Types<ActClient0, ActClient1, EnvClient0, EnvClient1>;
TYPED_TEST_SUITE(RegistryTest, Clients, );

TYPED_TEST(RegistryTest, SecondCallbackOfAProcess) {
    this->enter(70, this->a);
    this->enter(70, this->b);
    ASSERT_EQ(this->table().size(), 1u);
    EXPECT_EQ(this->table().keyAt(0), this->kReplaces ? this->b : this->a);
    EXPECT_TRUE(this->a->unlinked.empty());
    // Only a registration that goes on links.
    EXPECT_EQ(this->b->cookies.size(), this->kReplaces ? 1u : 0u);
    // The same object from another process is known, too.
    this->enter(71, this->kReplaces ? this->b : this->a);
    EXPECT_EQ(this->table().size(), 1u);
}

TYPED_TEST(RegistryTest, WithoutThreadStateAllCountAsOneProcess) {
    WithoutThreadState none;
    EXPECT_TRUE(this->enter(this->a).isOk());
    EXPECT_TRUE(this->enter(this->b).isOk());
    ASSERT_EQ(this->table().size(), 1u);
    EXPECT_EQ(this->table().keyAt(0), this->kReplaces ? this->b : this->a);
    EXPECT_EQ(this->table().valueAt(0), this->kAct ? 0u : 1u);
}

TYPED_TEST(RegistryTest, DeathRemovesTheVeryObject) {
    this->enter(70, this->a);
    this->enter(71, this->b);
    // Each version 1.1 activity registration has a recipient of its own, the others share one.
    EXPECT_EQ(this->a->recipients[0] == this->b->recipients[0], !this->kReplaces);
    // Through the recipient, as the runtime does it. Failing unlinks are nobody's concern.
    this->a->link = Status::fromStatusT(::android::DEAD_OBJECT);
    const sp<hidl_death_recipient> recipient = this->a->recipients[0].promote();
    recipient->serviceDied(70, wp<IBase>(sp<IBase>(this->a)));
    EXPECT_EQ(this->a->unlinked, std::vector<sp<hidl_death_recipient>>{recipient});
    ASSERT_EQ(this->table().size(), 1u);
    EXPECT_EQ(this->table().keyAt(0), this->b);
    EXPECT_EQ(Act::recipients(*this->act).size(), this->kReplaces ? 2u : 0u);
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
    EXPECT_EQ(Act::clientsV1_1().keyAt(Act::clientsV1_1().keyAt(0) != other), other);
    // What a death leaves behind.
    EXPECT_EQ(Texts(Act::barriers()), Lines{"70 1 1 5"});
    EXPECT_EQ(Texts(Act::lastEvents()), (Lines{"70 1 1 10", "71 1 1 10"}));
    EXPECT_EQ(Act::reported().size(), 2u);
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
