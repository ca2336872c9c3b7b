#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>

#include <algorithm>

#include "Target.h"

using ::android::sp;
using ::android::hardware::interfacesEqual;

namespace {

std::vector<std::string> chainOf(const sp<::android::hidl::base::V1_0::IBase>& object) {
    std::vector<std::string> chain;
    EXPECT_TRUE(object->interfaceChain([&chain](const auto& names) {
                          for (const auto& name : names) chain.push_back(name);
                      }).isOk());
    return chain;
}

}  // namespace

TEST(Root, OneObjectIsServedInBothVersions) {
    const sp<V1_0::IActivityRecognition> v1_0 = rootV1_0();
    const sp<V1_1::IActivityRecognition> v1_1 = rootV1_1();
    ASSERT_NE(nullptr, v1_0.get()) << "nobody serves '" << gOptions.instance << "' as 1.0";
    ASSERT_NE(nullptr, v1_1.get()) << "nobody serves '" << gOptions.instance << "' as 1.1";
    EXPECT_TRUE(interfacesEqual(v1_0, v1_1));
    const std::vector<std::string> expected{V1_1::IActivityRecognition::descriptor,
                                            V1_0::IActivityRecognition::descriptor,
                                            ::android::hidl::base::V1_0::IBase::descriptor};
    EXPECT_EQ(expected, chainOf(v1_0));
}

TEST(Root, BothGettersHandOutTheSameActivityObject) {
    ASSERT_NE(nullptr, rootV1_0().get());
    const sp<V1_0::IActivityInterface> v1_0 = rootV1_0()->getActivityInterface();
    const sp<V1_1::IActivityInterface> v1_1 = activities();
    ASSERT_NE(nullptr, v1_1.get()) << "an activity recognition module without activities";
    EXPECT_TRUE(interfacesEqual(v1_0, v1_1));
    EXPECT_TRUE(interfacesEqual(v1_1, activities()));
    EXPECT_EQ(V1_1::IActivityInterface::descriptor, chainOf(v1_0).front());
}

TEST(Root, BothGettersHandOutTheSameEnvironmentObjectOrNone) {
    ASSERT_NE(nullptr, rootV1_0().get());
    const sp<V1_0::IEnvironmentInterface> v1_0 = rootV1_0()->getEnvironmentInterface();
    const sp<V1_1::IEnvironmentInterface> v1_1 = environments();
    ASSERT_EQ(v1_0 == nullptr, v1_1 == nullptr);
    if (v1_1 == nullptr) GTEST_SKIP() << "the module has no environments";
    EXPECT_TRUE(interfacesEqual(v1_0, v1_1));
    EXPECT_EQ(V1_1::IEnvironmentInterface::descriptor, chainOf(v1_0).front());
}
