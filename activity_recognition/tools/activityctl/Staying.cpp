// SPDX-License-Identifier: Apache-2.0
#include "Staying.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Commands.h"
#include "Waiting.h"

namespace activityctl {

Stay::Stay(const Options& options)
    : mOptions(options), mSignals(openSignals()), mTimer(openTimer(options.forNs)) {}

std::vector<bool> Stay::wait(std::initializer_list<int> fds, int milliseconds,
                             const Output& output) {
    std::vector<pollfd> all{
            {mSignals.get(), POLLIN, 0},
            {mTimer.get(), POLLIN, 0},
            // Also tells of a reader of standard output that has gone away.
            {STDOUT_FILENO, 0, 0},
    };
    const size_t own = all.size();
    for (int fd : fds) all.push_back({fd, POLLIN, 0});
    if (poll(all.data(), all.size(), milliseconds) < 0 && errno != EINTR) {
        throw Failure(kOutput, fmt::format("poll failed: error {}", errno));
    }
    if (all[0].revents) {
        end("signal");
    } else if (all[1].revents) {
        end("time");
    } else if (!output.isOpen() || (all[2].revents & (POLLERR | POLLHUP))) {
        end("output closed");
    }
    std::vector<bool> readable;
    for (size_t i = own; i < all.size(); ++i) readable.push_back(all[i].revents != 0);
    return readable;
}

DeliveryQueue::Content Stay::take(DeliveryQueue& queue, Output& output) {
    DeliveryQueue::Content content = queue.take();
    auto& deliveries = content.deliveries;
    for (auto delivery = deliveries.begin(); delivery != deliveries.end(); ++delivery) {
        if (mOptions.count && mEvents >= *mOptions.count) {
            deliveries.erase(delivery, deliveries.end());
            break;
        }
        auto& records = delivery->records;
        if (mOptions.count && records.size() > *mOptions.count - mEvents) {
            records.resize(*mOptions.count - mEvents);
        }
        mEvents += records.size();
    }
    if (content.lost != 0) {
        Output::complain(
                fmt::format("{} events lost: output is not read fast enough", content.lost));
        output.print("lost", {{"events", content.lost}}, "");
    }
    if (mOptions.count && mEvents >= *mOptions.count) mEnd = "count";
    return content;
}

void Stay::printEnd(Output& output) const {
    output.print("end", {{"reason", mEnd}, {"events", mEvents}},
                 fmt::format("{} events in {:.1f}s; ended by: {}", mEvents,
                             output.secondsSinceStart(), mEnd));
}

Registration::Registration(std::shared_ptr<Service> service, const OpenSide& open,
                           const Options& options)
    : mService(std::move(service)),
      mOpen(open),
      mOptions(options),
      mQueue(std::make_shared<DeliveryQueue>()) {}

void Registration::start() {
    mSide = mOpen(*mService);
    mNames = mSide->names();
    const auto wanted = resolve(*mSide, mNames, mOptions.pairs, mOptions.latencyNs);
    mService->watchDeath(mQueue);
    mSide->receive(mQueue);
    mRegisteredNs = systemTime(SYSTEM_TIME_MONOTONIC);
    try {
        for (const Pair& pair : wanted) enable(pair);
    } catch (const Failure& failure) {
        if (failure.status != kServiceLost) disableAll(true);
        throw;
    }
}

void Registration::enable(const Pair& pair) {
    if (mSide->refusalWithdraws()) forget(pair);
    enableOrFail(*mSide, pair, mOptions.extras);
    forget(pair);  // enabled once more, it is still one request
    mHeld.push_back({pair, systemTime(SYSTEM_TIME_MONOTONIC)});
}

void Registration::disable(const Pair& pair) {
    disableOrFail(*mSide, pair);
    forget(pair);
}

void Registration::forget(const Pair& pair) {
    mHeld.erase(std::remove_if(mHeld.begin(), mHeld.end(),
                               [&pair](const Pair& other) {
                                   return other.id == pair.id && other.eventType == pair.eventType;
                               }),
                mHeld.end());
}

bool Registration::disableAll(bool afterFailure) {
    bool clean = true;
    for (const Pair& pair : mHeld) {
        try {
            disableOrFail(*mSide, pair);
        } catch (const Failure& failure) {
            if (failure.status == kServiceLost && !afterFailure) throw;
            Output::complain(failure.what());
            clean = false;
        }
    }
    mHeld.clear();
    return clean;
}

void Registration::printReady(Output& output, const std::string& doing) const {
    nlohmann::json enabled = nlohmann::json::array();
    std::string text = doing;
    for (const Pair& pair : mHeld) {
        enabled.push_back(toJson(*mSide, pair));
        enabled.back()["latency_ns"] = pair.latencyNs;
        text += fmt::format(" {}@{}", pair.text, formatLatency(pair.latencyNs));
    }
    if (mHeld.empty()) text += " without enabling anything";
    text += fmt::format(" as process {} through version {}; Ctrl-C to leave", getpid(),
                        toText(mService->version()));
    output.print("ready",
                 {{"interface", toText(mService->version())}, {"enabled", std::move(enabled)}},
                 text);
}

void Registration::failForDeath() const {
    throw Failure(kServiceLost, fmt::format("the service {} died", mService->fullName()));
}

}  // namespace activityctl
