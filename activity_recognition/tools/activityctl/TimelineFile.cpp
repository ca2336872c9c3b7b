// SPDX-License-Identifier: Apache-2.0
// Reads a trace, and finds what belongs together.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>
#include <utility>

#include "Failure.h"
#include "Text.h"
#include "Timeline.h"

namespace activityctl {
namespace {

using nlohmann::json;

// What happens within this time of a moment's begin may belong to it.
constexpr double kMomentSeconds = 0.02;
constexpr double kLongestSeconds = 1e9;

// A member of the file, with its place for errors: traceEvents[3].args.
class Member {
  public:
    Member(const json& value, std::string place) : mValue(&value), mPlace(std::move(place)) {}

    bool has(const char* key) const { return mValue->is_object() && mValue->contains(key); }
    Member at(const char* key) const {
        const std::string place = mPlace.empty() ? key : fmt::format("{}.{}", mPlace, key);
        if (!has(key)) throw Failure(kUsage, place + ": is missing");
        return {mValue->at(key), place};
    }
    bool isNull() const { return mValue->is_null(); }
    std::string text() const {
        if (!mValue->is_string()) refuse("no text");
        return mValue->get<std::string>();
    }
    double seconds(double inOne = 1e6) const {
        if (!mValue->is_number()) refuse("no number");
        const double seconds = mValue->get<double>() / inOne;
        if (seconds < 0 || seconds > kLongestSeconds) refuse("no time since the start");
        return seconds;
    }
    int64_t number() const {
        if (!mValue->is_number_integer() ||
            (mValue->is_number_unsigned() && mValue->get<uint64_t>() > INT64_MAX)) {
            refuse("no whole number, or out of range");
        }
        return mValue->get<int64_t>();
    }
    std::string id() const {
        if (!mValue->is_number() && !mValue->is_string()) refuse("no number or text");
        return mValue->dump();
    }
    std::vector<Member> elements() const {
        if (!mValue->is_array()) refuse("no array");
        std::vector<Member> elements;
        for (size_t i = 0; i < mValue->size(); ++i) {
            elements.emplace_back((*mValue)[i], fmt::format("{}[{}]", mPlace, i));
        }
        return elements;
    }
    [[noreturn]] void refuse(const std::string& what) const {
        throw Failure(kUsage, fmt::format("{}: is {}", mPlace, what));
    }

  private:
    const json* mValue;
    std::string mPlace;
};

struct Record {
    std::string pair;
    int64_t timestamp;
    std::optional<int64_t> number;  // its "extra"
};

struct Event {
    enum Kind { kBatch, kDelivery, kBegin, kEnd, kEnter, kGone };
    Kind kind;
    Member member;
    size_t lane;
    double at;
    double until = 0;  // of a slice
    std::string name;
    std::string pair;              // kEnd: of its begin
    std::string label;             // kBegin
    std::vector<Record> records;   // batches and deliveries
    const Event* batch = nullptr;  // of a delivery, if a flow tells
    size_t column = 0;
};

std::vector<Record> recordsOf(const Member& event) {
    std::vector<Record> records;
    for (const Member& record : event.at("args").at("records").elements()) {
        const char* const what = record.has("environment") ? "environment" : "activity";
        const std::string name = fmt::format("{}_name", what);
        records.push_back(
                {fmt::format("{}:{}",
                             record.has(name.c_str()) ? record.at(name.c_str()).text()
                                                      : fmt::format("{}", record.at(what).number()),
                             record.at("event_type").number()),
                 record.at("timestamp").number(),
                 {}});
        // Modules that do not use it leave it 0.
        const int64_t extra = record.has("extra") ? record.at("extra").number() : 0;
        if (extra != 0) records.back().number = extra;
    }
    return records;
}

std::string latencyOf(int64_t ns) {
    constexpr int64_t kDay = 86'400'000'000'000;
    if (ns != 0 && ns % kDay == 0) return fmt::format("{}d", ns / kDay);
    return ns % 1'000'000 == 0 ? fmt::format("{}s", double(ns) / 1e9) : formatLatency(ns);
}

class Reader {
  public:
    explicit Reader(bool even) { mTimeline.even = even; }

    Timeline read(const json& file) {
        const Member all(file, "");
        const auto events = all.at("traceEvents").elements();
        for (const Member& event : events) {
            if (event.at("ph").text() == "M") readMetadata(event);
        }
        orderLanes();
        for (const Member& event : events) readEvent(event);
        if (mEvents.empty()) {
            all.at("traceEvents")
                    .refuse("without a request, an enabled pair, a batch or a delivery");
        }
        std::stable_sort(mEvents.begin(), mEvents.end(),
                         [](const Event& a, const Event& b) { return a.at < b.at; });
        joinFlows();
        for (Event& event : mEvents) findColumn(event);
        for (const Event& event : mEvents) enterRow(event);
        readClock();
        countRepeated();
        return std::move(mTimeline);
    }

  private:
    struct Standing {
        size_t lane;
        std::string pair;
        double at;
    };
    // Of a flow.
    struct End {
        Member member;
        int64_t pid;
        double at;
    };
    // The moment that further events may still join.
    struct Moment {
        enum Kind { kNone, kBatch, kLate, kChange } kind = kNone;
        std::optional<size_t> client;  // whose lane it touches, besides the module's
        std::set<std::pair<size_t, std::string>> begun;
    };

    void readMetadata(const Member& event) {
        const int64_t pid = event.at("pid").number();
        const std::string name = event.at("name").text();
        if (name == "process_name") mProcesses[pid].name = event.at("args").at("name").text();
        if (name == "process_labels") mProcesses[pid].what = event.at("args").at("labels").text();
        if (name == "process_sort_index") {
            mProcesses[pid].index = event.at("args").at("sort_index").number();
        }
    }

    void orderLanes() {
        std::vector<std::pair<int64_t, int64_t>> order;
        for (const auto& [pid, process] : mProcesses) order.push_back({process.index, pid});
        std::sort(order.begin(), order.end());
        for (const auto& [index, pid] : order) laneOf(pid);
    }

    size_t laneOf(int64_t pid) {
        const auto [lane, isNew] = mLanes.emplace(pid, mTimeline.lanes.size());
        if (isNew) {
            const Process& process = mProcesses[pid];
            mTimeline.lanes.emplace_back();
            mTimeline.lanes.back().name =
                    process.name.empty() ? fmt::format("process {}", pid) : process.name;
            mTimeline.lanes.back().what = process.what;
        }
        return lane->second;
    }

    // What it does not know, other tools may have added.
    void readEvent(const Member& event) {
        const std::string phase = event.at("ph").text();
        const std::string category = event.has("cat") ? event.at("cat").text() : "";
        const auto add = [&](Event::Kind kind) -> Event& {
            mEvents.push_back({kind,
                               event,
                               laneOf(event.at("pid").number()),
                               event.at("ts").seconds(),
                               0,
                               event.at("name").text(),
                               "",
                               "",
                               {}});
            return mEvents.back();
        };
        if (phase == "X" && (category == "batch" || category == "delivery")) {
            Event& added = add(category == "batch" ? Event::kBatch : Event::kDelivery);
            added.until = added.at + event.at("dur").seconds();
            added.records = recordsOf(event);
            if (category == "batch") mTimeline.lanes[added.lane].module = true;
        } else if (category == "request" || category == "enabled") {
            if (phase != "b" && phase != "e") return;
            const auto key = std::make_pair(category, event.at("id").id());
            if (phase == "b") {
                Event& added = add(Event::kBegin);
                added.pair = added.name;
                const Member latency = event.at("args").at("latency_ns");
                added.label = latency.isNull() ? "?" : latencyOf(latency.number());
                if (category == "enabled") mTimeline.lanes[added.lane].module = true;
                if (!mStanding.emplace(key, Standing{added.lane, added.pair, added.at}).second) {
                    event.at("id").refuse("that of a begin which has no end yet");
                }
            } else {
                const auto begin = mStanding.find(key);
                if (begin == mStanding.end()) event.at("id").refuse("that of no begin before it");
                Event& added = add(Event::kEnd);
                if (added.at < begin->second.at) event.at("ts").refuse("before its begin");
                added.lane = begin->second.lane;
                added.pair = begin->second.pair;
                mStanding.erase(begin);
            }
        } else if (phase == "i" && category == "enter") {
            add(Event::kEnter);
        } else if (phase == "i" && (category == "death" || category == "leave")) {
            add(Event::kGone).label = category;
        } else if (phase == "C" && category == "clock") {
            mClock.emplace_back(event.at("ts").seconds(),
                                event.at("args").at("seconds").seconds(1));
        } else if (phase == "s" || phase == "f") {
            auto& ends = phase == "s" ? mFlowBegins : mFlowEnds;
            ends.push_back({event, event.at("pid").number(), event.at("ts").seconds()});
        }
    }

    // The slice that a flow's end lies in: the last one of its process that began before.
    Event& sliceAt(const End& end, Event::Kind kind) {
        const auto lane = mLanes.find(end.pid);
        auto event = std::upper_bound(mEvents.begin(), mEvents.end(), end.at,
                                      [](double at, const Event& event) { return at < event.at; });
        while (event != mEvents.begin()) {
            --event;
            if (event->kind != kind || lane == mLanes.end() || event->lane != lane->second)
                continue;
            if (end.at <= event->until) return *event;
            break;
        }
        end.member.at("ts").refuse(kind == Event::kBatch ? "in no batch" : "in no delivery");
    }

    void joinFlows() {
        std::map<std::string, const Event*> batches;
        for (const End& begin : mFlowBegins) {
            batches[begin.member.at("id").id()] = &sliceAt(begin, Event::kBatch);
        }
        for (const End& end : mFlowEnds) {
            const auto batch = batches.find(end.member.at("id").id());
            if (batch == batches.end()) end.member.at("id").refuse("that of no flow's begin");
            sliceAt(end, Event::kDelivery).batch = batch->second;
        }
    }

    size_t newColumn(const Event& event, Moment::Kind kind) {
        mMoment = Moment();
        mMoment.kind = kind;
        mTimeline.columns.push_back(event.at);
        return mTimeline.columns.size() - 1;
    }

    void findColumn(Event& event) {
        const bool even = mTimeline.even;
        const bool soon = even || (!mTimeline.columns.empty() &&
                                   event.at - mTimeline.columns.back() <= kMomentSeconds);
        const size_t last = mTimeline.columns.size() - 1;
        if (event.kind == Event::kBatch) {
            // How many batches the same records come in is a matter of time.
            event.column = even && mMoment.kind == Moment::kBatch
                                   ? last
                                   : newColumn(event, Moment::kBatch);
        } else if (event.kind == Event::kDelivery) {
            // A call that came late, or between other things, has a moment of its own; one that
            // brought nothing is not shown.
            if (event.records.empty() && !mTimeline.columns.empty()) {
                event.column = last;
            } else if (event.batch != nullptr && (even || (soon && event.batch->column == last))) {
                event.column = event.batch->column;
            } else {
                event.column = soon && mMoment.kind == Moment::kLate
                                       ? last
                                       : newColumn(event, Moment::kLate);
            }
        } else {
            const bool ofModule = mTimeline.lanes[event.lane].module;
            const auto row = std::make_pair(event.lane, event.pair);
            // What stood at the start, or was seen at once, has the very same time.
            const bool atOnce = !mTimeline.columns.empty() && event.at == mTimeline.columns.back();
            const bool joins =
                    soon && mMoment.kind == Moment::kChange &&
                    (atOnce || (ofModule ? !mMoment.client
                                         : mMoment.client.value_or(event.lane) == event.lane)) &&
                    (event.kind != Event::kEnd || mMoment.begun.count(row) == 0);
            event.column = joins ? last : newColumn(event, Moment::kChange);
            if (!ofModule) mMoment.client = event.lane;
            if (event.kind == Event::kBegin) mMoment.begun.insert(row);
        }
    }

    // Later than a column's begin it may have moved on for a further batch.
    void readClock() {
        if (mClock.empty()) return;
        std::sort(mClock.begin(), mClock.end());
        mTimeline.clock.resize(mTimeline.columns.size());
        for (const Event& event : mEvents) {
            if (event.kind == Event::kDelivery && event.at > mTimeline.columns[event.column])
                continue;
            const auto next = std::upper_bound(mClock.begin(), mClock.end(),
                                               std::make_pair(event.at, HUGE_VAL));
            if (next != mClock.begin()) mTimeline.clock[event.column] = std::prev(next)->second;
        }
    }

    Timeline::Row& rowOf(size_t lane, const std::string& name) {
        auto& rows = mTimeline.lanes[lane].rows;
        const auto row = std::find_if(rows.begin(), rows.end(),
                                      [&](const auto& known) { return known.name == name; });
        if (row != rows.end()) return *row;
        rows.push_back({name, {}, {}});
        return rows.back();
    }

    void enterRow(const Event& event) {
        Timeline::Lane& lane = mTimeline.lanes[event.lane];
        if (!lane.entered) lane.entered = event.column;
        if (event.kind == Event::kGone) {
            lane.ended = event.column;
            lane.died = event.label == "death";
            lane.end = event.name;
        } else if (event.kind == Event::kBegin) {
            rowOf(event.lane, event.pair).bars.push_back({event.label, event.column, {}});
        } else if (event.kind == Event::kEnd) {
            auto& bars = rowOf(event.lane, event.pair).bars;
            const auto open = std::find_if(bars.begin(), bars.end(),
                                           [](const Timeline::Bar& bar) { return !bar.to; });
            open->to = event.column;  // each end has a begin before it
        }
        for (const Record& record : event.records) {
            const auto number = numberOf(record, event.batch);
            const std::string label = number ? fmt::format("#{}", *number) : record.pair;
            // The module's stand at their pair, for a client all in one row.
            const std::string row = lane.module ? record.pair : "";
            mMarks[{event.lane, row, event.column}][{number.value_or(-1), label, record.pair}] += 1;
        }
    }

    // Version 1.0 does not bring it along, but the batch that it came with had it.
    static std::optional<int64_t> numberOf(const Record& record, const Event* batch) {
        if (record.number || batch == nullptr) return record.number;
        for (const Record& sent : batch->records) {
            if (sent.timestamp == record.timestamp && sent.pair == record.pair) return sent.number;
        }
        return {};
    }

    void countRepeated() {
        for (const auto& [place, marks] : mMarks) {
            const auto& [lane, row, column] = place;
            for (const auto& [mark, times] : marks) {
                const auto& [number, label, pair] = mark;
                const std::string repeated = times > 1 ? fmt::format(" \u00d7{}", times) : "";
                rowOf(lane, row).marks.push_back(
                        {column, label + repeated,
                         fmt::format("{}{}{}", pair, number < 0 ? "" : " " + label, repeated)});
            }
        }
        // What a client gets stands below what it asks for.
        for (Timeline::Lane& lane : mTimeline.lanes) {
            std::stable_partition(lane.rows.begin(), lane.rows.end(),
                                  [](const Timeline::Row& row) { return !row.name.empty(); });
        }
    }

    struct Process {
        std::string name, what;
        int64_t index = std::numeric_limits<int64_t>::max();
    };

    Timeline mTimeline;
    std::map<int64_t, Process> mProcesses;
    std::map<int64_t, size_t> mLanes;  // by process
    std::vector<Event> mEvents;
    std::map<std::pair<std::string, std::string>, Standing> mStanding;  // by category and id
    std::vector<End> mFlowBegins, mFlowEnds;
    std::vector<std::pair<double, double>> mClock;  // when, and what it showed
    Moment mMoment;
    using Place = std::tuple<size_t, std::string, size_t>;          // lane, row, column
    using MarkKey = std::tuple<int64_t, std::string, std::string>;  // number, label, pair
    std::map<Place, std::map<MarkKey, int>> mMarks;
};

}  // namespace

Timeline readTimeline(const std::string& path, bool even) {
    errno = 0;
    std::ifstream stream(path);
    if (!stream || stream.peek() == std::ifstream::traits_type::eof()) {
        throw Failure(kUsage,
                      fmt::format("{}: {}", path, errno == 0 ? "is empty" : strerror(errno)));
    }
    try {
        return Reader(even).read(json::parse(stream));
    } catch (const json::exception& error) {
        const std::string text = error.what();  // begins with the library's own name for it
        throw Failure(kUsage, fmt::format("{}: {}", path, text.substr(text.find("] ") + 2)));
    } catch (const Failure& failure) {
        throw Failure(kUsage, fmt::format("{}: {}", path, failure.what()));
    }
}

}  // namespace activityctl
