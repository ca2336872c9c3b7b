// Every log text in the sources is driven by some test, with the level and tag it stands under.
#include <fnmatch.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

// What the lines of a log call look like, from the literals that make up its format.
std::string Pattern(const std::string& literals) {
    const std::string format = std::regex_replace(literals, std::regex("\"\\s*\""), "");
    const std::string quoted = std::regex_replace(format, std::regex(R"([\[\]*?\\])"), R"(\$&)");
    return std::regex_replace(quoted, std::regex("%l?[a-z]"), "*");
}

bool Driven(const std::string& pattern) {
    return std::any_of(everLogged.begin(), everLogged.end(), [&](const std::string& line) {
        return fnmatch(pattern.c_str(), line.c_str(), 0) == 0;
    });
}

struct LogTexts : ::testing::Environment {
    void TearDown() override {
        // Nothing to say of a run of some tests only.
        if (::testing::GTEST_FLAG(filter) != "*") return;
        const std::regex define("#define LOG_TAG \"(.*)\"");
        const std::regex call(R"re(ALOG([A-Z])\(\s*"((?:[^"]|"\s*")*)")re");
        int texts = 0;
        for (const auto& file : std::filesystem::directory_iterator(AR_SOURCE_DIR)) {
            if (!file.is_regular_file() || file.path().filename() == "service.cpp") continue;
            std::ifstream in(file.path());
            const std::string source{std::istreambuf_iterator<char>(in), {}};
            std::smatch tag;
            if (!std::regex_search(source, tag, define)) continue;
            for (std::sregex_iterator i(source.begin(), source.end(), call), end; i != end; ++i) {
                const std::string level = (*i)[1];
                const std::string pattern = level + " " + tag[1].str() + ": " + Pattern((*i)[2]);
                EXPECT_TRUE(Driven(pattern)) << file.path().filename() << ": " << pattern;
                ++texts;
            }
        }
        EXPECT_GE(texts, 80) << "the search for log calls misses some";
    }
};

[[maybe_unused]] auto* const kLogTexts = ::testing::AddGlobalTestEnvironment(new LogTexts);

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
