// modulecheck against modules that break one rule each, and against sound ones.

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

struct Output {
    int status = -1;
    std::string text;
};

Output run(const std::string& arguments) {
    // Spares each check of each module a second at its end under the thread sanitizer.
    const char* options = getenv("TSAN_OPTIONS");
    const std::string quick = std::string(options != nullptr ? options : "") + " atexit_sleep_ms=0";
    Output output;
    FILE* pipe = popen(
            ("TSAN_OPTIONS='" + quick + "' " MODULECHECK " " + arguments + " 2>&1").c_str(), "r");
    char text[4096];
    for (size_t size; (size = fread(text, 1, sizeof(text), pipe)) > 0;) {
        output.text.append(text, size);
    }
    const int status = pclose(pipe);
    if (WIFEXITED(status)) output.status = WEXITSTATUS(status);
    return output;
}

// The report stands behind whatever the module and the sanitizers had to say.
json check(const std::string& module, int expectedStatus) {
    const Output output = run("--json --listen 0.3 --timeout 4 --module " + module);
    EXPECT_EQ(expectedStatus, output.status) << output.text;
    const size_t start = output.text.find("{\n");
    return start == std::string::npos ? json() : json::parse(output.text.substr(start));
}

std::vector<std::string> allRules() {
    std::vector<std::string> rules;
    std::istringstream lines(run("--list-rules").text);
    for (std::string line; std::getline(lines, line);) {
        rules.push_back(line.substr(0, line.find(' ')));
    }
    return rules;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class BrokenModule : public testing::TestWithParam<std::string> {
  protected:
    // Some break by racing for real: what modulecheck says of it counts here, not what the thread
    // sanitizer would.
    void SetUp() override {
        const char* options = getenv("TSAN_OPTIONS");
        mOptions = options == nullptr ? "" : options;
        setenv("TSAN_OPTIONS", (mOptions + ":report_bugs=0").c_str(), 1);
    }
    void TearDown() override { setenv("TSAN_OPTIONS", mOptions.c_str(), 1); }

  private:
    std::string mOptions;
};

TEST_P(BrokenModule, IsFoundByTheRuleItBreaks) {
    setenv("BREAK", GetParam().c_str(), 1);
    // A file that is no library at all stands for one without the symbol.
    const json report = check(GetParam() == "module.symbol" ? __FILE__ : BROKEN_MODULE, 1);
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

INSTANTIATE_TEST_SUITE_P(Rules, BrokenModule, testing::ValuesIn(allRules()),
                         [](const testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             name.replace(name.find('.'), 1, "_");
                             return name;
                         });

TEST(ModuleCheck, SoundModulesAreClean) {
    unsetenv("BREAK");
    setenv("AR_SIMULATOR_SCENARIO", SCENARIOS "/context.scn", 1);
    setenv("AR_SIMULATOR_SPEED", "100", 1);
    for (const char* module : {BROKEN_MODULE, MINIMAL_MODULE, SIMULATOR}) {
        const json report = check(module, 0);
        ASSERT_FALSE(report.is_null());
        EXPECT_TRUE(report["findings"].empty()) << report.dump(2);
        // Only what needs extended records may remain open, and for the minimal module only.
        const json open =
                module == std::string(MINIMAL_MODULE) ? json{"event.name"} : json::array();
        EXPECT_EQ(open, report["not_exercised"]) << module;
    }
}

TEST(ModuleCheck, SaysWhenItCannotRun) {
    EXPECT_EQ(2, run("--module /nonexistent.so").status);
    EXPECT_EQ(2, run("").status);
    EXPECT_EQ(2, run("--module " SIMULATOR " --listen soon").status);
}

TEST(Guide, QuotesTheMinimalModule) {
    const std::string module = readFile(MINIMAL_SOURCE);
    ASSERT_FALSE(module.empty());
    EXPECT_NE(std::string::npos, readFile(GUIDE).find("```c++\n" + module + "```\n"))
            << "the code block of " GUIDE " is not " MINIMAL_SOURCE;
}

}  // namespace
