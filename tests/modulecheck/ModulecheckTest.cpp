// SPDX-License-Identifier: Apache-2.0
// modulecheck against modules that break one rule each, and against sound ones.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <support/ChildProcess.h>

namespace {

using nlohmann::json;

std::pair<int, std::string> run(const std::string& command) {
    // Spares each check of each module a second at its end under the thread sanitizer. Some modules
    // break by racing for real: what modulecheck says of it counts, not what the sanitizer would.
    const char* options = getenv("TSAN_OPTIONS");
    const std::string quick = std::string(options != nullptr ? options : "") +
                              " atexit_sleep_ms=0" + (getenv("BREAK") ? " report_bugs=0" : "");
    std::string output;
    FILE* pipe = popen(("export TSAN_OPTIONS='" + quick + "'; " + command + " 2>&1").c_str(), "r");
    char text[4096];
    for (size_t size; (size = fread(text, 1, sizeof(text), pipe)) > 0;) {
        output.append(text, size);
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// The report stands behind whatever the module and the sanitizers had to say.
json check(const std::string& module, int expectedStatus, const std::string& options = "") {
    const auto [status, text] =
            run(MODULECHECK " --json --listen 0.3 --timeout 4 " + options + " --module " + module);
    EXPECT_EQ(expectedStatus, status) << text;
    const size_t start = text.find("{\n");
    return start == std::string::npos ? json() : json::parse(text.substr(start));
}

std::vector<std::string> allRules() {
    std::vector<std::string> rules;
    std::istringstream lines(run(MODULECHECK " --list-rules").second);
    for (std::string line; std::getline(lines, line);) {
        rules.push_back(line.substr(0, line.find(' ')));
    }
    return rules;
}

// Faults that are not called by the rule that they break, which comes first, and rules that such a
// module may break besides.
const std::map<std::string, std::vector<std::string>> kFaults = {
        {"flush.delivers", {"reentry.nested", "threads.blocked", "event.time"}},
        {"disable.delivers", {"reentry.nested", "threads.blocked", "event.time"}},
        {"enable.delivers", {"reentry.nested"}},
        {"latency.held", {"latency.kept", "event.time"}},
};

std::vector<std::string> allFaults() {
    std::vector<std::string> faults = allRules();
    for (const auto& fault : kFaults) faults.push_back(fault.first);
    return faults;
}

using BrokenModule = testing::TestWithParam<std::string>;

TEST_P(BrokenModule, IsFoundByTheRuleItBreaks) {
    setenv("BREAK", GetParam().c_str(), 1);
    const auto fault = kFaults.find(GetParam());
    const auto rules = fault == kFaults.end() ? std::vector{GetParam()} : fault->second;
    // A file that is no library stands for one without the symbol.
    const json report = check(GetParam() == "module.symbol" ? MODULECHECK : BROKEN_MODULE, 1);
    ASSERT_FALSE(report.is_null());
    std::set<std::string> found;
    for (const json& finding : report["findings"]) {
        const bool own = std::count(rules.begin(), rules.end(), finding["rule"]) != 0;
        // A module that takes one caller only shows it wherever two happen to meet: it says EBUSY.
        const bool kin =
                GetParam() == "threads.calls" &&
                finding["seen"].get<std::string>().find("returned -16") != std::string::npos;
        EXPECT_TRUE(own || kin) << report.dump(2);
        found.insert(finding["rule"]);
        for (const char* text : {"seen", "expected", "hint"}) EXPECT_NE("", finding[text]);
    }
    EXPECT_EQ(1u, found.count(rules[0])) << report.dump(2);
    EXPECT_FALSE(report["clean"]);
}

INSTANTIATE_TEST_SUITE_P(Rules, BrokenModule, testing::ValuesIn(allFaults()), [](const auto& info) {
    return std::regex_replace(info.param, std::regex("[.]"), "_");
});

TEST(ModuleCheck, SoundModulesAreClean) {
    unsetenv("BREAK");
    setenv("AR_SIMULATOR_SCENARIO", SCENARIOS "/context.scn", 1);
    setenv("AR_SIMULATOR_SPEED", "100", 1);
    for (const char* module : {BROKEN_MODULE, TEMPLATE_MODULE, SIMULATOR}) {
        EXPECT_EQ(true, check(module, 0, "--strict --tolerance 3")["clean"]) << module;
    }
    // Nothing ever happens in the built-in scenario.
    unsetenv("AR_SIMULATOR_SCENARIO");
    const std::string command = MODULECHECK " --listen 0.1 --module " SIMULATOR;
    EXPECT_EQ(0, run(command).first);
    EXPECT_EQ(1, run(command + " --strict").first);
}

TEST(ModuleCheck, TakesTheModuleAlongWhenItIsStopped) {
    for (const int number : {SIGTERM, SIGINT, SIGKILL}) {
        support::Process tool({MODULECHECK, "--timeout", "600", "--module", BROKEN_MODULE},
                              {{"BREAK", "open.hangs"}});
        const std::string id = std::to_string(tool.pid());
        pid_t module = 0;
        ASSERT_TRUE(support::waitUntil([&] {
            std::ifstream children("/proc/" + id + "/task/" + id + "/children");
            return children >> module && !tool.err().lines().empty();
        }));
        tool.signal(number);
        EXPECT_EQ(128 + number, tool.waitExit()) << tool.describe();
        const auto hasEnded = [&] {
            std::string id, name;
            char state = 'Z';  // of a process that nobody has asked for yet
            std::ifstream("/proc/" + std::to_string(module) + "/stat") >> id >> name >> state;
            return state == 'Z';
        };
        EXPECT_TRUE(number == SIGKILL ? support::waitUntil(hasEnded) : hasEnded());
    }
}

TEST(ModuleCheck, NamesAnOpenThatHangsAndShowsProgressToATerminalOnly) {
    setenv("BREAK", "open.hangs", 1);
    const std::string command = MODULECHECK " --timeout 1 --module " BROKEN_MODULE;
    const std::string text = run(command).second;
    EXPECT_NE(std::string::npos, text.find("\nmodule.open\n    seen:     hung")) << text;
    EXPECT_NE(std::string::npos, text.find("1 broken")) << text;
    EXPECT_EQ(std::string::npos, text.find('\r')) << text;
    const auto [valid, why] = run(command + " --json | " CHECK_JSON);
    EXPECT_EQ(0, valid) << why;
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0) GTEST_SKIP() << "no pseudo-terminals here";
    close(terminal);
    const std::string shown = run("script -qec '" + command + "' /dev/null").second;
    EXPECT_NE(std::string::npos, shown.find("\r\033[K[1/")) << shown;
}

TEST(ModuleCheck, SaysWhenItCannotRun) {
    EXPECT_EQ(2, run(MODULECHECK " --module /nonexistent.so").first);
    EXPECT_EQ(2, run(MODULECHECK).first);
    EXPECT_EQ(2, run(MODULECHECK " --module " SIMULATOR " --listen soon").first);
}

}  // namespace
