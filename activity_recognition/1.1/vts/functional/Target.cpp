// SPDX-License-Identifier: Apache-2.0
#include "Target.h"

using ::android::sp;

Options gOptions;

// tryGetService: a service that is not there fails the test now, not after the suite's time limit.
sp<V1_1::IActivityRecognition> root() {
    return V1_1::IActivityRecognition::tryGetService(gOptions.instance);
}

sp<V1_1::IActivityInterface> activities() {
    const sp<V1_1::IActivityRecognition> service = root();
    if (service == nullptr) return nullptr;
    const auto result = service->getActivityInterfaceV1_1();
    return result.isOk() ? sp<V1_1::IActivityInterface>(result) : nullptr;
}

sp<V1_1::IEnvironmentInterface> environments() {
    const sp<V1_1::IActivityRecognition> service = root();
    if (service == nullptr) return nullptr;
    const auto result = service->getEnvironmentInterfaceV1_1();
    return result.isOk() ? sp<V1_1::IEnvironmentInterface>(result) : nullptr;
}

V1_0::OtherParams otherParams(double first, size_t nameLength) {
    V1_0::OtherParams params;
    for (size_t i = 0; i < 4; ++i) params.params[i] = i == 0 ? first : 0.0;
    params.name = std::string(nameLength, 'n');
    return params;
}

int32_t checked(const ::android::hardware::Return<int32_t>& result) {
    EXPECT_TRUE(result.isOk()) << result.description();
    const int32_t value = result.isOk() ? int32_t(result) : -1;
    EXPECT_TRUE(value == 0 || value == 1) << value;
    return value;
}

std::vector<Pair> acceptedPairs(size_t most) {
    std::vector<Pair> pairs;
    const sp<V1_1::IActivityInterface> service = activities();
    if (service == nullptr) return pairs;
    const size_t count =
            listOf(service, &V1_1::IActivityInterface::getSupportedActivitiesList).size();
    for (uint32_t i = 0; i < 2 * count && pairs.size() < most; ++i) {
        const Pair pair{i / 2, 1 + i % 2};
        if (checked(service->enableActivityEvent(pair.activity, pair.eventType, kSecondNs)) != 0) {
            continue;
        }
        EXPECT_EQ(0, checked(service->disableActivityEvent(pair.activity, pair.eventType)))
                << pair.text();
        pairs.push_back(pair);
    }
    return pairs;
}
