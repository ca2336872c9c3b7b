// The client author's guide: its code is the example's file, and the example works.
#include <fstream>
#include <sstream>

#include "ProcessTest.h"

namespace {

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    EXPECT_TRUE(file.good()) << path;
    return text.str();
}

class Guide : public ProcessTest {};

}  // namespace

TEST(GuideText, ShowsTheMinimalClientAsItIsBuilt) {
    const std::string folder = PROJECT_FOLDER "/docs/";
    const std::string guide = contentOf(folder + "writing-a-client.md");
    const std::string begin = "```cpp\n// MinimalClient.cpp";
    const size_t at = guide.find(begin);
    ASSERT_NE(std::string::npos, at);
    const size_t from = at + 7;
    EXPECT_EQ(contentOf(folder + "examples/MinimalClient.cpp"),
              guide.substr(from, guide.find("```\n", from) - from));
}

TEST_F(Guide, MinimalClientPrintsWhatItAskedForAndLeaves) {
    const auto client = stage().program("ar_minimal_client", {"1", "1"});
    support::require([&] { return !client->out().lines().empty(); }, "the first line",
                     [&] { return client->describe(); });
    EXPECT_EQ((std::vector<std::string>{"enable 1:1 2s"}), told());
    stage().release("go");
    EXPECT_EQ(0, client->waitExit()) << client->describe();
    EXPECT_NE(std::string::npos, client->out().text().find("activity 1, event type 1, extra 11"));
    EXPECT_EQ((std::vector<std::string>{"disable 1:1"}), told());
}

TEST_F(Guide, MinimalClientSaysSoWhenTheServiceDies) {
    const auto client = stage().program("ar_minimal_client", {"1", "1"});
    support::require([&] { return !client->out().lines().empty(); }, "the first line",
                     [&] { return client->describe(); });
    stage().service().signal(SIGKILL);
    EXPECT_EQ(1, client->waitExit()) << client->describe();
    EXPECT_NE(std::string::npos, client->err().text().find("died"));
}
