// Every log text in the sources is driven by some test, with the level and tag it stands under.
#include <ctype.h>
#include <fnmatch.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {
namespace {

// The string literals that stand at a place, one after the other, as one.
std::string Literals(const std::string& source, size_t at) {
    std::string text;
    for (;;) {
        while (isspace(source[at])) ++at;
        if (source[at] != '"') return text;
        const size_t end = source.find('"', at + 1);
        text += source.substr(at + 1, end - at - 1);
        at = end + 1;
    }
}

// What the lines of a log call look like.
std::string Pattern(const std::string& format) {
    std::string pattern;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%') {
            if (format[++i] == 'l') ++i;
            pattern += '*';
        } else {
            if (strchr("[]*?\\", format[i])) pattern += '\\';
            pattern += format[i];
        }
    }
    return pattern;
}

struct LogTexts : ::testing::Environment {
    void TearDown() override {
        // Nothing to say of a run of some tests only.
        if (::testing::GTEST_FLAG(filter) != "*") return;
        int texts = 0;
        for (const auto& file : std::filesystem::directory_iterator(AR_SOURCE_DIR)) {
            if (!file.is_regular_file()) continue;
            std::ifstream in(file.path());
            const std::string source{std::istreambuf_iterator<char>(in), {}};
            const std::string define = "#define LOG_TAG ";
            const size_t tag = source.find(define);
            if (tag == std::string::npos || file.path().filename() == "service.cpp") continue;
            const std::string prefix = " " + Literals(source, tag + define.size()) + ": ";
            const std::string call = "ALOG";
            for (size_t at = 0; (at = source.find(call, at)) != std::string::npos;) {
                at += call.size();
                if (source[at + 1] != '(') continue;
                const std::string pattern = source[at] + prefix + Pattern(Literals(source, at + 2));
                EXPECT_TRUE(std::any_of(EverLogged().begin(), EverLogged().end(),
                                        [&](const std::string& line) {
                                            return fnmatch(pattern.c_str(), line.c_str(), 0) == 0;
                                        }))
                        << file.path().filename() << ": " << pattern;
                ++texts;
            }
        }
        EXPECT_GE(texts, 80) << "the search for log calls misses some";
    }
};

[[maybe_unused]] auto* const kLogTexts = ::testing::AddGlobalTestEnvironment(new LogTexts);

}  // namespace
}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
