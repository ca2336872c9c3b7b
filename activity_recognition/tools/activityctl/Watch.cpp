// SPDX-License-Identifier: Apache-2.0
// Watching and holding: print what comes, and obey lines on standard input.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <sstream>

#include "Commands.h"

namespace activityctl {
namespace {

class Watch {
  public:
    Watch(const OpenSide& open, const Options& options, Output& output, bool quiet)
        : mOpenSide(open), mOptions(options), mOutput(output), mQuiet(quiet), mStay(options) {}

    ExitStatus run() {
        mService = std::make_shared<Service>(mOptions.instance, mOptions.version, mOptions.waitNs);
        ExitStatus status = kOk;
        while (mService != nullptr) {
            try {
                status = serve();
                break;
            } catch (const Failure& failure) {
                if (failure.status != kServiceLost) throw;
                if (!mOptions.reconnect) {
                    mStay.end("service died");
                    mStay.printEnd(mOutput);
                    throw;
                }
                Output::complain(std::string(failure.what()) + "; waiting for it to come back");
                mOutput.print("disconnected", {}, "");
                awaitService();
            }
        }
        mStay.printEnd(mOutput);
        return status;
    }

  private:
    // With a service, from its finding until the end of the watch.
    ExitStatus serve() {
        mClient.emplace(mService, mOpenSide, mOptions);
        mClient->start();
        try {
            printReady();
            while (mStay.goesOn()) waitAndServe();
        } catch (const Failure& failure) {
            if (failure.status != kServiceLost) mClient->disableAll(true);
            throw;
        }
        const bool clean = mClient->disableAll();
        drain();
        return clean ? kOk : kRefused;
    }

    // NULL when the watch has ended meanwhile.
    void awaitService() {
        mClient.reset();
        do {
            mService = nullptr;
            mStay.wait({}, 50 /* milliseconds */, mOutput);
            if (!mStay.goesOn()) return;
            mService = Service::find(mOptions.instance, mOptions.version);
        } while (mService == nullptr);
    }

    void printReady() {
        mClient->printReady(mOutput, mQuiet ? "holding" : "watching");
        if (mOutput.json() || mQuiet) return;
        mOutput.print("current", {}, "current now:");
        activityctl::current(mClient->side(), mOutput);
    }

    void waitAndServe() {
        const auto readable = mStay.wait(
                {mClient->queue()->fd(), mOptions.control ? STDIN_FILENO : -1}, -1, mOutput);
        if (readable[0]) drain();
        if (mStay.goesOn() && readable[1]) readCommands();
    }

    // Prints what has arrived.
    void drain() {
        const DeliveryQueue::Content content = mStay.take(*mClient->queue(), mOutput);
        for (const Delivery& delivery : content.deliveries) {
            if (!mQuiet) print(delivery);
        }
        if (content.serviceDied) mClient->failForDeath();
    }

    void print(const Delivery& delivery) {
        if (mOutput.json()) {
            nlohmann::json events = nlohmann::json::array();
            for (const Record& record : delivery.records) {
                events.push_back(
                        activityctl::toJson(record, mClient->side().noun(), mClient->names()));
            }
            mOutput.printAt(delivery.arrivedNs, delivery.call, {{"events", std::move(events)}}, {});
            return;
        }
        for (const Record& record : delivery.records) {
            mOutput.print(delivery.call, {},
                          fmt::format("{} {}", mOutput.dim(mOutput.sinceStart(delivery.arrivedNs)),
                                      toText(record, mClient->names(), mOutput)));
        }
    }

    void readCommands() {
        char buffer[4096];
        const ssize_t size = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (size < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (size <= 0) {
            mStay.end("end of commands");
            return;
        }
        mInput.append(buffer, static_cast<size_t>(size));
        for (size_t end; mStay.goesOn() && (end = mInput.find('\n')) != std::string::npos;) {
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

        Side& side = mClient->side();
        if (command == "enable" && !texts.empty()) {
            for (const Pair& pair : resolve(side, mClient->names(), texts, mOptions.latencyNs)) {
                mClient->enable(pair);
                auto json = activityctl::toJson(side, pair);
                json["latency_ns"] = pair.latencyNs;
                mOutput.print(
                        "enabled", std::move(json),
                        fmt::format("enabled {}@{}", pair.text, formatLatency(pair.latencyNs)));
            }
        } else if (command == "disable" && !texts.empty()) {
            for (const Pair& pair : resolve(side, mClient->names(), texts, mOptions.latencyNs)) {
                mClient->disable(pair);
                mOutput.print("disabled", activityctl::toJson(side, pair),
                              fmt::format("disabled {}", pair.text));
            }
        } else if (command == "flush" && texts.empty()) {
            auto* activities = side.asActivities();
            if (activities == nullptr) throw Failure(kUsage, "environments have no flush");
            activityctl::flush(*activities, mOutput);
        } else if (command == "current" && texts.empty()) {
            activityctl::current(side, mOutput);
        } else if (command == "quit" && texts.empty()) {
            mStay.end("quit");
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
    Stay mStay;

    // New with each connection.
    std::shared_ptr<Service> mService;
    std::optional<Registration> mClient;
    std::string mInput;  // standard input that is not yet a whole line
};

}  // namespace

ExitStatus watch(const OpenSide& open, const Options& options, Output& output, bool quiet) {
    return Watch(open, options, output, quiet).run();
}

}  // namespace activityctl
