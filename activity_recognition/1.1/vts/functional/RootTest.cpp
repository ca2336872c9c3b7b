// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>

#include "Target.h"

using ::android::sp;
using ::android::hardware::interfacesEqual;
using ::android::hidl::base::V1_0::IBase;

TEST(Root, OneObjectIsServedInBothVersions) {
    const auto v1_0 = V1_0::IActivityRecognition::tryGetService(gOptions.instance);
    ASSERT_NE(nullptr, v1_0.get()) << "nobody serves '" << gOptions.instance << "' as 1.0";
    ASSERT_NE(nullptr, root().get()) << "nobody serves '" << gOptions.instance << "' as 1.1";
    EXPECT_TRUE(interfacesEqual(v1_0, root()));
    const std::vector<std::string> expected{V1_1::IActivityRecognition::descriptor,
                                            V1_0::IActivityRecognition::descriptor,
                                            IBase::descriptor};
    EXPECT_EQ(expected, listOf(v1_0, &IBase::interfaceChain));
}

TEST(Root, BothGettersHandOutTheSameActivityObject) {
    ASSERT_NE(nullptr, activities().get()) << "an activity recognition module without activities";
    const sp<V1_0::IActivityInterface> v1_0 = root()->getActivityInterface();
    EXPECT_TRUE(interfacesEqual(v1_0, activities()));
    EXPECT_EQ(V1_1::IActivityInterface::descriptor, listOf(v1_0, &IBase::interfaceChain).at(0));
}

TEST(Root, BothGettersHandOutTheSameEnvironmentObjectOrNone) {
    ASSERT_NE(nullptr, root().get());
    const sp<V1_0::IEnvironmentInterface> v1_0 = root()->getEnvironmentInterface();
    ASSERT_EQ(v1_0 == nullptr, environments() == nullptr);
    if (v1_0 == nullptr) GTEST_SKIP() << "the module has no environments";
    EXPECT_TRUE(interfacesEqual(v1_0, environments()));
    EXPECT_EQ(V1_1::IEnvironmentInterface::descriptor, listOf(v1_0, &IBase::interfaceChain).at(0));
}
