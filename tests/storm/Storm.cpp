// SPDX-License-Identifier: Apache-2.0
// Clients that are killed by the hundred, stopped, refused and left without a service, as real
// processes against the real service: what is left is what the rules keep, and nobody who lives
// misses anything. scripts/storm and scripts/soak run it.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <CLI/CLI.hpp>
#include <numeric>
#include <random>

#include "House.h"

namespace storm { namespace {

using Version = Plan::Version;
using Then = Plan::Then;

constexpr int64_t kMs = 1000000;
constexpr int64_t kNever = INT64_MAX;

// Where a victim is when it is killed.
enum Moment { kRegistering, kInCall, kInCallback, kStopped, kMoments };
constexpr const char* kMomentNames[] = {"registering", "in a call", "in a callback", "stopped"};

struct Victim {
    pid_t pid;
    Moment moment;
    int64_t dueNs = kNever;
    bool isStopped = false;
};

void stop(pid_t pid) {
    int status;
    kill(pid, SIGSTOP);
    waitpid(pid, &status, WUNTRACED);
}

void serveNewcomer(House& house) {
    house.kill(house.spawnReady(1)[0]);
}

// Median, 99th percentile and maximum, in microseconds.
std::string spread(std::vector<int64_t> samples) {
    if (samples.empty()) return "none";
    std::sort(samples.begin(), samples.end());
    const size_t last = samples.size() - 1;
    return fmt::format("{:>9} {:>9} {:>9}", samples[last / 2] / 1000,
                       samples[last * 99 / 100] / 1000, samples[last] / 1000);
}

class Storm {
  public:
    Storm(uint64_t seed, size_t clients, std::string logs)
        : mRandom(seed), mClients(clients), mLogs(std::move(logs)) {}

    std::unique_ptr<House> emptyHouse(const House::Words& runner = {}, uid_t user = 0) {
        const std::string logs = fmt::format("{}/{}", mLogs, ++mHouses);
        std::filesystem::create_directory(logs);
        auto house = std::make_unique<House>(logs, runner, user);
        house->start();
        return house;
    }
    // Few survive in version 1.0: each batch makes a call for each of these and each process that
    // was ever reported to.
    std::unique_ptr<House> house(const House::Words& runner = {}, uid_t user = 0) {
        auto house = emptyHouse(runner, user);
        house->addSurvivors({{Version::k1_1, Then::kRest, {0, 1}, true, true},
                             {Version::k1_1, Then::kCall, {1, 2}, false, true},
                             {Version::k1_0, Then::kRest, {0}, false, true},
                             {Version::k1_0, Then::kCall, {5}, true, true}});
        return house;
    }

    // Kills so many, or for so long, with a batch for every `perRound` of them.
    void kill(House& house, size_t kills, size_t perRound, int64_t untilNs = kNever) {
        std::vector<Victim> victims;
        size_t done = 0, spawned = 0, sinceRound = 0;
        bool inRound = false;
        const auto waits = [&](const Victim& victim) {
            return victim.moment == kInCallback && house.ready.count(victim.pid);
        };
        const auto wantsRound = [&] {
            return !inRound && !victims.empty() &&
                   (sinceRound >= perRound || std::all_of(victims.begin(), victims.end(), waits));
        };
        const auto isDue = [](const Victim& victim) { return victim.dueNs <= now(); };
        const auto changed = [&] {
            for (Victim& victim : victims) arm(house, victim);
            return std::any_of(victims.begin(), victims.end(), isDue) || wantsRound() ||
                   (inRound && house.isOver());
        };
        do {
            while (victims.size() < mClients && spawned < kills && now() < untilNs) {
                victims.push_back(bear(house, victims));
                ++spawned;
            }
            if (wantsRound()) {
                house.begin();
                inRound = true;
                sinceRound = 0;
            }
            if (!victims.empty() || inRound) house.await(changed, "a client's moment");
            for (size_t i = victims.size(); i-- > 0;) {
                if (!isDue(victims[i]) || stopsFirst(victims[i])) continue;
                house.kill(victims[i].pid);
                ++killed[victims[i].moment];
                ++sinceRound;
                victims.erase(victims.begin() + static_cast<long>(i));
                if (++done % 1000 == 0) fmt::print("\n  {} killed; {}", done, house.audit());
            }
            if (inRound && house.isOver()) {
                house.check();
                inRound = false;
            }
        } while (!victims.empty() || inRound);
        house.settle();
        house.round();  // nobody dies meanwhile, so this one shows exactly whose requests are left
    }

    // Clients are stopped in a delivery while others die: they are cleaned up behind it, on all of
    // the pool's threads, and who was stopped gets what it was to get.
    void stall(House& house) {
        const auto dying = house.spawnReady(6);
        for (size_t i : {1, 2}) stop(house.survivors[i].pid);
        house.begin();
        // It has the lock that cleaning up needs once it has reached anybody.
        house.await([&] { return !house.survivors[0].activity.empty(); }, "a delivery");
        house.deathThreads.clear();
        for (pid_t pid : dying) house.kill(pid);
        house.await([&] { return house.deathThreads.size() == 4; }, "all threads of the pool");
        if (!house.isDelivering()) fail("a stopped client has answered");
        for (size_t i : {2, 1}) ::kill(house.survivors[i].pid, SIGCONT);
        house.await([&] { return house.isOver(); }, "the delivery's end");
        house.check();
        house.settle();
    }

    // Connections that never say what they are for.
    void flood(House& house) {
        sockaddr_un address = {AF_UNIX, ""};
        for (const auto& entry : std::filesystem::directory_iterator(house.registry())) {
            if (!entry.is_socket()) continue;
            snprintf(address.sun_path, sizeof(address.sun_path), "%s", entry.path().c_str());
        }
        std::vector<android::base::unique_fd> silent(400);
        for (auto& fd : silent) {
            fd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
            if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
                fail("cannot connect");
            }
        }
        serveNewcomer(house);
        house.round();
        silent.clear();
        house.settle();
    }

    // More clients than there are descriptors for: each is served when others have gone.
    void lackDescriptors() {
        const auto house = this->house({"prlimit", "--nofile=64:64"});
        house->rememberQuiet();
        std::set<pid_t> waiting;
        while (waiting.size() < 30) waiting.insert(house->spawn({}));
        house->await([&] { return house->refusals > 0; }, "somebody who is refused");
        house->round();
        while (!waiting.empty()) {
            const auto isIn = [&](pid_t pid) { return house->ready.count(pid) > 0; };
            auto in = waiting.end();
            const auto find = [&] {
                return (in = std::find_if(waiting.begin(), waiting.end(), isIn)) != waiting.end();
            };
            house->await(find, "somebody who is let in");
            house->kill(*in);
            waiting.erase(in);
        }
        house->settle();
        house->round();
    }

    // No thread can be made, for a while. As an ordinary user: root has no such limit.
    void lackThreads() {
        const uid_t user = getuid() == 0 ? 100000 + static_cast<uid_t>(getpid()) : 0;
        // Of root's rights only those on files, as the program may lie in root's own folder.
        const std::string id = std::to_string(user), rights = "-all,+dac_override,+dac_read_search";
        House::Words runner;
        if (user != 0) {
            runner = {
                    "setpriv",        "--pdeathsig", "KILL", "--reuid",        id,    "--regid", id,
                    "--clear-groups", "--inh-caps",  rights, "--ambient-caps", rights};
        }
        const auto house = this->house(runner, user);
        house->rememberQuiet();
        const auto limit = [&](const std::string& threads) {
            // By a process of the same user, who needs no right for that.
            House::Words words = runner;
            words.insert(words.end(), {"prlimit", "--pid", std::to_string(house->service().pid()),
                                       "--nproc=" + threads + ":"});
            support::Process prlimit(words, {});
            if (prlimit.waitExit() != 0) fail(prlimit.describe());
        };
        rlimit before;
        getrlimit(RLIMIT_NPROC, &before);
        limit("1");
        for (int i = 0; i < 3; ++i) serveNewcomer(*house);
        house->round();
        if (house->refusals == 0) fail("the limit was not reached");
        limit(before.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(before.rlim_max));
        serveNewcomer(*house);
        house->settle();
        house->round();
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

    // The same at a low rate, with a line for each turn.
    void soak(double minutes) {
        const auto house = this->house();
        house->rememberQuiet();
        kill(*house, 50, 5);
        house->rememberMemory();
        const int64_t begin = now();
        fmt::print("{:>7}{:>8}{:>5}{:>8}{:>8}{:>8}   {:<32}{}\n", "minutes", "killed", "fds",
                   "threads", "RSS kB", "PSS kB", "call, us: median, p99, maximum", "delivery, us");
        const auto minute = [&] { return static_cast<double>(now() - begin) / 60e9; };
        for (size_t turn = 1; minute() < minutes; ++turn) {
            kill(*house, 12, 4);
            stall(*house);
            flood(*house);
            if (turn % 10 == 0) {
                lackDescriptors();
                lackThreads();
                restart();
            }
            house->rest(8000 * kMs);
            house->round();
            house->settle();
            const Footprint all = house->footprint();
            fmt::print("{:7.1f}{:8}{:5}{:8}{:8}{:8}{:>32}{:>30}\n", minute(), 19 * turn,
                       all.descriptors, all.threads, all.rssKb, all.pssKb,
                       spread(std::exchange(house->calls, {})),
                       spread(std::exchange(house->deliveries, {})));
            house->checkMemory(19 * turn);
        }
    }

    // How long clients' and the service's deaths take to show.
    void measure() {
        const auto report = [](const std::string& what, const std::vector<int64_t>& samples) {
            fmt::print("{:<56}{}\n", what, spread(samples));
        };
        fmt::print("{:<56}{:>9} {:>9} {:>9}\n", "microseconds", "median", "p99", "maximum");
        std::vector<int64_t> samples;
        // What brings about the cleanup of a client; takes the time from there.
        const auto clean = [&](House& house, pid_t pid, const std::function<void()>& cause) {
            const int64_t begin = now();
            cause();
            house.await([&] { return house.cleanedUp(pid) != 0; }, "a cleanup");
            samples.push_back(house.cleanedUp(pid) - begin);
        };
        for (size_t clients : {1, 10, 100, 1000}) {
            const auto house = emptyHouse();
            house->spawnReady(clients - 1);
            for (int i = 0; i < 500; ++i) {
                const pid_t pid = house->spawnReady(1)[0];
                clean(*house, pid, [&] { house->kill(pid); });
            }
            report(fmt::format("SIGKILL to cleaned up, {} registered", clients),
                   std::exchange(samples, {}));
        }
        for (const bool dies : {false, true}) {
            for (int i = 0; i < 20; ++i) {
                const auto house = emptyHouse();
                const auto pids = house->spawnReady(10);
                stop(pids[0]);
                house->begin();
                house->await([&] { return house->isDelivering(); }, "a delivery");
                house->kill(pids[1]);
                house->rest(1000 * kMs);
                if (house->cleanedUp(pids[1]) != 0) fail("cleaned up during a delivery");
                clean(*house, pids[1],
                      [&] { dies ? house->kill(pids[0]) : (void)::kill(pids[0], SIGCONT); });
            }
            report(fmt::format("  never while one is stopped in a delivery; once it {}",
                               dies ? "is killed" : "goes on"),
                   std::exchange(samples, {}));
        }
        for (size_t clients : {1, 10, 100, 1000}) {
            const auto house = emptyHouse();
            const auto pids = house->spawnReady(clients);
            std::vector<int64_t> lost, found;
            for (int i = 0; i < (clients < 100 ? 50 : 5); ++i) {
                int64_t begin = now();
                house->killService();
                house->await([&] { return house->lost.size() == clients; }, "all to know");
                for (const auto& [pid, ns] : house->lost) lost.push_back(ns - begin);
                begin = now();
                house->start();
                house->await([&] { return house->found.size() == clients; }, "all to find it");
                for (const auto& [pid, ns] : house->found) found.push_back(ns - begin);
                house->awaitReady(pids);
            }
            report(fmt::format("SIGKILL of the service to known by a client, of {}", clients),
                   lost);
            report("  started again to found by a client", found);
        }
    }

    size_t killed[kMoments] = {};

  private:
    int64_t below(int64_t end) {
        return std::uniform_int_distribution<int64_t>(0, end - 1)(mRandom);
    }

    Victim bear(House& house, const std::vector<Victim>& others) {
        Victim victim = {0, static_cast<Moment>(below(kMoments))};
        const auto waiting = std::count_if(others.begin(), others.end(), [](const Victim& other) {
            return other.moment == kInCallback;
        });
        // Those wait for a batch, and batches are few.
        if (victim.moment == kInCallback && 2 * static_cast<size_t>(waiting) > mClients) {
            victim.moment = kInCall;
        }
        Plan plan;
        const int64_t version = below(8);
        plan.version = version < 2 ? Version::k1_0 : version < 3 ? Version::kBoth : Version::k1_1;
        plan.environment = below(4) == 0;
        if (victim.moment == kInCall) plan.then = Then::kCall;
        if (victim.moment == kInCallback) plan.then = Then::kHold;
        if (victim.moment == kRegistering) victim.dueNs = now() + below(8 * kMs);
        if (victim.moment == kStopped) victim.dueNs = now() + below(15 * kMs);
        victim.pid = house.spawn(plan);
        return victim;
    }
    // Who has reached the place where it is to be killed is killed soon.
    void arm(const House& house, Victim& victim) {
        if (victim.dueNs != kNever) return;
        if (victim.moment == kInCall && house.ready.count(victim.pid))
            victim.dueNs = now() + below(10 * kMs);
        if (victim.moment == kInCallback && house.held.count(victim.pid))
            victim.dueNs = now() + below(3 * kMs);
    }
    bool stopsFirst(Victim& victim) {
        if (victim.moment != kStopped || victim.isStopped) return false;
        ::kill(victim.pid, SIGSTOP);
        victim.isStopped = true;
        victim.dueNs = now() + below(10 * kMs);
        return true;
    }

    std::mt19937_64 mRandom;
    const size_t mClients;
    const std::string mLogs;
    int mHouses = 0;
};

void storm(Storm& storm, size_t kills, int64_t seconds) {
    const auto scene = [](const char* name, const std::function<void()>& play) {
        const int64_t begin = now();
        fmt::print("{:<26}", name);
        fflush(stdout);
        play();
        fmt::print("{:8.1f} s\n", static_cast<double>(now() - begin) / 1e9);
    };
    const auto house = storm.house();
    house->rememberQuiet();
    const size_t perRound = std::max<size_t>(8, kills / 100);
    scene("the first clients die", [&] { storm.kill(*house, 100, perRound); });
    house->rememberMemory();
    const int64_t end = seconds > 0 ? now() + seconds * 1000 * kMs : kNever;
    const size_t before = std::accumulate(storm.killed, storm.killed + kMoments, size_t{0});
    scene("clients die",
          [&] { storm.kill(*house, seconds > 0 ? SIZE_MAX : kills, perRound, end); });
    const size_t died = std::accumulate(storm.killed, storm.killed + kMoments, size_t{0}) - before;
    const Footprint after = house->footprint();
    house->checkMemory(died);
    scene("clients are stopped", [&] { storm.stall(*house); });
    scene("silent connections", [&] { storm.flood(*house); });
    scene("no descriptors", [&] { storm.lackDescriptors(); });
    scene("no threads", [&] { storm.lackThreads(); });
    scene("the service is killed", [&] { storm.restart(); });
    for (int i = 0; i < kMoments; ++i) {
        fmt::print("killed {:<19}{:8}\n", kMomentNames[i], storm.killed[i]);
    }
    fmt::print("batches checked{:19}\n{:>34}{:>10}\n", house->checked, "before", "after");
    const auto row = [&](const char* what, size_t Footprint::*count) {
        fmt::print("{:<26}{:8}{:10}\n", what, house->quiet.*count, after.*count);
    };
    row("descriptors", &Footprint::descriptors);
    row("threads", &Footprint::threads);
    row("RSS, kB", &Footprint::rssKb);
    row("PSS, kB", &Footprint::pssKb);
    const double stays = 1024 * (double(after.rssKb) - double(house->quiet.rssKb)) / double(died);
    fmt::print("{}; {}\n",
               kMemoryTells ? fmt::format("{:.0f} bytes stay of each", stays)
                            : "memory not judged under a sanitizer",
               house->audit());
}

}}  // namespace storm

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    size_t kills = 300, clients = 12;
    int64_t seconds = 0;
    double minutes = 0;
    bool measure = false;
    uint64_t seed = std::random_device()();
    CLI::App app("Kills clients of the service and holds what is left against the rules.");
    app.add_option("--kills", kills, "how many are killed")->capture_default_str();
    app.add_option("--seconds", seconds, "kills for so long instead");
    app.add_option("--clients", clients, "how many live at a time")->capture_default_str();
    app.add_option("--seed", seed, "of the random moments");
    app.add_option("--soak", minutes, "all of it at a low rate, for so many minutes");
    app.add_flag("--measure", measure, "how long cleanup, knowing and finding take");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }

    std::string logs = std::filesystem::temp_directory_path() / "ar-storm-XXXXXX";
    if (mkdtemp(logs.data()) == nullptr) return 2;
    support::throwOnSignals();
    try {
        fmt::print("seed {}\n", seed);
        storm::Storm storm(seed, clients, logs);
        if (measure) storm.measure();
        if (minutes > 0) storm.soak(minutes);
        if (!measure && minutes <= 0) storm::storm(storm, kills, seconds);
    } catch (const std::exception& error) {
        fmt::print(stderr, "\nfailed: {}\nseed {}; logs in {}\n", error.what(), seed, logs);
        return 1;
    }
    std::filesystem::remove_all(logs);
}
