// SPDX-License-Identifier: Apache-2.0
// The service as a client sees it, with what differs between interface versions and between the
// two sides put behind one class each. Every call throws Failure(kServiceLost) when it fails in
// transport.
#pragma once

#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "DeliveryQueue.h"
#include "Records.h"
#include "Text.h"

namespace activityctl {

enum class Version { k1_0, k1_1 };

inline const char* toText(Version version) {
    return version == Version::k1_0 ? "1.0" : "1.1";
}

// The parameters of an extended enable and of the environment operations.
struct Extras {
    bool extended = false;  // activities: whether the extended method is called
    V1_0::OtherParams params{};
};

// One of the two sides. Results of enable() and the like are the service's: 0, or 1 for refused.
class ActivitySide;
class Side {
  public:
    virtual ~Side() = default;

    virtual const char* noun() const = 0;    // "activity", also the key in JSON
    virtual const char* plural() const = 0;  // "activities"
    virtual std::vector<std::string> names() = 0;
    virtual std::vector<Record> current() = 0;
    virtual int32_t enable(const Pair& pair, const Extras& extras) = 0;
    virtual int32_t disable(const Pair& pair) = 0;

    // Whether a refused enable takes back the same pair's earlier, granted one.
    virtual bool refusalWithdraws() const = 0;

    // Registers this process; events go to the queue from then on, for the life of the process.
    // The service does not tell whether it took the registration.
    virtual void receive(const std::shared_ptr<DeliveryQueue>& queue) = 0;

    // NULL of the other side. A device's build has no run-time type information.
    virtual ActivitySide* asActivities() { return nullptr; }
};

class ActivitySide : public Side {
  public:
    virtual int32_t flush() = 0;
    ActivitySide* asActivities() override { return this; }
};

class EnvironmentSide : public Side {
  public:
    virtual int32_t init(uint32_t environment, const Extras& extras) = 0;
    virtual int32_t exit(uint32_t environment, const Extras& extras) = 0;
};

class Service {
  public:
    // NULL if nobody serves the instance in that version.
    static std::unique_ptr<Service> find(const std::string& instance, Version version);
    // Throws Failure(kNoService) instead, after so long, or when a signal comes that ends commands.
    Service(const std::string& instance, Version version, int64_t waitNs);

    Version version() const { return mVersion; }
    std::string fullName() const;  // as lshal writes it

    // The interfaces that the served object says it has, most derived first.
    std::vector<std::string> interfaceChain();

    // Its process, if it may be told.
    std::optional<pid_t> pid();

    // Has the service write to a descriptor what it tells of itself.
    void debug(::android::base::unique_fd fd, const std::vector<std::string>& options);

    // NULL if the service's native module has no such side.
    std::unique_ptr<ActivitySide> findActivities();
    std::unique_ptr<EnvironmentSide> findEnvironments();
    // As above, but Failure(kUnavailable) instead of NULL.
    std::unique_ptr<ActivitySide> activities();
    std::unique_ptr<EnvironmentSide> environments();

    // Has the queue told when the service dies.
    void watchDeath(const std::shared_ptr<DeliveryQueue>& queue);

  private:
    Service(const std::string& instance, Version version);
    bool find();

    const std::string mInstance;
    const Version mVersion;
    ::android::sp<V1_0::IActivityRecognition> mRoot;
    ::android::sp<V1_1::IActivityRecognition> mRootV1_1;  // NULL for version 1.0
    ::android::sp<::android::hardware::hidl_death_recipient> mDeathRecipient;
};

}  // namespace activityctl
