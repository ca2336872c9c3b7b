// SPDX-License-Identifier: Apache-2.0
// The commands that stay: register, enable, print what comes, disable, leave. One thread waits on
// everything at once (events, signals, the clock, standard input); the service's threads only fill
// the queue.
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include <android-base/unique_fd.h>

#include "Commands.h"
#include "Waiting.h"

namespace activityctl {
namespace {

using ::android::base::unique_fd;

class Watch {
  public:
    Watch(const OpenSide& open, const Options& options, Output& output, bool quiet)
        : mOpenSide(open),
          mOptions(options),
          mOutput(output),
          mQuiet(quiet),
          mSignals(openSignals()),
          mTimer(openTimer(options.forNs)) {}

    ExitStatus run() {
        mService = std::make_unique<Service>(mOptions.instance, mOptions.version, mOptions.waitNs);
        ExitStatus status = kOk;
        while (mService != nullptr) {
            try {
                status = serve();
                break;
            } catch (const Failure& failure) {
                if (failure.status != kServiceLost) throw;
                if (!mOptions.reconnect) {
                    mEnd = "service died";
                    printEnd();
                    throw;
                }
                Output::complain(std::string(failure.what()) + "; waiting for it to come back");
                mOutput.print("disconnected", {}, "");
                awaitService();
            }
        }
        printEnd();
        return status;
    }

  private:
    // With a service, from its finding until the end of the watch.
    ExitStatus serve() {
        mSide = mOpenSide(*mService);
        mEnabled.clear();
        mQueue = std::make_shared<DeliveryQueue>();
        mNames = mSide->names();
        const auto wanted = resolve(*mSide, mNames, mOptions.pairs, mOptions.latencyNs);
        mService->watchDeath(mQueue);
        mSide->receive(mQueue);
        try {
            for (const Pair& pair : wanted) enable(pair);
            printReady();
            while (mEnd.empty()) waitAndServe();
        } catch (const Failure& failure) {
            if (failure.status != kServiceLost) disableAll(true);
            throw;
        }
        const bool clean = disableAll(false);
        drain();
        return clean ? kOk : kRefused;
    }

    // NULL when the watch has ended meanwhile.
    void awaitService() {
        mSide = nullptr;
        do {
            mService = nullptr;
            wait(-1, 50 /* milliseconds */);
            if (!mEnd.empty()) return;
            mService = Service::find(mOptions.instance, mOptions.version);
        } while (mService == nullptr);
    }

    void printEnd() {
        mOutput.print("end", {{"reason", mEnd}, {"events", mEvents}},
                      fmt::format("{} events in {:.1f}s; ended by: {}", mEvents,
                                  mOutput.secondsSinceStart(), mEnd));
    }

    void enable(const Pair& pair) {
        if (mSide->refusalWithdraws()) forget(pair);
        enableOrFail(*mSide, pair, mOptions.extras);
        forget(pair);  // enabled once more, it is still one request
        mEnabled.push_back(pair);
    }

    void forget(const Pair& pair) {
        mEnabled.erase(std::remove_if(mEnabled.begin(), mEnabled.end(),
                                      [&pair](const Pair& other) {
                                          return other.id == pair.id &&
                                                 other.eventType == pair.eventType;
                                      }),
                       mEnabled.end());
    }

    // Returns whether the service took every disable; complains of each that it refused.
    bool disableAll(bool afterFailure) {
        bool clean = true;
        for (const Pair& pair : mEnabled) {
            try {
                disableOrFail(*mSide, pair);
            } catch (const Failure& failure) {
                if (failure.status == kServiceLost && !afterFailure) throw;
                Output::complain(failure.what());
                clean = false;
            }
        }
        mEnabled.clear();
        return clean;
    }

    void printReady() {
        nlohmann::json enabled = nlohmann::json::array();
        std::string text = mQuiet ? "holding" : "watching";
        for (const Pair& pair : mEnabled) {
            enabled.push_back(toJson(*mSide, pair));
            enabled.back()["latency_ns"] = pair.latencyNs;
            text += fmt::format(" {}@{}", pair.text, formatLatency(pair.latencyNs));
        }
        if (mEnabled.empty()) text += " without enabling anything";
        text += fmt::format(" as process {} through version {}; Ctrl-C to leave", getpid(),
                            toText(mService->version()));
        mOutput.print("ready",
                      {{"interface", toText(mService->version())}, {"enabled", std::move(enabled)}},
                      text);
        if (mOutput.json() || mQuiet) return;
        mOutput.print("current", {}, "current now:");
        activityctl::current(*mSide, mOutput);
    }

    void waitAndServe() {
        if (wait(mQueue->fd(), -1)) drain();
        if (mEnd.empty() && mReadable) readCommands();
    }

    // For anything to happen; whether it did on this descriptor. Takes note of what ends the watch.
    bool wait(int fd, int milliseconds) {
        pollfd fds[] = {
                {fd, POLLIN, 0},
                {mSignals.get(), POLLIN, 0},
                {mTimer.get(), POLLIN, 0},
                // Also tells of a reader of standard output that has gone away.
                {STDOUT_FILENO, 0, 0},
                {mOptions.control && fd >= 0 ? STDIN_FILENO : -1, POLLIN, 0},
        };
        if (poll(fds, std::size(fds), milliseconds) < 0 && errno != EINTR) {
            throw Failure(kOutput, fmt::format("poll failed: error {}", errno));
        }
        if (fds[1].revents) {
            mEnd = "signal";
        } else if (fds[2].revents) {
            mEnd = "time";
        } else if (!mOutput.isOpen() || (fds[3].revents & (POLLERR | POLLHUP))) {
            mEnd = "output closed";
        }
        mReadable = fds[4].revents != 0;
        return fds[0].revents != 0;
    }

    // Prints what has arrived, up to the count that was asked for.
    void drain() {
        DeliveryQueue::Content content = mQueue->take();
        for (Delivery& delivery : content.deliveries) {
            if (mOptions.count && mEvents >= *mOptions.count) break;
            if (mOptions.count && delivery.records.size() > *mOptions.count - mEvents) {
                delivery.records.resize(*mOptions.count - mEvents);
            }
            mEvents += delivery.records.size();
            if (!mQuiet) print(delivery);
        }
        if (content.lost != 0) {
            Output::complain(
                    fmt::format("{} events lost: output is not read fast enough", content.lost));
            mOutput.print("lost", {{"events", content.lost}}, "");
        }
        if (mOptions.count && mEvents >= *mOptions.count) mEnd = "count";
        if (content.serviceDied) {
            throw Failure(kServiceLost, fmt::format("the service {} died", mService->fullName()));
        }
    }

    void print(const Delivery& delivery) {
        if (mOutput.json()) {
            nlohmann::json events = nlohmann::json::array();
            for (const Record& record : delivery.records) {
                events.push_back(activityctl::toJson(record, mSide->noun(), mNames));
            }
            mOutput.printAt(delivery.arrivedNs, delivery.call, {{"events", std::move(events)}}, {});
            return;
        }
        for (const Record& record : delivery.records) {
            mOutput.print(delivery.call, {},
                          fmt::format("{} {}", mOutput.dim(mOutput.sinceStart(delivery.arrivedNs)),
                                      toText(record, mNames, mOutput)));
        }
    }

    void readCommands() {
        char buffer[4096];
        const ssize_t size = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (size < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (size <= 0) {
            mEnd = "end of commands";
            return;
        }
        mInput.append(buffer, static_cast<size_t>(size));
        for (size_t end; mEnd.empty() && (end = mInput.find('\n')) != std::string::npos;) {
            const std::string line = mInput.substr(0, end);
            mInput.erase(0, end + 1);
            try {
                obey(line);
            } catch (const Failure& failure) {
                if (failure.status == kServiceLost) throw;
                // A command that fails ends neither the watch nor what it holds.
                Output::complain(failure.what());
                mOutput.print("failed", {{"command", line}, {"error", failure.what()}}, "");
            }
        }
    }

    void obey(const std::string& line) {
        std::istringstream words(line);
        std::string command;
        if (!(words >> command)) return;
        std::vector<PairText> texts;
        for (std::string word; words >> word;) texts.push_back(parsePair(word));

        if (command == "enable" && !texts.empty()) {
            for (const Pair& pair : resolve(*mSide, mNames, texts, mOptions.latencyNs)) {
                enable(pair);
                auto json = activityctl::toJson(*mSide, pair);
                json["latency_ns"] = pair.latencyNs;
                mOutput.print(
                        "enabled", std::move(json),
                        fmt::format("enabled {}@{}", pair.text, formatLatency(pair.latencyNs)));
            }
        } else if (command == "disable" && !texts.empty()) {
            for (const Pair& pair : resolve(*mSide, mNames, texts, mOptions.latencyNs)) {
                disableOrFail(*mSide, pair);
                forget(pair);
                mOutput.print("disabled", activityctl::toJson(*mSide, pair),
                              fmt::format("disabled {}", pair.text));
            }
        } else if (command == "flush" && texts.empty()) {
            auto* activities = mSide->asActivities();
            if (activities == nullptr) throw Failure(kUsage, "environments have no flush");
            activityctl::flush(*activities, mOutput);
        } else if (command == "current" && texts.empty()) {
            activityctl::current(*mSide, mOutput);
        } else if (command == "quit" && texts.empty()) {
            mEnd = "quit";
        } else {
            throw Failure(kUsage, fmt::format("'{}' is no command; there are: enable PAIR..., "
                                              "disable PAIR..., flush, current, quit",
                                              line));
        }
    }

    const OpenSide& mOpenSide;
    const Options& mOptions;
    Output& mOutput;
    const bool mQuiet;
    const unique_fd mSignals;
    const unique_fd mTimer;

    // New with each connection.
    std::unique_ptr<Service> mService;
    std::unique_ptr<Side> mSide;
    std::shared_ptr<DeliveryQueue> mQueue;
    std::vector<std::string> mNames;
    std::vector<Pair> mEnabled;
    uint64_t mEvents = 0;
    bool mReadable = false;  // standard input
    std::string mInput;      // of it, not yet a whole line
    std::string mEnd;        // why the watch ends; empty while it goes on
};

}  // namespace

ExitStatus watch(const OpenSide& open, const Options& options, Output& output, bool quiet) {
    return Watch(open, options, output, quiet).run();
}

}  // namespace activityctl
