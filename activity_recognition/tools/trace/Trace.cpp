// SPDX-License-Identifier: Apache-2.0
#include "trace/Trace.h"

#include <algorithm>

namespace trace {
namespace {

using nlohmann::json;

// Names come from clients and the module, in whatever bytes they like.
std::string toText(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

void Trace::addProcess(pid_t pid, const std::string& name, const std::string& what,
                       const std::vector<std::pair<Row, std::string>>& rows) {
    const auto tell = [this, pid](const char* of, Row row, const json& args) {
        mMetadata.push_back(toText(
                {{"ph", "M"}, {"name", of}, {"pid", pid}, {"tid", int(row)}, {"args", args}}));
        mSize += sizeof(std::string) + mMetadata.back().size();
    };
    tell("process_sort_index", Row::kCalls, {{"sort_index", mProcesses++}});
    tell("process_name", Row::kCalls, {{"name", name}});
    tell("process_labels", Row::kCalls, {{"labels", what}});
    for (const auto& [row, text] : rows) tell("thread_name", row, {{"name", text}});
}

Trace::Event& Trace::push(char phase, const char* category, const std::string& name,
                          const Place& at, const json& args) {
    mEvents.push_back({phase, category, name, at, 0, 0, args.is_null() ? "" : toText(args)});
    mSize += sizeof(Event) + name.size() + mEvents.back().args.size();
    return mEvents.back();
}

void Trace::instant(const char* category, const std::string& name, const Place& at) {
    push('i', category, name, at);
}

void Trace::counter(const char* category, const std::string& name, const Place& at,
                    const json& values) {
    push('C', category, name, at, values);
}

void Trace::slice(const char* category, const std::string& name, const Place& at, int64_t lastsNs,
                  const json& args) {
    const std::pair row(at.pid, at.row);
    if (const auto last = mLastSlice.find(row); last != mLastSlice.end()) {
        Event& before = mEvents[last->second];
        before.lastsNs = std::min(before.lastsNs, at.ns - before.at.ns);
    }
    mLastSlice[row] = mEvents.size();
    push('X', category, name, at, args).lastsNs = lastsNs;
}

void Trace::begin(const char* category, const std::string& name, const Place& at,
                  const json& args) {
    Place after = at;
    const auto before = mStanding.find({at.pid, name});
    if (before != mStanding.end()) after.ns = std::max(at.ns, before->second.beginNs);
    end(name, after);
    push('b', category, name, after, args).id = ++mIds;
    mStanding[{at.pid, name}] = {category, mIds, after.ns};
}

void Trace::end(const std::string& name, const Place& at) {
    const auto standing = mStanding.find({at.pid, name});
    if (standing == mStanding.end()) return;
    const auto [category, id, beginNs] = standing->second;
    push('e', category, name, {at.pid, at.row, std::max(at.ns, beginNs)}).id = id;
    mStanding.erase(standing);
}

void Trace::endAll(const Place& at) {
    std::vector<std::string> names;
    for (const auto& [key, standing] : mStanding) {
        if (key.first == at.pid) names.push_back(key.second);
    }
    for (const std::string& name : names) end(name, at);
}

void Trace::flow(const Place& from, const Place& to) {
    ++mIds;
    push('s', "flow", "delivery", from).id = mIds;
    push('f', "flow", "delivery", to).id = mIds;
}

std::string Trace::toLine(const Event& event) const {
    json line{{"ph", std::string(1, event.phase)},
              {"cat", event.category},
              {"name", event.name},
              {"pid", event.at.pid},
              {"tid", int(event.at.row)},
              {"ts", microseconds(event.at.ns)}};
    if (event.phase == 'i') line["s"] = "p";
    if (event.phase == 'X') line["dur"] = double(event.lastsNs) / 1e3;
    if (event.phase == 'f') line["bp"] = "e";
    if (event.id != 0) line["id"] = event.id;
    std::string text = toText(line);
    if (!event.args.empty()) text.replace(text.size() - 1, 1, ",\"args\":" + event.args + "}");
    return text;
}

void Trace::write(std::ostream& out, const json& more) const {
    std::vector<const Event*> events;
    for (const Event& event : mEvents) events.push_back(&event);
    std::stable_sort(events.begin(), events.end(),
                     [](const Event* a, const Event* b) { return a->at.ns < b->at.ns; });
    out << "{\"displayTimeUnit\":\"ms\"";
    for (const auto& [name, value] : more.items()) {
        out << ",\n" << toText(name) << ':' << toText(value);
    }
    out << ",\n\"traceEvents\":[";
    const char* between = "\n";
    const auto add = [&](const std::string& line) {
        out << between << line;
        between = ",\n";
    };
    for (const std::string& line : mMetadata) add(line);
    for (const Event* event : events) add(toLine(*event));
    out << "\n]}\n";
}

}  // namespace trace
