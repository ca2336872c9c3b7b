// SPDX-License-Identifier: Apache-2.0
// What a client can see, as a trace: its own deliveries and requests, and what dumps tell of the
// others and of the module. One thread waits for everything; what the service is asked for, but for
// the withdrawal at the end, is asked on others, as it may not answer.
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <future>
#include <optional>

#include <android-base/unique_fd.h>
#include <trace/Trace.h>
#include <utils/Timers.h>

#include "Background.h"
#include "Commands.h"
#include "Dump.h"
#include "DumpFollower.h"
#include "Waiting.h"
#include "WholeFile.h"

namespace activityctl {
namespace {

using ::android::base::unique_fd;
using trace::Row;

// What a record takes in memory; with dumps alone, every 100 ms, that is more than half a day.
constexpr size_t kMostBytes = 64 << 20;

// What is under way at the end, and the dump that shows how it stands then, take longer only where
// something is stuck.
constexpr int64_t kLastLookNs = 1'000'000'000;

// No process has it: Linux ends below.
constexpr pid_t kUnknownModule = 1 << 22;

int64_t monotonicNow() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

class Recorder {
  public:
    Recorder(std::shared_ptr<Service> service, const OpenSide& open, const Options& options,
             Output& output)
        : mOptions(options),
          mOutput(output),
          mService(std::move(service)),
          mClient(std::make_shared<Registration>(mService, open, options)),
          mStay(options),
          mTick(openTimer(1, options.everyNs)) {}

    ExitStatus run(WholeFile& file) {
        std::optional<Failure> lost;
        try {
            while (mStay.goesOn()) waitAndServe();
            lookOnceMore();
            if (mReady) drain();
        } catch (const Failure& failure) {
            if (failure.status != kServiceLost) {
                withdraw(true);
                throw;
            }
            lost.emplace(failure);
            mStay.end("service died");
            if (mModule) {
                mTrace.instant("death", "the service died",
                               {*mModule, Row::kCalls, monotonicNow()});
            }
        }
        try {
            write(file);
        } catch (const Failure&) {
            withdraw(true);
            throw;
        }
        const bool clean = lost || withdraw(false);
        mStay.printEnd(mOutput);
        if (lost) throw Failure(*lost);
        return clean ? kOk : kRefused;
    }

  private:
    struct Sample {
        // With the first one.
        pid_t module = kUnknownModule;
        std::vector<std::string> names;

        std::optional<Dump> dump;
        std::string noDump;  // why there is none
    };

    void waitAndServe() {
        const auto readable = mStay.wait({mTick.get(), mAnswered->get(), mStarted->get(),
                                          mReady ? mClient->queue()->fd() : -1},
                                         -1, mOutput);
        if (!mStay.goesOn()) return;
        uint64_t ticks;
        if (readable[1]) {
            eventfd_read(mAnswered->get(), &ticks);
            take();
        }
        if (readable[2]) {
            eventfd_read(mStarted->get(), &ticks);
            begin();
        }
        if (readable[3]) drain();
        if (readable[0] && read(mTick.get(), &ticks, sizeof(ticks)) > 0) ask();
        if (mTrace.size() > kMostBytes) mStay.end("full");
    }

    void ask() {
        if (mAsked.valid()) {
            const int64_t waited = monotonicNow() - mAskedNs;
            if (waited >= kPatienceNs && !std::exchange(mComplained, true)) {
                Output::complain(fmt::format("no dump for {}", formatAge(waited)));
            }
            return;
        }
        if (!mNoAccount.empty()) return;
        mAskedNs = monotonicNow();
        mComplained = false;
        mAsked = inBackground(mAnswered, [service = mService, first = !mFollower] {
            Sample sample;
            if (first) sample.module = service->pid().value_or(kUnknownModule);
            try {
                sample.dump = readDump(*service);
                if (first) sample.names = activityNamesInTime(service, *sample.dump);
            } catch (const Failure& failure) {
                if (failure.status != kUnavailable) throw;
                sample.noDump = failure.what();
            }
            return sample;
        });
    }

    void take() {
        Sample sample;
        try {
            sample = mAsked.get();
        } catch (const Failure&) {
            if (!mFollower) throw;
            // Whether the service has died is told in another way.
            return mFollower->takeFailure();
        }
        if (!mFollower) start(sample);
        if (sample.dump) {
            mFollower->take(*sample.dump, mNames);
        } else if (mFollower) {
            mFollower->takeFailure();
        }
    }

    // Behind the first dump, which shows how it stood before.
    void start(const Sample& first) {
        mModule = first.module;
        mNames = first.names;
        mNoAccount = first.noDump;
        if (!mNoAccount.empty()) {
            Output::complain(mNoAccount + "; recorded is only what this client gets");
        }
        mTrace.addProcess(*mModule, "module",
                          mNoAccount.empty() ? "as dumps tell" : "no dumps tell of it",
                          {{Row::kCalls, "calls"}, {Row::kPolls, "dumps"}});
        mTrace.addProcess(getpid(), fmt::format("activityctl[{}]", getpid()),
                          fmt::format("this recorder, {}", toText(mService->version())),
                          {{Row::kCalls, "calls"}, {Row::kBatches, "deliveries"}});
        if (mNoAccount.empty()) {
            mFollower.emplace(mTrace, getpid(), *mModule, mStartNs, mOptions.everyNs);
        }
        if (!mStay.goesOn()) return;
        mStarting = inBackground(mStarted, [client = mClient] {
            client->start();
            return true;
        });
    }

    // The registration stands.
    void begin() {
        mStarting.get();
        mReady = true;
        mTrace.instant("enter", "registered", at(Row::kCalls, mClient->registeredNs()));
        for (const Registration::Held& held : mClient->held()) {
            mTrace.begin("request", held.text, at(Row::kCalls, held.sinceNs),
                         {{"latency_ns", held.latencyNs}});
        }
        mClient->printReady(mOutput, "recording");
    }

    void drain() {
        const DeliveryQueue::Content content = mStay.take(*mClient->queue(), mOutput);
        for (const Delivery& delivery : content.deliveries) add(delivery);
        mLost += content.lost;
        if (content.serviceDied) mClient->failForDeath();
    }

    void add(const Delivery& delivery) {
        const auto& names = mClient->names();
        nlohmann::json records = nlohmann::json::array();
        std::string text;
        for (const Record& record : delivery.records) {
            records.push_back(toJson(record, mClient->side().noun(), names));
            if (!text.empty()) text += ", ";
            text += fmt::format("{}:{}", nameOf(record.id, names), record.eventType);
            if (record.extra) text += fmt::format(" #{}", *record.extra);
        }
        mTrace.slice("delivery", delivery.call, at(Row::kBatches, delivery.arrivedNs),
                     trace::Trace::kMomentNs,
                     {{"text", text.empty() ? "nothing" : text}, {"records", std::move(records)}});
    }

    // So that what was there to be seen at the end is in the record.
    void lookOnceMore() {
        const auto comes = [](const auto& result) {
            return result.valid() && result.wait_for(std::chrono::nanoseconds(kLastLookNs)) ==
                                             std::future_status::ready;
        };
        if (!mReady && comes(mStarting)) begin();
        if (comes(mAsked)) take();
        if (mAsked.valid()) return;
        ask();
        if (comes(mAsked)) take();
    }

    void write(WholeFile& file) {
        const int64_t endNs = monotonicNow();
        nlohmann::json told{{"polls", 0},
                            {"failed_polls", 0},
                            {"held_polls", 0},
                            {"overrun_polls", 0},
                            {"longest_gap_ns", endNs - mStartNs}};
        if (mFollower) {
            mFollower->finish(endNs);
            told = mFollower->account();
        }
        told["recorder"] = "activityctl " AR_VERSION;
        told["pid"] = getpid();
        told["service"] = mService->fullName();
        told["start_ns"] = mStartNs;
        told["end_ns"] = endNs;
        told["end"] = mStay.reason();
        told["interval_ns"] = mOptions.everyNs;
        told["lost_records"] = mLost;
        if (!mNoAccount.empty()) told["no_dumps"] = mNoAccount;
        file.write([&](std::ostream& out) { mTrace.write(out, {{"otherData", told}}); });
        if (mOutput.json()) return;
        mOutput.print("", {},
                      fmt::format("{}: {} dumps of the service, at most {} apart", mOptions.file,
                                  told.at("polls").get<uint64_t>(),
                                  formatAge(told.at("longest_gap_ns").get<int64_t>())));
    }

    bool withdraw(bool afterFailure) { return !mReady || mClient->disableAll(afterFailure); }

    static trace::Place at(Row row, int64_t ns) { return {getpid(), row, ns}; }

    static std::shared_ptr<unique_fd> openEvent() {
        return std::make_shared<unique_fd>(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    }

    const Options& mOptions;
    Output& mOutput;
    const std::shared_ptr<Service> mService;
    // Also of the thread that starts it, until mReady.
    const std::shared_ptr<Registration> mClient;
    bool mReady = false;
    const int64_t mStartNs = monotonicNow();
    Stay mStay;
    const unique_fd mTick;
    const std::shared_ptr<unique_fd> mAnswered = openEvent(), mStarted = openEvent();
    std::future<Sample> mAsked;  // valid while an answer is awaited
    int64_t mAskedNs = 0;
    bool mComplained = false;
    std::future<bool> mStarting;

    trace::Trace mTrace{mStartNs};
    std::optional<pid_t> mModule;           // from the first answer on
    std::vector<std::string> mNames;        // of activities
    std::string mNoAccount;                 // why the service cannot be followed
    std::optional<DumpFollower> mFollower;  // from the first dump on
    size_t mLost = 0;
};

}  // namespace

ExitStatus record(const OpenSide& open, const Options& options, Output& output) {
    WholeFile file(options.file);
    auto service = std::make_shared<Service>(options.instance, options.version, options.waitNs);
    return Recorder(std::move(service), open, options, output).run(file);
}

}  // namespace activityctl
