// SPDX-License-Identifier: Apache-2.0
// What commands that stay have in common: being a client that holds requests, and what ends it. One
// thread waits on everything at once (events, signals, the clock, standard input); the service's
// threads only fill the queue.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "DeliveryQueue.h"
#include "Options.h"
#include "Output.h"
#include "Service.h"

namespace activityctl {

using OpenSide = std::function<std::unique_ptr<Side>(Service&)>;

// Until when a command stays: for a signal, its --for, its --count of events, a reader of standard
// output that goes, or what it finds itself. Whoever makes one has called takeOverSignals().
class Stay {
  public:
    explicit Stay(const Options& options);

    bool goesOn() const { return mEnd.empty(); }
    void end(const std::string& reason) { mEnd = reason; }
    const std::string& reason() const { return mEnd; }

    // For anything to happen, at most so long (-1: for ever), and tells which of the descriptors
    // are readable. Takes note of what ends the stay.
    std::vector<bool> wait(std::initializer_list<int> fds, int milliseconds, const Output& output);

    // What has arrived, up to the count that was asked for. Says how much was lost.
    DeliveryQueue::Content take(DeliveryQueue& queue, Output& output);
    uint64_t events() const { return mEvents; }

    void printEnd(Output& output) const;

  private:
    const Options& mOptions;
    const ::android::base::unique_fd mSignals;
    const ::android::base::unique_fd mTimer;
    uint64_t mEvents = 0;
    std::string mEnd;
};

// This process as a client of one side of one service.
class Registration {
  public:
    struct Held : Pair {
        int64_t sinceNs;
    };

    // Calls nobody yet.
    Registration(std::shared_ptr<Service> service, const OpenSide& open, const Options& options);

    // Registers, and enables what the command line names. When that fails, what was enabled is
    // disabled again.
    void start();
    // After start().
    Side& side() const { return *mSide; }
    const std::vector<std::string>& names() const { return mNames; }
    const std::vector<Held>& held() const { return mHeld; }
    int64_t registeredNs() const { return mRegisteredNs; }
    void enable(const Pair& pair);
    void disable(const Pair& pair);
    // Whether the service took every disable; complains of each that it refused. afterFailure: also
    // of those that it could not be asked for.
    bool disableAll(bool afterFailure = false);
    void printReady(Output& output, const std::string& doing) const;

    const std::shared_ptr<DeliveryQueue>& queue() const { return mQueue; }
    [[noreturn]] void failForDeath() const;

  private:
    void forget(const Pair& pair);

    const std::shared_ptr<Service> mService;
    const OpenSide mOpen;
    const Options mOptions;  // its own, as start() may outlast the command
    const std::shared_ptr<DeliveryQueue> mQueue;
    std::unique_ptr<Side> mSide;
    std::vector<std::string> mNames;
    std::vector<Held> mHeld;
    int64_t mRegisteredNs = 0;
};

}  // namespace activityctl
