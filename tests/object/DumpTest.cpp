// SPDX-License-Identifier: Apache-2.0
// The dump, and the handle that it goes to. That its tables are right is compared with the model of
// the rules where real clients come and go, in the demo.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <thread>

#include <nlohmann/json.hpp>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

std::string ReadAll(int fd) {
    std::string all;
    char some[4096];
    for (ssize_t got; (got = read(fd, some, sizeof(some))) > 0;) all.append(some, got);
    close(fd);
    return all;
}

struct DumpTest : ObjectTest {
    DumpTest() {
        drop();  // the root makes its own
        root = HIDL_FETCH_IActivityRecognition("ignored");
        act = static_cast<ActivityInterface*>(
                sp<V1_1::IActivityInterface>(root->getActivityInterfaceV1_1()).get());
        env = static_cast<EnvironmentInterface*>(
                sp<V1_1::IEnvironmentInterface>(root->getEnvironmentInterfaceV1_1()).get());
    }
    ~DumpTest() { drop(); }

    void write(int fd, const hidl_vec<hidl_string>& options = {}) {
        native_handle_t* const handle = native_handle_create(1, 0);
        handle->data[0] = fd;
        EXPECT_TRUE(root->debug(handle, options).isOk());
        native_handle_delete(handle);
    }
    std::string dump(const hidl_vec<hidl_string>& options = {}) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        write(ends[1], options);
        close(ends[1]);
        return ReadAll(ends[0]);
    }
    nlohmann::json json() { return nlohmann::json::parse(dump({"--json"})); }

    sp<V1_1::IActivityRecognition> root;
};

TEST_F(DumpTest, ShowsEveryTableAsDocumentedAndAsksNothing) {
    const auto one = add<ActClient1>(70, "one");
    const auto zero = add<ActClient0>(71, "zero");
    add<EnvClient1>(70, "environment");
    module.current = {Context(1, 1, 40)};
    enable(70, 1, 1, 5500000000);
    enableExtended(71, 1, 1, 2000000000, Params({1, 0, 0, 0}, "a\x1b\"\xff\xc3\xa9"));
    enable(72, 3, 2, 0);
    module.results = {{"enable", -5}};
    enable(71, 4, 1, 0);
    module.results = {};
    enable(73, 9, 3, 0);
    disable(72, 3, 2);
    enable(72, 6, 2, 0);
    module.results = {{"disable", -7}};
    disable(72, 6, 2);
    module.results = {};
    enable(72, 3, 2, 0);
    enable(72, 8, 1, 0);
    disable(72, 8, 1);
    {
        As caller(75);
        EXPECT_EQ(int32_t(act->flush()), 0);
    }
    plain({{1, 1, 50, 0, {}}, {2, 1, 50, 0, {}}});
    {
        As joiner(71);  // whose barrier counts for what comes on this thread
        plain({{1, 1, 39, 0, {}}, {1, 1, 40, 0, {}}, {1, 1, 40, 0, {}}, {1, 1, 39, 0, {}}});
    }
    one->send = Status::fromStatusT(-1);
    extended({Context(1, 1, 50)});
    environment({Context(1, 1, 50)});
    module.activity->activity_changed(nullptr, 1);
    const auto gone = add<ActClient1>(74, "gone");
    enable(74, 5, 1, 0);
    act->HandleHidlDeath(74, wp<IBase>(sp<IBase>(gone)));
    module.take();
    TakeLog();
    const std::regex times(R"(\b(now|started|registered|last|worst|at)=[^,) \n]+( ago)?)");
    const std::string text = std::regex_replace(dump(), times, "$1=...");
    EXPECT_EQ(module.take(), Lines{});
    EXPECT_EQ(TakeLog(), Lines{});
    std::ifstream file(DUMP_GUIDE);
    const std::string guide((std::istreambuf_iterator<char>(file)), {});
    EXPECT_NE(guide.find("```\n" + text + "```"), std::string::npos) << text;

    const auto object = json();
    EXPECT_EQ(object["activity"]["orphans"],
              nlohmann::json::parse(
                      R"([{"activity":5,"event_type":1},{"activity":6,"event_type":2}])"));
    EXPECT_EQ(object["activity"]["requests"][1]["name"], "a\x1b\"\ufffd\u00e9");
    EXPECT_EQ(object["activity"]["clients"][0]["records"], 4);
    EXPECT_EQ(object["environment"]["counters"]["batches"], 1);
    EXPECT_NE(dump({"--help"}).find("--json"), std::string::npos);
    EXPECT_EQ(dump(std::vector<hidl_string>(1000, "x")),
              "There are --json and --help, and no other options.\n");
}

TEST_F(DumpTest, NamesWhatHangsAndWhatItHolds) {
    const auto client = add<ActClient1>(70, "c");
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    nlohmann::json inside, nested;
    const auto look = [this](nlohmann::json* found) {
        std::thread([this, found] { *found = json(); }).join();
    };
    client->inside = [&] {
        look(&inside);
        // What it asks for from there comes on the same thread.
        module.inside = [&] { nested = json(); };
        disable(71, 1, 1);
        module.inside = nullptr;
    };
    plain({{1, 1, 5, 0, {}}});
    const nlohmann::json held = {"ActivityInterface::mListMutex"};
    EXPECT_EQ(inside["held"], held);
    EXPECT_EQ(inside["activity"]["clients"], nullptr);
    EXPECT_EQ(inside["activity"]["left_behind"], nullptr);
    EXPECT_EQ(inside["activity"]["requests"].size(), 2u);
    ASSERT_EQ(inside["in_flight"].size(), 1u);
    EXPECT_EQ(inside["in_flight"][0]["call"], "onActivityChangedV1_1");
    EXPECT_EQ(inside["in_flight"][0]["pid"], 70);
    ASSERT_EQ(nested["in_flight"].size(), 2u);
    EXPECT_EQ(nested["in_flight"][1]["call"], "enable_activity_event");
    EXPECT_EQ(nested["in_flight"][1]["client"], false);
    EXPECT_EQ(nested["in_flight"][1]["pid"], 71);
    EXPECT_EQ(nested["in_flight"][1]["holds"], "ActivityInterface::mListMutex");
    EXPECT_TRUE(json()["in_flight"].empty());

    const auto environment = add<EnvClient0>(70, "e");
    environment->inside = [&] { look(&inside); };
    this->environment({Context(1, 1, 5)});
    EXPECT_EQ(inside["held"], (nlohmann::json{"EnvironmentInterface::mListMutex"}));
    EXPECT_EQ(inside["in_flight"][0]["side"], "environment");
}

TEST_F(DumpTest, TakesEveryHandleAndWaitsForNobody) {
    EXPECT_TRUE(root->debug(nullptr, {}).isOk());
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    write(ends[0]);  // the wrong end
    close(ends[0]);
    write(ends[1]);  // nobody reads; a signal would end the process
    close(ends[1]);
    write(-1);

    char name[] = "/tmp/dump-XXXXXX";
    const int file = mkstemp(name);
    write(file);
    EXPECT_EQ(lseek(file, 0, SEEK_SET), 0);
    EXPECT_EQ(ReadAll(file).substr(0, 9), "format=1\n");
    unlink(name);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    write(ends[1]);
    close(ends[1]);
    EXPECT_EQ(ReadAll(ends[0]).substr(0, 9), "format=1\n");

    // While two pipes that nobody empties are waited for, a third is not. They are for two seconds:
    // a slow machine needs another try.
    for (uint32_t activity = 0; activity < 2000; ++activity) enable(70, activity, 1, 0);
    for (bool third = false; !third;) {
        std::atomic<int> left{0};
        std::vector<std::array<int, 2>> pipes(3);
        for (auto& pipe : pipes) ASSERT_EQ(::pipe(pipe.data()), 0);
        std::vector<std::thread> waiting;
        for (int i = 0; i < 2; ++i) {
            waiting.emplace_back([&, i] {
                write(pipes[i][1]);
                ++left;
            });
            const auto isFull = [&] {
                pollfd end = {pipes[i][1], POLLOUT, 0};
                return poll(&end, 1, 0) == 0;
            };
            while (!isFull()) std::this_thread::yield();
        }
        write(pipes[2][1]);
        third = left == 0;
        for (auto& pipe : pipes) close(pipe[0]);
        for (std::thread& thread : waiting) thread.join();
        for (auto& pipe : pipes) close(pipe[1]);
    }
    // One that is emptied gets all of it.
    ASSERT_EQ(pipe(ends), 0);
    std::thread writer([this, end = ends[1]] {
        write(end, {"--json"});
        close(end);
    });
    EXPECT_EQ(nlohmann::json::parse(ReadAll(ends[0]))["activity"]["requests"].size(), 2000u);
    writer.join();
}

TEST_F(DumpTest, ShowsNoSideThatNobodyAskedFor) {
    drop();
    root = nullptr;
    module = {};
    root = HIDL_FETCH_IActivityRecognition("ignored");
    EXPECT_EQ(json()["activity"], nullptr);
    EXPECT_EQ(json()["environment"], nullptr);
    EXPECT_EQ(module.activity, nullptr) << "looking makes none";
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
