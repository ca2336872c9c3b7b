// SPDX-License-Identifier: Apache-2.0
// A dump a second as a live table, or as text or JSON where no terminal is. One thread waits for
// everything; what is asked of the service is asked on others, as it may not answer.
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include <android-base/unique_fd.h>
#include <utils/Timers.h>

#include "Background.h"
#include "Commands.h"
#include "Dump.h"
#include "Screen.h"
#include "Waiting.h"

namespace activityctl {
namespace {

using ::android::base::unique_fd;

constexpr int64_t kRefreshNs = 1'000'000'000;

// What is under way for longer does not just happen to be.
constexpr int64_t kStuckNs = 500'000'000;

// A client of one side, as it was told last.
struct Row {
    std::string side;
    Dump::Client client;
    std::optional<uint64_t> requests;  // none: not told, or an environment's
    std::optional<double> rate;        // records a second; none: seen for the first time
    bool stale;                        // of an earlier dump: its table is locked
};

class Top {
  public:
    Top(const Options& options, Output& output)
        : mOptions(options),
          mOutput(output),
          mSignals(openSignals(topSignals())),
          mRefresh(openTimer(1, kRefreshNs)),
          mTimer(openTimer(options.forNs)),
          mAnswered(std::make_shared<unique_fd>(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

    ExitStatus run() {
        mService = std::make_shared<Service>(mOptions.instance, mOptions.version, mOptions.waitNs);
        mName = mService->fullName();
        if (!mOutput.json() && Screen::isThere()) mScreen.emplace(mOutput);
        while (!mEnded) wait();
        return kOk;
    }

  private:
    struct Sample {
        std::shared_ptr<Service> service;  // NULL: nobody serves
        std::optional<Dump> dump;          // of that
    };

    void wait() {
        pollfd fds[] = {
                {mSignals.get(), POLLIN, 0},
                {mTimer.get(), POLLIN, 0},
                {mRefresh.get(), POLLIN, 0},
                {mAnswered->get(), POLLIN, 0},
                {mScreen ? mScreen->fd() : -1, POLLIN, 0},
                // Also tells of a reader of standard output that has gone away.
                {STDOUT_FILENO, 0, 0},
        };
        if (poll(fds, std::size(fds), -1) < 0) return;
        if (fds[0].revents) takeSignal();
        if (fds[4].revents) takeKeys();
        if (fds[1].revents || !mOutput.isOpen() || (fds[5].revents & (POLLERR | POLLHUP))) {
            mEnded = true;
        }
        if (mEnded) return;
        uint64_t ticks;
        if (fds[3].revents) {
            eventfd_read(mAnswered->get(), &ticks);
            take(mAsked.get());
        }
        if (fds[2].revents && read(mRefresh.get(), &ticks, sizeof(ticks)) > 0) {
            if (!mAsked.valid()) {
                ask();
            } else if (mScreen) {
                draw();
            } else if (waited() >= kPatienceNs && !std::exchange(mComplained, true)) {
                Output::complain(fmt::format("no answer for {}", formatAge(waited())));
            }
        }
    }

    // For the answer to what was asked last.
    int64_t waited() const { return systemTime(SYSTEM_TIME_MONOTONIC) - mAskedNs; }

    void takeSignal() {
        signalfd_siginfo signal;
        if (read(mSignals.get(), &signal, sizeof(signal)) != sizeof(signal)) return;
        if (signal.ssi_signo == SIGWINCH) {
            if (mScreen) draw();
        } else if (signal.ssi_signo != SIGTSTP) {
            mEnded = true;
        } else if (mScreen) {
            mScreen->stop();
        } else {
            raise(SIGSTOP);
        }
    }

    void takeKeys() {
        const auto keys = mScreen->keys();
        if (!keys || keys->find_first_of("qQ") != std::string::npos) mEnded = true;
    }

    void ask() {
        mAskedNs = systemTime(SYSTEM_TIME_MONOTONIC);
        mComplained = false;
        mAsked = inBackground(mAnswered, [service = mService, instance = mOptions.instance,
                                          version = mOptions.version]() mutable {
            try {
                if (service == nullptr) service = Service::find(instance, version);
                if (service != nullptr) return Sample{service, readDump(*service)};
            } catch (const Failure& failure) {
                if (failure.status != kServiceLost) throw;
            }
            return Sample{};
        });
    }

    void take(Sample sample) {
        const bool goes = mService != nullptr && sample.service == nullptr;
        if (sample.service != mService) {
            mService = sample.service;
            mRows.clear();
            mNamesAsked = false;
            mBatches.reset();
        }
        mDump = std::move(sample.dump);
        if (mDump) {
            if (!mNamesAsked && mDump->activity) {
                mNamesAsked = true;
                mNames = activityNamesInTime(mService, *mDump);
            }
            compare();
            mTakenNs = mDump->nowNs;
        }
        if (mScreen) {
            draw();
        } else if (mDump) {
            mOutput.print("top", json(), text());
        } else if (goes) {
            mOutput.print("disconnected", {}, header());
        }
        if (mDump && mOptions.count && ++mSnapshots >= *mOptions.count) mEnded = true;
    }

    // Makes the rows, and what can be said of the time since the last dump.
    void compare() {
        const auto before = std::exchange(mRows, {});
        const std::vector<Dump::Request>* requests = nullptr;
        if (mDump->activity && mDump->activity->requests) requests = &*mDump->activity->requests;
        uint64_t batches = 0;
        const auto addSide = [&](const char* name, const auto& side) {
            if (!side) return;
            const bool activity = std::is_same_v<decltype(*side), const Dump::Activity&>;
            batches += side->counters.batches + side->counters.extendedBatches;
            if (!side->clients) {
                for (Row row : before) {
                    if (row.side != name) continue;
                    row.stale = true;
                    row.rate.reset();
                    mRows.push_back(row);
                }
                return;
            }
            for (const Dump::Client& client : *side->clients) {
                Row row{name, client, {}, {}, false};
                if (activity && requests != nullptr) {
                    row.requests = std::count_if(
                            requests->begin(), requests->end(),
                            [&client](const auto& request) { return request.pid == client.pid; });
                }
                for (const Row& old : before) {
                    if (old.side == name && !old.stale && old.client.pid == client.pid &&
                        old.client.registeredNs == client.registeredNs &&
                        old.client.version == client.version) {
                        row.rate = static_cast<double>(client.records - old.client.records) * 1e9 /
                                   static_cast<double>(mDump->nowNs - mTakenNs);
                    }
                }
                mRows.push_back(row);
            }
        };
        addSide("activity", mDump->activity);
        addSide("environment", mDump->environment);
        if (mBatches && batches > *mBatches) mLastBatchNs = mDump->nowNs;
        if (!mBatches) mLastBatchNs.reset();
        mBatches = batches;
    }

    bool isOrphan(const Dump::Pair& pair) const {
        const auto& orphans = mDump->activity->orphans;
        return orphans && std::any_of(orphans->begin(), orphans->end(), [&pair](const auto& other) {
                   return other.activity == pair.activity && other.eventType == pair.eventType;
               });
    }

    std::vector<const Dump::InFlight*> stuck() const {
        std::vector<const Dump::InFlight*> calls;
        for (const Dump::InFlight& call : mDump->inFlight) {
            const auto& held = mDump->held;
            if (mDump->nowNs - call.sinceNs >= kStuckNs ||
                (call.holds && std::count(held.begin(), held.end(), *call.holds) != 0)) {
                calls.push_back(&call);
            }
        }
        return calls;
    }

    // Both sides'.
    Dump::Counters counters() const {
        Dump::Counters sum{};
        const auto add = [&sum](const auto& side) {
            if (!side) return;
            sum.batches += side->counters.batches + side->counters.extendedBatches;
            sum.records += side->counters.records + side->counters.extendedRecords;
            sum.calls += side->counters.calls;
            sum.failedCalls += side->counters.failedCalls;
        };
        add(mDump->activity);
        add(mDump->environment);
        return sum;
    }

    std::string header() const {
        if (mDump) {
            return fmt::format("up {}  {}", formatAge(mDump->nowNs - mDump->startedNs), mName);
        }
        return mService != nullptr ? mName : mName + " is gone; waiting for it to come back";
    }

    nlohmann::json json() const {
        nlohmann::json clients = nlohmann::json::array(), pairs = nullptr;
        nlohmann::json inFlight = nlohmann::json::array();
        for (const Row& row : mRows) {
            clients.push_back({{"side", row.side},
                               {"pid", row.client.pid},
                               {"version", row.client.version},
                               {"requests", orNull(row.requests)},
                               {"records_per_second", orNull(row.rate)},
                               {"records", row.client.records},
                               {"calls", row.client.calls},
                               {"failed", row.client.failed},
                               {"last_ns", row.client.lastNs},
                               {"worst_ns", row.client.worstNs},
                               {"stale", row.stale}});
        }
        if (mDump->activity && mDump->activity->pairs) {
            pairs = nlohmann::json::array();
            for (const Dump::Merged& pair : *mDump->activity->pairs) {
                pairs.push_back({{"activity", pair.activity},
                                 {"event_type", pair.eventType},
                                 {"requests", orNull(pair.requests)},
                                 {"latency_ns", orNull(pair.latencyNs)},
                                 {"enabled", pair.enabled},
                                 {"orphan", isOrphan(pair)}});
                if (pair.activity < mNames.size()) {
                    pairs.back()["activity_name"] = mNames[pair.activity];
                }
            }
        }
        for (const Dump::InFlight* call : stuck()) {
            inFlight.push_back({{"side", call->side},
                                {"client", call->client},
                                {"call", call->call},
                                {"pid", call->pid},
                                {"since_ns", call->sinceNs},
                                {"holds", orNull(call->holds)}});
        }
        const Dump::Counters sum = counters();
        return {{"service", mName},
                {"started_ns", mDump->startedNs},
                {"held", mDump->held},
                {"batches", sum.batches},
                {"records", sum.records},
                {"calls", sum.calls},
                {"failed_calls", sum.failedCalls},
                {"last_batch_ns", orNull(mLastBatchNs)},
                {"clients", std::move(clients)},
                {"pairs", std::move(pairs)},
                {"in_flight", std::move(inFlight)}};
    }

    template <typename T>
    static nlohmann::json orNull(const std::optional<T>& value) {
        return value ? nlohmann::json(*value) : nlohmann::json();
    }

    template <typename T>
    static std::string orDash(const std::optional<T>& value, const char* format = "{}") {
        return value ? fmt::format(fmt::runtime(format), *value) : "-";
    }

    std::vector<Screen::Line> lines() const {
        std::vector<Screen::Line> lines{{header(), true}};
        if (!mDump) return lines;
        const Dump::Counters sum = counters();
        std::string last = ", none while this looked on";
        if (mLastBatchNs) {
            last = fmt::format(", the last one seen {} ago",
                               formatAge(mDump->nowNs - *mLastBatchNs));
        }
        lines.push_back({fmt::format("{} batches with {} records{}; {} calls of clients, {} failed",
                                     sum.batches, sum.records, last, sum.calls, sum.failedCalls)});
        for (const std::string& lock : mDump->held) {
            lines.push_back({fmt::format("held: {}", printable(lock)), true});
        }
        for (const Dump::InFlight* call : stuck()) {
            lines.push_back(
                    {fmt::format("under way: {}{}", activityctl::toText(*call, mDump->nowNs),
                                 call->holds ? ", holds " + *call->holds : ""),
                     true});
        }
        addClients(lines);
        addPairs(lines);
        return lines;
    }

    void addClients(std::vector<Screen::Line>& lines) const {
        std::vector<std::vector<std::string>> rows{{"PID", "VER", "SIDE", "REQS", "REC/S",
                                                    "RECORDS", "CALLS", "FAILED", "LAST", "WORST"}};
        for (const Row& row : mRows) {
            rows.push_back({fmt::format("{}", row.client.pid), row.client.version, row.side,
                            orDash(row.requests), orDash(row.rate, "{:.1f}"),
                            fmt::format("{}", row.client.records),
                            fmt::format("{}", row.client.calls),
                            fmt::format("{}", row.client.failed), formatAge(row.client.lastNs),
                            formatAge(row.client.worstNs)});
        }
        addTable(lines, rows);
        for (size_t i = 0; i < mRows.size(); ++i) {
            lines[lines.size() - mRows.size() + i].dim = mRows[i].stale;
        }
    }

    void addPairs(std::vector<Screen::Line>& lines) const {
        std::vector<std::vector<std::string>> rows{{"PAIR", "REQUESTS", "LATENCY", "MODULE"}};
        if (!mDump->activity || !mDump->activity->pairs) return;
        for (const Dump::Merged& pair : *mDump->activity->pairs) {
            rows.push_back({fmt::format("{}:{}", nameOf(pair.activity, mNames), pair.eventType),
                            orDash(pair.requests),
                            pair.latencyNs ? formatLatency(*pair.latencyNs) : "-",
                            isOrphan(pair) ? "orphan" : (pair.enabled ? "enabled" : "-")});
        }
        addTable(lines, rows);
    }

    static void addTable(std::vector<Screen::Line>& lines,
                         const std::vector<std::vector<std::string>>& rows) {
        lines.push_back({});
        const size_t heading = lines.size();
        for (const std::string& row : inColumns(rows)) lines.push_back({row});
        lines[heading].bold = true;
    }

    std::string text() const {
        std::string text;
        for (const Screen::Line& line : lines()) text += line.text + '\n';
        return text;
    }

    void draw() {
        std::string foot = "every second; q to quit";
        if (mAsked.valid() && waited() >= kRefreshNs) {
            foot = fmt::format("no answer for {}; {}", formatAge(waited()), foot);
        }
        mScreen->draw(lines(), {foot, false, true});
    }

    const Options& mOptions;
    Output& mOutput;
    const unique_fd mSignals, mRefresh, mTimer;
    const std::shared_ptr<unique_fd> mAnswered;
    std::string mName;  // the service's
    std::optional<Screen> mScreen;
    bool mEnded = false;
    uint64_t mSnapshots = 0;

    std::shared_ptr<Service> mService;  // NULL while nobody serves
    std::future<Sample> mAsked;         // valid while an answer is awaited
    int64_t mAskedNs = 0;
    bool mComplained = false;

    std::optional<Dump> mDump;  // none: the service is gone
    int64_t mTakenNs = 0;       // its now_ns
    std::vector<std::string> mNames;
    bool mNamesAsked = false;
    std::vector<Row> mRows;
    std::optional<uint64_t> mBatches;     // counted at mTakenNs
    std::optional<int64_t> mLastBatchNs;  // of the dump that first counted it
};

}  // namespace

sigset_t topSignals() {
    return endingSignals({SIGQUIT, SIGTSTP, SIGWINCH});
}

ExitStatus top(const Options& options, Output& output) {
    return Top(options, output).run();
}

}  // namespace activityctl
