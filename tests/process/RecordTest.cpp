// SPDX-License-Identifier: Apache-2.0
// activityctl record, of a service whose clients come, change, leave and die.
#include <fstream>

#include "ProcessTest.h"

namespace {

class Record : public ProcessTest {
  protected:
    // The record, which is what the schema says and viewers take, and which timeline has drawn.
    void read() {
        const auto reader = stage().command(
                {"sh", "-c",
                 SOURCES "/tests/process/check_trace.py " SOURCES "/docs/schemas/trace.json " +
                         mFile + " && activityctl timeline " + mFile + " -o " + mFile + ".svg"});
        EXPECT_EQ(0, reader->waitExit()) << reader->describe();
        mTrace = nlohmann::json::parse(std::ifstream(mFile));
    }
    // Of a process: what happened, and what stood at how many seconds, with a dot if it ended.
    std::string story(Process& process) {
        std::string story;
        std::map<int, std::string> bars;
        for (const auto& event : mTrace.at("traceEvents")) {
            const std::string phase = event.at("ph"), name = event.at("name");
            if (event.at("pid") != process.pid() || phase == "M") continue;
            const std::string what = event.at("cat");
            if (phase == "i" && what != "poll" && what != "call") story += what + " ";
            std::string& bar = bars[event.value("id", 0)];
            if (phase == "b") bar = name + "@" + event.at("args").at("latency_ns").dump()[0];
            if (phase == "e") bar += ".";
        }
        for (const auto& [id, bar] : bars) story += bar.empty() ? "" : bar + " ";
        return story;
    }

    const std::string mFile = stage().folder() + "/r.json";
    nlohmann::json mTrace;
};

TEST_F(Record, HoldsWhoAskedForWhatHowItWasMergedAndWhatCame) {
    const auto leaving = ready("-i 1.0 enable walking:1@2s");
    const auto dying = ready("watch walking:1@4s");
    const auto recorder = ready("record " + mFile + " walking:1@3s --count 2");
    const auto witness = ready("watch walking:1@5s still:2@9s --control --name n");
    leaving->leave();
    stage().waitForDeath(leaving->pid());
    dying->process().signal(SIGKILL);
    stage().waitForDeath(dying->pid());
    for (const char* line : {"enable walking:1@1s", "disable still:2"}) witness->command(line);
    witness->waitFor("disabled");
    stage().release("go");
    EXPECT_EQ(0, recorder->process().waitExit()) << recorder->process().describe();
    witness->waitForEvents("onActivityExtendChangedV1_1", 1);
    read();
    EXPECT_EQ("walking:1@2. still:2@9. walking:1@3. walking:1@1 ", story(stage().service()));
    EXPECT_EQ("enter leave walking:1@2. ", story(leaving->process()));
    EXPECT_EQ("enter death walking:1@4. ", story(dying->process()));
    EXPECT_EQ("enter walking:1@3 ", story(recorder->process()));
    EXPECT_EQ("enter walking:1@5. still:2@9. walking:1@1 ", story(witness->process()));
    auto printed = witness->events("onActivityChangedV1_1"), got = witness->events("none");
    printed.push_back(witness->events("onActivityExtendChangedV1_1").at(0));
    for (const auto& event : mTrace.at("traceEvents")) {
        const auto records = event.value("/args/records"_json_pointer, nlohmann::json());
        got.insert(got.end(), records.begin(), records.end());
    }
    EXPECT_EQ(printed, got);
    EXPECT_EQ("count", mTrace.at("otherData").at("end"));
}

TEST_F(Record, TellsWhatItCouldNotSeeAndIsWholeOrNotThere) {
    run("record /no/r walking", 6);
    EXPECT_EQ(Calls{}, told());
    const auto stopped = ready("watch walking:1"), recorder = ready("record " + mFile);
    const auto killed = ready("record " + mFile);
    killed->process().signal(SIGKILL);
    stage().waitForDeath(killed->pid());
    EXPECT_FALSE(std::ifstream(mFile).is_open());
    stopped->process().signal(SIGSTOP);
    stage().release("go");
    const auto isHeld = [&] { return !run("dump")->output("dump")[0].at("held").empty(); };
    support::require(isHeld, "a lock", [&] { return stage().service().describe(); });
    EXPECT_EQ(0, recorder->leave());
    read();
    EXPECT_LT(0, mTrace.at("otherData").at("held_polls"));
    EXPECT_THAT(mTrace.dump(), HasSubstr("mListMutex is held"));

    stopped->process().signal(SIGCONT);
    const auto last = ready("record " + mFile);
    stage().service().signal(SIGKILL);
    EXPECT_EQ(5, last->process().waitExit());
    read();
    EXPECT_EQ("death walking:1@1 ", story(stage().service()));
    EXPECT_EQ("service died", mTrace.at("otherData").at("end"));
}

}  // namespace
