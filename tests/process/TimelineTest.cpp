// SPDX-License-Identifier: Apache-2.0
// activityctl timeline on a trace made for it. What the demo's looks like, docs/demo.svg shows.
#include <fstream>

#include "ProcessTest.h"

namespace {

const std::string kTrace = R"({"traceEvents": [
{"ph":"M","name":"process_name","pid":7,"args":{"name":"a <b>\u0007"}},
{"ph":"b","cat":"enabled","name":"a:1","pid":6,"ts":1000,"id":1,"args":{"latency_ns":1500000000}},
{"ph":"b","cat":"request","name":"a:1","pid":7,"ts":1100,"id":1,"args":{"latency_ns":1}},
{"ph":"X","cat":"batch","name":"b","pid":6,"ts":5e6,"dur":9,"args":{"records":[
  {"activity":1,"event_type":1,"timestamp":4,"extra":203}]}},
{"ph":"s","cat":"flow","name":"f","pid":6,"ts":5000001,"id":2},
{"ph":"X","cat":"delivery","name":"d","pid":7,"ts":5010000,"dur":9,"args":{"records":[
  {"activity":1,"event_type":1,"timestamp":4}]}},
{"ph":"f","cat":"flow","name":"f","pid":7,"ts":5010001,"id":2},
{"ph":"e","cat":"request","name":"a:1","pid":7,"ts":6e6,"id":1},
{"ph":"i","cat":"death","name":"killed","pid":7,"ts":6e6}]})";

TEST(Timeline, DrawsWhoGotWhatAndNamesThePlaceOfWhatIsWrong) {
    const Stage files;
    const auto draw = [&](const std::string& trace, int status, const std::string& to) {
        const auto drawing =
                files.program("activityctl", {"timeline", files.write("t.json", trace), "-o", to});
        EXPECT_EQ(status, drawing->waitExit()) << drawing->describe();
        return drawing->err().text();
    };
    const std::string picture = files.folder() + "/t.svg";
    EXPECT_EQ("", draw(kTrace, 0, picture));
    std::stringstream svg;
    svg << std::ifstream(picture).rdbuf();
    // The delivery has no number of its own, and stands in its batch's column.
    for (const char* text : {">0.001<", ">5.000<", "5.0 s, drawn shorter", ">1.5s<",
                             ">a &lt;b&gt;\\x07<", ">killed at 6.000 s<", "nobody asks for it<"}) {
        EXPECT_THAT(svg.str(), HasSubstr(text));
    }
    EXPECT_TRUE(std::regex_search(svg.str(), std::regex("\"delivery\"[^\n]*>#203<"))) << svg.str();
    EXPECT_THAT(svg.str(), ::testing::Not(HasSubstr("5.010")));

    const std::vector<std::vector<std::string>> faults{
            {kTrace, "{", "t.json: parse error at line 1, column 2"},
            {kTrace, "", "t.json: is empty"},
            {"\"ts\":5e6", "\"ts\":-1", "t.json: traceEvents[3].ts: is no time"},
            {"4}", "1e99}", "traceEvents[5].args.records[0].timestamp: is no whole number"},
            {"6e6,\"id\":1", "6e6,\"id\":3", "traceEvents[7].id: is that of no begin"},
            {"6e6,\"id\":1", "6,\"id\":1", "traceEvents[7].ts: is before its begin"},
            {"5000001", "5000010", "traceEvents[4].ts: is in no batch"}};
    for (const auto& fault : faults) {
        std::string trace = kTrace;
        trace.replace(trace.find(fault[0]), fault[0].size(), fault[1]);
        EXPECT_THAT(draw(trace, 2, picture), HasSubstr(fault[2]));
    }
    EXPECT_THAT(draw(kTrace, 6, "/no/t.svg"), HasSubstr("/no/t.svg cannot be written: No such"));
}

}  // namespace
