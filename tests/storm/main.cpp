// Clients that are killed by the hundred, stalled, refused and left without a service, as real
// processes against the real service: what is left is what the rules keep, and nobody who lives
// misses anything. scripts/storm and scripts/soak run it.
#include <fmt/format.h>
#include <glob.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "House.h"

namespace storm { namespace {

using std::chrono::milliseconds;
using Version = Plan::Version;
using Then = Plan::Then;

constexpr int64_t kMs = 1000000;
constexpr int64_t kNever = INT64_MAX;

// Where a victim is when it is killed.
enum Moment { kRegistering, kInCall, kInCallback, kStopped, kMoments };
constexpr const char* kMomentNames[] = {"registering", "in a call", "in a callback",
                                        "stopped first"};

struct Random {
    explicit Random(uint64_t seed) : engine(seed) {}
    int64_t below(int64_t end) {
        return std::uniform_int_distribution<int64_t>(0, end - 1)(engine);
    }
    std::mt19937_64 engine;
};

struct Victim {
    pid_t pid;
    Moment moment;
    int64_t dueNs;
    bool isStopped = false;
};

// Two of version 1.1, one of which calls all the time, and two of 1.0: each batch makes a call for
// each of these and each process that was ever reported to.
std::vector<Plan> survivors() {
    return {{Version::k1_1, Then::kRest, {0, 1}, true, true},
            {Version::k1_1, Then::kCall, {1, 2}, false, true},
            {Version::k1_0, Then::kRest, {0}, false, true},
            {Version::k1_0, Then::kCall, {5}, true, true}};
}

// Median, 99th percentile and maximum, in microseconds.
std::string spread(std::vector<int64_t>& samples) {
    std::sort(samples.begin(), samples.end());
    if (samples.empty()) return "none";
    const auto at = [&](double part) {
        return samples[static_cast<size_t>(part * static_cast<double>(samples.size() - 1))] / 1000;
    };
    return fmt::format("{:>9} {:>9} {:>9}", at(0.5), at(0.99), at(1));
}

void report(const std::string& what, std::vector<int64_t>& samples) {
    fmt::print("{:<45}{}\n", what, spread(samples));
}

class Storm {
  public:
    Storm(uint64_t seed, size_t clients, std::string logs)
        : mRandom(seed), mClients(clients), mLogs(std::move(logs)) {}

    std::unique_ptr<House> emptyHouse(House::Runner runner = {}, uid_t user = 0) {
        const std::string logs = fmt::format("{}/{}", mLogs, ++mHouses);
        std::filesystem::create_directory(logs);
        auto made = std::make_unique<House>(logs, std::move(runner), user);
        made->start();
        return made;
    }

    std::unique_ptr<House> house(House::Runner runner = {}, uid_t user = 0) {
        auto made = emptyHouse(std::move(runner), user);
        made->addSurvivors(survivors());
        made->round();  // so that survivors come first in the report list
        return made;
    }

    // Kills so many, and one batch for every `perRound` of them.
    void kill(House& house, size_t kills, size_t perRound) {
        std::vector<Victim> victims;
        size_t killed = 0, spawned = 0, sinceRound = 0;
        bool inRound = false;
        while (killed < kills || inRound) {
            while (victims.size() < mClients && spawned < kills) {
                victims.push_back(bear(house, victims));
                ++spawned;
            }
            const auto waits = [&](const Victim& victim) {
                return victim.moment == kInCallback && house.isReady(victim.pid);
            };
            const auto wantsRound = [&] {
                return !inRound && killed < kills &&
                       (sinceRound >= perRound ||
                        std::all_of(victims.begin(), victims.end(), waits));
            };
            if (wantsRound()) {
                house.begin();
                inRound = true;
                sinceRound = 0;
            }
            const auto changed = [&] {
                arm(house, victims);
                return isDue(victims) || (inRound && house.isOver()) || wantsRound();
            };
            house.await(changed, "a client's moment");
            for (Victim& victim : victims) {
                if (victim.dueNs > now()) continue;
                if (victim.moment == kStopped && !victim.isStopped) {
                    ::kill(victim.pid, SIGSTOP);
                    victim.isStopped = true;
                    victim.dueNs = now() + mRandom.below(10 * kMs);
                    continue;
                }
                house.kill(victim.pid);
                ++mKilled[victim.moment];
                ++sinceRound;
                victim.pid = 0;
                if (++killed % 1000 == 0) fmt::print("  {} killed, {}\n", killed, house.audit());
            }
            victims.erase(std::remove_if(victims.begin(), victims.end(),
                                         [](const Victim& victim) { return victim.pid == 0; }),
                          victims.end());
            if (inRound && house.isOver()) {
                house.check();
                inRound = false;
            }
        }
        house.settle();
        house.round();  // nobody dies meanwhile, so this one shows exactly whose requests are left
    }

    // A client is stopped in a delivery while others die: they are cleaned up behind it, on all of
    // the pool's threads, and it gets what it was to get.
    void stall(House& house) {
        std::vector<pid_t> dying;
        for (int i = 0; i < 6; ++i) dying.push_back(house.spawn({}));
        house.await([&] { return allReady(house, dying); }, "those who will die");
        const std::vector<Survivor>& all = house.survivors();
        for (size_t i : {1, 2}) stop(all[i].pid);
        house.begin();
        house.await([&] { return house.isDelivering(); }, "a delivery");
        house.deathThreads.clear();
        for (pid_t pid : dying) house.kill(pid);
        house.await([&] { return house.deathThreads.size() == 4; }, "all threads of the pool");
        if (!house.isDelivering()) throw std::runtime_error("a stopped client has answered");
        for (size_t i : {2, 1}) ::kill(all[i].pid, SIGCONT);
        house.await([&] { return house.isOver(); }, "the delivery's end");
        house.check();
        house.settle();
    }

    // Connections that never say what they are for.
    void flood(House& house) {
        std::vector<android::base::unique_fd> silent;
        for (int i = 0; i < 400; ++i) silent.push_back(connectTo(house));
        serveNewcomer(house);
        house.round();
        silent.clear();
        house.settle();
    }

    // More clients than there are descriptors for: each is served when others have gone.
    void lackDescriptors() {
        const auto house = this->house({"prlimit", "--nofile=64:64"});
        house->rememberQuiet();
        std::vector<pid_t> waiting;
        for (int i = 0; i < 30; ++i) waiting.push_back(house->spawn({}));
        house->await([&] { return house->refusals > 0; }, "somebody who is refused");
        while (!waiting.empty()) {
            const auto served = [&] {
                return std::find_if(waiting.begin(), waiting.end(),
                                    [&](pid_t pid) { return house->isReady(pid); });
            };
            house->await([&] { return served() != waiting.end(); }, "somebody who is let in");
            if (waiting.size() == 30) house->round();
            const auto gone = served();
            house->kill(*gone);
            waiting.erase(gone);
        }
        leaveLack(*house);
    }

    // No thread can be made any more, as an ordinary user: root has no such limit.
    void lackThreads() {
        const uid_t user = getuid() == 0 ? 100000 + static_cast<uid_t>(getpid()) : 0;
        House::Runner runner;
        if (user != 0) {
            // Of root's rights only that of reading, as the program may lie in root's own folder.
            const std::string id = std::to_string(user);
            runner = {"setpriv",
                      "--reuid",
                      id,
                      "--regid",
                      id,
                      "--clear-groups",
                      "--inh-caps",
                      "-all,+dac_override,+dac_read_search",
                      "--ambient-caps",
                      "-all,+dac_override,+dac_read_search"};
        }
        rlimit most;
        getrlimit(RLIMIT_NPROC, &most);
        const auto house = this->house(runner, user);
        house->rememberQuiet();
        // By a process of the same user, which needs no right for that.
        const auto limitThreads = [&](const std::string& soft) {
            House::Runner command = runner;
            for (std::string word : {std::string("prlimit"), std::string("--pid"),
                                     std::string("PID"), "--nproc=" + soft + ":"}) {
                if (word == "PID") word = std::to_string(house->stage().service().pid());
                command.push_back(word);
            }
            support::Process prlimit(command, {});
            if (prlimit.waitExit() != 0) throw std::runtime_error(prlimit.describe());
        };
        limitThreads("1");
        for (int i = 0; i < 3; ++i) serveNewcomer(*house);
        house->round();
        limitThreads(std::to_string(most.rlim_max));
        leaveLack(*house);
    }

    // The service is killed and started again under clients that call it.
    void restart() {
        const auto house = this->house();
        for (int i = 0; i < 3; ++i) {
            house->killService();
            house->start();
            house->awaitSurvivors();
            house->round();
        }
    }

    // All of it, a little of each at a time; a line each time.
    void soak(int64_t minutes) {
        const auto house = this->house();
        kill(*house, 50, 5);
        house->rememberQuiet();
        const int64_t begin = now(), end = begin + minutes * 60 * 1000 * kMs;
        fmt::print("{:>7}{:>8}{:>6}{:>8}{:>9}{:>9}  {:<27}{}\n", "minute", "killed", "fds",
                   "threads", "RSS kB", "PSS kB", "call: median p99 max, us",
                   "delivery: median p99 max, us");
        size_t killed = 0;
        for (int turn = 1; now() < end; ++turn) {
            kill(*house, 12, 4);
            killed += 12;
            stall(*house);
            flood(*house);
            if (turn % 10 == 0) {
                lackDescriptors();
                lackThreads();
                restart();
            }
            const int64_t next = now() + 8000 * kMs;
            house->await([&] { return now() >= next; }, "the next turn");
            house->round();
            house->settle();
            house->checkMemory(killed);
            const Footprint all = house->footprint();
            fmt::print("{:7.1f}{:8}{:6}{:8}{:9}{:9}  {:<27}{}\n",
                       static_cast<double>(now() - begin) / 60e9, killed, all.descriptors,
                       all.threads, all.rssKb, all.pssKb, spread(house->latencies().calls),
                       spread(house->latencies().deliveries));
            house->latencies() = {};
        }
    }

    // What a page on lifecycles tells.
    void measure() {
        fmt::print("{:<44}{:>10} {:>9} {:>9}\n", "microseconds", "median", "p99", "max");
        for (const int clients : {1, 10, 100, 1000}) {
            auto house = emptyHouse();
            std::vector<pid_t> others;
            for (int i = 1; i < clients; ++i) others.push_back(house->spawn({}));
            std::vector<int64_t> samples;
            for (int i = 0; i < 500; ++i) {
                const pid_t victim = house->spawn({});
                others.push_back(victim);
                house->await([&] { return allReady(*house, others); }, "a client");
                others.pop_back();
                samples.push_back(-now());
                house->kill(victim);
                house->await([&] { return house->cleanedUp(victim) != 0; }, "its cleanup");
                samples.back() += house->cleanedUp(victim);
            }
            report(fmt::format("SIGKILL to cleaned up, {} registered", clients), samples);
        }
        for (const int signal : {SIGCONT, SIGKILL}) {
            std::vector<int64_t> samples;
            for (int i = 0; i < 10; ++i) {
                auto house = emptyHouse();
                std::vector<pid_t> all;
                for (int j = 0; j < 10; ++j) all.push_back(house->spawn({}));
                house->await([&] { return allReady(*house, all); }, "ten clients");
                stop(all[0]);
                house->begin();
                house->await([&] { return house->isDelivering(); }, "a delivery");
                house->kill(all[1]);
                const int64_t later = now() + 1000 * kMs;
                house->await([&] { return now() > later; }, "a second");
                if (house->cleanedUp(all[1]) != 0) throw std::runtime_error("cleaned up too early");
                samples.push_back(-now());
                signal == SIGKILL ? house->kill(all[0]) : (void)::kill(all[0], signal);
                house->await([&] { return house->cleanedUp(all[1]) != 0; }, "the cleanup");
                samples.back() += house->cleanedUp(all[1]);
            }
            report(fmt::format("  one of 10 stopped in a delivery: never, until it {}",
                               signal == SIGKILL ? "dies" : "goes on"),
                   samples);
        }
        for (const int clients : {1, 10, 100, 1000}) {
            auto house = emptyHouse();
            std::vector<pid_t> all;
            for (int i = 0; i < clients; ++i) all.push_back(house->spawn({}));
            std::vector<int64_t> lost, starts, found;
            for (int i = 0; i < (clients < 100 ? 50 : 5); ++i) {
                house->await([&] { return allReady(*house, all); }, "all clients");
                const int64_t killed = now();
                house->killService();
                house->await([&] { return house->lost.size() == all.size(); }, "all to know");
                for (const auto& entry : house->lost) lost.push_back(entry.second - killed);
                const int64_t started = now();
                house->start();
                starts.push_back(now() - started);
                house->await([&] { return house->found.size() == all.size(); }, "all to find it");
                for (const auto& entry : house->found) found.push_back(entry.second - started);
            }
            report(fmt::format("service's SIGKILL to known by a client, of {}", clients), lost);
            report(fmt::format("  started to found again, of {}", clients), found);
            report("  started to serving", starts);
        }
    }

    template <typename Scene>
    void scene(const char* name, const Scene& play) {
        const int64_t begin = now();
        fmt::print("{:<28}", name);
        fflush(stdout);
        play();
        fmt::print("{:6.1f} s\n", static_cast<double>(now() - begin) / 1e9);
    }

    const size_t* killed() const { return mKilled; }

  private:
    Victim bear(House& house, const std::vector<Victim>& others) {
        auto moment = static_cast<Moment>(mRandom.below(kMoments));
        const auto held = std::count_if(others.begin(), others.end(), [](const Victim& victim) {
            return victim.moment == kInCallback;
        });
        // Those wait for a batch, and batches are few.
        if (moment == kInCallback && 2 * static_cast<size_t>(held) > mClients) moment = kInCall;
        Plan plan;
        const int64_t version = mRandom.below(8);
        plan.version = version < 2 ? Version::k1_0 : version < 3 ? Version::kBoth : Version::k1_1;
        plan.then = moment == kInCall       ? Then::kCall
                    : moment == kInCallback ? Then::kHold
                                            : Then::kRest;
        plan.environment = mRandom.below(4) == 0;
        Victim victim = {house.spawn(plan), moment, kNever};
        if (moment == kRegistering) victim.dueNs = now() + mRandom.below(8 * kMs);
        if (moment == kStopped) victim.dueNs = now() + mRandom.below(15 * kMs);
        return victim;
    }

    // Who has reached the place where it is to be killed is killed soon.
    void arm(House& house, std::vector<Victim>& victims) {
        for (Victim& victim : victims) {
            if (victim.dueNs != kNever) continue;
            if (victim.moment == kInCall && house.isReady(victim.pid)) {
                victim.dueNs = now() + mRandom.below(10 * kMs);
            } else if (victim.moment == kInCallback && house.isHeld(victim.pid)) {
                victim.dueNs = now() + mRandom.below(3 * kMs);
            }
        }
    }

    static bool isDue(const std::vector<Victim>& victims) {
        return std::any_of(victims.begin(), victims.end(),
                           [](const Victim& victim) { return victim.dueNs <= now(); });
    }

    static bool allReady(const House& house, const std::vector<pid_t>& pids) {
        return std::all_of(pids.begin(), pids.end(), [&](pid_t pid) { return house.isReady(pid); });
    }

    static void stop(pid_t pid) {
        ::kill(pid, SIGSTOP);
        int status;
        waitpid(pid, &status, WUNTRACED);
    }

    static void serveNewcomer(House& house) {
        const pid_t newcomer = house.spawn({});
        house.await([&] { return house.isReady(newcomer); }, "a newcomer");
        house.kill(newcomer);
    }

    static android::base::unique_fd connectTo(const House& house) {
        glob_t found;
        if (glob((house.registry() + "/process-*").c_str(), 0, nullptr, &found) != 0) {
            throw std::runtime_error("the service has no socket");
        }
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", found.gl_pathv[0]);
        globfree(&found);
        android::base::unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            throw std::runtime_error("cannot connect");
        }
        return fd;
    }

    static void leaveLack(House& house) {
        if (house.refusals == 0) throw std::runtime_error("the limit was not reached");
        house.settle();
        serveNewcomer(house);
        house.round();
    }

    Random mRandom;
    const size_t mClients;
    const std::string mLogs;
    int mHouses = 0;
    size_t mKilled[kMoments] = {};
};

void printTable(Storm& storm, House& house, size_t kills) {
    for (int i = 0; i < kMoments; ++i) {
        fmt::print("killed {:<21}{:8}\n", kMomentNames[i], storm.killed()[i]);
    }
    const Footprint before = house.quiet(), after = house.footprint();
    fmt::print("batches checked {:20}\n", house.checked);
    fmt::print("{:<28}{:>8}{:>10}\n", "", "before", "after");
    fmt::print("{:<28}{:8}{:10}\n", "descriptors", before.descriptors, after.descriptors);
    fmt::print("{:<28}{:8}{:10}\n", "threads", before.threads, after.threads);
    fmt::print("{:<28}{:8}{:10}\n", "memory, RSS kB", before.rssKb, after.rssKb);
    fmt::print("{:<28}{:8}{:10}   {:.0f} bytes a client\n", "memory, PSS kB", before.pssKb,
               after.pssKb, (double(after.pssKb) - double(before.pssKb)) * 1024 / double(kills));
    fmt::print("{}\n", house.audit());
}

}}  // namespace storm

int main(int argc, char** argv) {
    using namespace storm;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    size_t kills = 300, clients = 12;
    int64_t minutes = 0;
    bool measure = false;
    uint64_t seed = std::random_device()();
    CLI::App app("Kills clients of the service, and holds what is left against the rules.");
    app.add_option("--kills", kills, "how many clients are killed")->capture_default_str();
    app.add_option("--clients", clients, "how many live at a time")->capture_default_str();
    app.add_option("--seed", seed, "of the random moments");
    app.add_option("--soak", minutes, "all of it at a low rate, for so many minutes");
    app.add_flag("--measure", measure, "tell how long cleanup, knowing and finding take");
    CLI11_PARSE(app, argc, argv);

    std::string logs = std::filesystem::temp_directory_path() / "ar-storm-XXXXXX";
    if (mkdtemp(logs.data()) == nullptr) return 2;
    try {
        Storm storm(seed, clients, logs);
        if (measure) return storm.measure(), 0;
        if (minutes > 0) return storm.soak(minutes), 0;
        auto house = storm.house();
        const size_t warm = std::min<size_t>(kills / 3, 200);
        const size_t perRound = std::max<size_t>(8, kills / 100);
        house->rememberQuiet();
        storm.scene("first clients die", [&] { storm.kill(*house, warm, perRound); });
        house->rememberQuiet();
        storm.scene("clients die", [&] { storm.kill(*house, kills - warm, perRound); });
        house->checkMemory(kills - warm);
        storm.scene("a client stalls", [&] { storm.stall(*house); });
        storm.scene("silent connections", [&] { storm.flood(*house); });
        storm.scene("no descriptors", [&] { storm.lackDescriptors(); });
        storm.scene("no threads", [&] { storm.lackThreads(); });
        storm.scene("the service is killed", [&] { storm.restart(); });
        printTable(storm, *house, kills - warm);
        std::filesystem::remove_all(logs);
    } catch (const std::exception& error) {
        fmt::print(stderr, "\nfailed: {}\nrepeat with --seed {}; logs: {}\n", error.what(), seed,
                   logs);
        return 1;
    }
    return 0;
}
