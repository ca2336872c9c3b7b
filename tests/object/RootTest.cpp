// SPDX-License-Identifier: Apache-2.0
// The factory and the root object.
#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

const std::string kOpened =
        "I AR_impl_Act: activity_recognition_impl V1.1 open activity_recognition_hidl result: ";

struct RootTest : ObjectTest {
    RootTest() {
        drop();  // the root makes its own
        module = {};
        TakeLog();
    }
    sp<V1_1::IActivityRecognition> fetch() { return HIDL_FETCH_IActivityRecognition("ignored"); }
};

TEST_F(RootTest, HandsOutOneObjectOfEachSide) {
    const auto root = fetch();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(TakeLog(), Lines{kOpened + "0"});
    EXPECT_EQ(module.activity, nullptr);  // nobody has asked yet
    const sp<V1_0::IActivityInterface> activity0 = root->getActivityInterface();
    const sp<V1_0::IEnvironmentInterface> environment0 = root->getEnvironmentInterface();
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl_Act: 1.1 Activity compatible 1.0",
                                "I AR_impl: Construct ActivityInterface",
                                "I AR_impl_Act: 1.1 ENV compatible 1.0"}));
    const sp<V1_1::IActivityInterface> activity1 = root->getActivityInterfaceV1_1();
    const sp<V1_1::IEnvironmentInterface> environment1 = root->getEnvironmentInterfaceV1_1();
    ASSERT_NE(activity0, nullptr);
    ASSERT_NE(environment0, nullptr);
    EXPECT_EQ(activity0.get(), activity1.get());
    EXPECT_EQ(environment0.get(), environment1.get());
    EXPECT_EQ(TakeLog(), Lines{});
}

TEST_F(RootTest, ClosesTheDeviceOnceAndDropsBothSides) {
    auto root = fetch();
    ASSERT_TRUE(root->getActivityInterface().isOk());
    ASSERT_TRUE(root->getEnvironmentInterface().isOk());
    TakeLog();
    module.take();
    module.inside = [] { EXPECT_EQ(TakeLog(), Lines{}) << "closed before anything goes"; };
    root = nullptr;
    EXPECT_EQ(module.take(), Lines{"close"});
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl_Act: Deconstruct ActivityRecognition",
                                "I AR_impl_Env: Deconstruct EnvironmentInterface",
                                "I AR_impl: Deconstruct ActivityInterface"}));
}

TEST_F(RootTest, FailsWithoutModuleDeviceOrMemory) {
    module.results = {{"find", -2}};
    EXPECT_EQ(fetch(), nullptr);
    EXPECT_EQ(TakeLog(), Lines{"E AR_impl_Act: hw_get_module activity_recognition failed: -2"});
    module.results = {{"open", -19}};
    EXPECT_EQ(fetch(), nullptr);
    EXPECT_EQ(TakeLog(), Lines{kOpened + "-19"});
    module.results = {};
    module.take();
    {
        WithoutMemory none;
        EXPECT_EQ(fetch(), nullptr);
    }
    EXPECT_EQ(TakeLog(), Lines{"E AR_impl_Act: iface new failed"});
    // The device is left open.
    EXPECT_EQ(module.take(),
              (Lines{"find activity_recognition", "open activity_recognition_hidl"}));
}

TEST_F(RootTest, AMissingSideIsAskedForAgain) {
    const auto root = fetch();
    module.activityTable = nullptr;
    module.environmentTable = nullptr;
    TakeLog();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(sp<V1_1::IActivityInterface>(root->getActivityInterfaceV1_1()), nullptr);
        EXPECT_EQ(sp<V1_0::IEnvironmentInterface>(root->getEnvironmentInterface()), nullptr);
        EXPECT_EQ(
                TakeLog(),
                (Lines{"E AR_impl_Act: getActivityInterfaceV1_1 ActivityInterface interface not "
                       "implemented by ar HAL",
                       "I AR_impl_Act: 1.1 ENV compatible 1.0",
                       "E AR_impl_Act: getEnvironmentInterfaceV1_1 EnvironmentInterface interface "
                       "not implemented by ar HAL"}));
    }
    module.activityTable = &kActivityTable;
    module.environmentTable = &kEnvironmentTable;
    {
        WithoutMemory none;
        EXPECT_EQ(sp<V1_0::IActivityInterface>(root->getActivityInterface()), nullptr);
        EXPECT_EQ(sp<V1_1::IEnvironmentInterface>(root->getEnvironmentInterfaceV1_1()), nullptr);
    }
    EXPECT_EQ(
            TakeLog(),
            (Lines{"I AR_impl_Act: 1.1 Activity compatible 1.0",
                   "E AR_impl_Act: getActivityInterfaceV1_1 mActivityInterface new failed",
                   "E AR_impl_Act: getEnvironmentInterfaceV1_1 mEnvironmentInterface new failed"}));
    EXPECT_NE(sp<V1_1::IActivityInterface>(root->getActivityInterfaceV1_1()), nullptr);
    EXPECT_NE(sp<V1_1::IEnvironmentInterface>(root->getEnvironmentInterfaceV1_1()), nullptr);
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
