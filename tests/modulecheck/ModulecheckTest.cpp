// modulecheck against modules that break one rule each, and against sound ones.

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

std::pair<int, std::string> run(const std::string& arguments) {
    // Spares each check of each module a second at its end under the thread sanitizer. Some modules
    // break by racing for real: what modulecheck says of it counts, not what the sanitizer would.
    const char* options = getenv("TSAN_OPTIONS");
    const std::string quick = std::string(options != nullptr ? options : "") +
                              " atexit_sleep_ms=0" + (getenv("BREAK") ? " report_bugs=0" : "");
    std::string output;
    FILE* pipe = popen(
            ("TSAN_OPTIONS='" + quick + "' " MODULECHECK " " + arguments + " 2>&1").c_str(), "r");
    char text[4096];
    for (size_t size; (size = fread(text, 1, sizeof(text), pipe)) > 0;) {
        output.append(text, size);
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// The report stands behind whatever the module and the sanitizers had to say.
json check(const std::string& module, int expectedStatus) {
    const auto [status, text] = run("--json --listen 0.3 --timeout 4 --module " + module);
    EXPECT_EQ(expectedStatus, status) << text;
    const size_t start = text.find("{\n");
    return start == std::string::npos ? json() : json::parse(text.substr(start));
}

std::vector<std::string> allRules() {
    std::vector<std::string> rules;
    std::istringstream lines(run("--list-rules").second);
    for (std::string line; std::getline(lines, line);) {
        rules.push_back(line.substr(0, line.find(' ')));
    }
    return rules;
}

using BrokenModule = testing::TestWithParam<std::string>;

TEST_P(BrokenModule, IsFoundByTheRuleItBreaks) {
    setenv("BREAK", GetParam().c_str(), 1);
    // A file that is no library stands for one without the symbol.
    const json report = check(GetParam() == "module.symbol" ? MODULECHECK : BROKEN_MODULE, 1);
    ASSERT_FALSE(report.is_null());
    bool found = false;
    for (const json& finding : report["findings"]) {
        const bool own = finding["rule"] == GetParam();
        // A module that takes one caller only shows it wherever two happen to meet: it says EBUSY.
        const bool kin =
                GetParam() == "threads.calls" &&
                finding["seen"].get<std::string>().find("returned -16") != std::string::npos;
        EXPECT_TRUE(own || kin) << report.dump(2);
        found |= own;
        EXPECT_NE("", finding["seen"]);
        EXPECT_NE("", finding["expected"]);
    }
    EXPECT_TRUE(found) << report.dump(2);
    EXPECT_FALSE(report["clean"]);
}

INSTANTIATE_TEST_SUITE_P(Rules, BrokenModule, testing::ValuesIn(allRules()), [](const auto& info) {
    return std::regex_replace(info.param, std::regex("[.]"), "_");
});

TEST(ModuleCheck, SoundModulesAreClean) {
    unsetenv("BREAK");
    setenv("AR_SIMULATOR_SCENARIO", SCENARIOS "/context.scn", 1);
    setenv("AR_SIMULATOR_SPEED", "100", 1);
    for (const char* module : {BROKEN_MODULE, TEMPLATE_MODULE, SIMULATOR}) {
        const json report = check(module, 0);
        ASSERT_FALSE(report.is_null());
        EXPECT_TRUE(report["findings"].empty()) << report.dump(2);
        // Only what needs extended records may remain open, and for the minimal module only.
        const json open =
                module == std::string(TEMPLATE_MODULE) ? json{"event.name"} : json::array();
        EXPECT_EQ(open, report["not_exercised"]) << module;
    }
}

TEST(ModuleCheck, SaysWhenItCannotRun) {
    EXPECT_EQ(2, run("--module /nonexistent.so").first);
    EXPECT_EQ(2, run("").first);
    EXPECT_EQ(2, run("--module " SIMULATOR " --listen soon").first);
}

}  // namespace
