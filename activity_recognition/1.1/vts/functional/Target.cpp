#include "Target.h"

using ::android::sp;

Options gOptions;

int eventTimeoutMs() {
    return gOptions.simulator ? 30000 : 5000;
}

// tryGetService: a service that is not there fails the test now, not after the suite's time limit.
sp<V1_0::IActivityRecognition> rootV1_0() {
    return V1_0::IActivityRecognition::tryGetService(gOptions.instance);
}

sp<V1_1::IActivityRecognition> rootV1_1() {
    return V1_1::IActivityRecognition::tryGetService(gOptions.instance);
}

sp<V1_1::IActivityInterface> activities() {
    const sp<V1_1::IActivityRecognition> root = rootV1_1();
    if (root == nullptr) return nullptr;
    const auto result = root->getActivityInterfaceV1_1();
    return result.isOk() ? sp<V1_1::IActivityInterface>(result) : nullptr;
}

sp<V1_1::IEnvironmentInterface> environments() {
    const sp<V1_1::IActivityRecognition> root = rootV1_1();
    if (root == nullptr) return nullptr;
    const auto result = root->getEnvironmentInterfaceV1_1();
    return result.isOk() ? sp<V1_1::IEnvironmentInterface>(result) : nullptr;
}

V1_0::OtherParams otherParams(double first, size_t nameLength) {
    V1_0::OtherParams params;
    for (size_t i = 0; i < 4; ++i) params.params[i] = 0.0;
    params.params[0] = first;
    params.name = std::string(nameLength, 'n');
    return params;
}

int32_t checked(const ::android::hardware::Return<int32_t>& result) {
    EXPECT_TRUE(result.isOk()) << result.description();
    if (!result.isOk()) return -1;
    const int32_t value = result;
    EXPECT_TRUE(value == 0 || value == 1) << value;
    return value;
}

std::vector<Pair> acceptedPairs(size_t most) {
    std::vector<Pair> pairs;
    const sp<V1_1::IActivityInterface> service = activities();
    if (service == nullptr) return pairs;
    size_t count = 0;
    EXPECT_TRUE(
            service->getSupportedActivitiesList([&count](const auto& list) { count = list.size(); })
                    .isOk());
    for (uint32_t activity = 0; activity < count; ++activity) {
        for (uint32_t eventType = 1; eventType <= 2 && pairs.size() < most; ++eventType) {
            const auto enabled = service->enableActivityEvent(activity, eventType, 1000000000);
            if (!enabled.isOk() || int32_t(enabled) != 0) continue;
            const auto disabled = service->disableActivityEvent(activity, eventType);
            EXPECT_TRUE(disabled.isOk() && int32_t(disabled) == 0)
                    << "activity " << activity << ", event type " << eventType;
            pairs.push_back({activity, eventType});
        }
    }
    return pairs;
}
