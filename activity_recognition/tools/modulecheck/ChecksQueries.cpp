// SPDX-License-Identifier: Apache-2.0
#include <string.h>

#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Checks.h"
#include "Subject.h"

namespace modulecheck {
namespace {

constexpr int kMaxListSize = 1024;
constexpr size_t kMaxNameLength = 255;

struct QuerySlots {
    const char* listName;
    int (*list)(char*** list);
    const char* currentName;
    int (*current)(ar_context_event** events);
};

std::vector<std::string> readList(Probe& probe, const QuerySlots& slots, char*** list) {
    probe.stage("list.size", slots.listName);
    *list = nullptr;
    const int count = slots.list(list);
    probe.exercised("list.size");
    if (count < 1 || count > kMaxListSize ||
        !isReadable(*list, static_cast<size_t>(count) * sizeof(char*))) {
        probe.finding("list.size", fmt::format("{} returned {} with {} list", slots.listName, count,
                                               *list == nullptr ? "a NULL" : "a"));
        *list = nullptr;
        return {};
    }
    probe.exercised("list.names");
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        const auto name = readText((*list)[i], kMaxNameLength + 1);
        if (!name || name->empty()) {
            probe.finding("list.names", fmt::format("{} entry {} is {}", slots.listName, i,
                                                    name ? "empty" : "no readable text"));
        }
        names.push_back(name.value_or(""));
    }
    return names;
}

void checkList(Probe& probe, const QuerySlots& slots) {
    char** list = nullptr;
    const auto names = readList(probe, slots, &list);
    if (list == nullptr) return;
    char** again = nullptr;
    const auto namesAgain = readList(probe, slots, &again);
    probe.stage("list.stable", "reading the first list after a second query");
    probe.exercised("list.stable");
    for (size_t i = 0; i < names.size(); ++i) {
        if (!isReadable(list + i, sizeof(char*)) ||
            readText(list[i], kMaxNameLength + 1).value_or("") != names[i]) {
            probe.finding("list.stable", fmt::format("{} entry {} changed with a second query",
                                                     slots.listName, i));
        }
    }
    if (namesAgain != names) {
        probe.finding("list.stable", fmt::format("{} answered differently", slots.listName));
    }
}

void checkSnapshot(Probe& probe, const QuerySlots& slots) {
    probe.stage("snapshot.size", slots.currentName);
    ar_context_event* events = nullptr;
    const int count = slots.current(&events);
    probe.exercised("snapshot.size");
    if (count < 0 || count > ACTIVITY_RECOGNITION_MAX_CURRENT) {
        probe.finding("snapshot.size", fmt::format("{} returned {}", slots.currentName, count));
        return;
    }
    if (count == 0) return;
    const size_t size = static_cast<size_t>(count) * sizeof(*events);
    probe.exercised("snapshot.records");
    if (!isReadable(events, size)) {
        probe.finding("snapshot.records",
                      fmt::format("{} returned {} with {} array", slots.currentName, count,
                                  events == nullptr ? "a NULL" : "an unreadable"));
        return;
    }
    const std::vector<ar_context_event> copy(events, events + count);
    probe.exercised("snapshot.names");
    for (const ar_context_event& event : copy) {
        if (memchr(event.name, 0, sizeof(event.name)) == nullptr) {
            probe.finding("snapshot.names",
                          fmt::format("{} gave a record without a NUL in name", slots.currentName));
        }
    }

    probe.stage("snapshot.stable", slots.currentName);
    probe.exercised("snapshot.stable");
    std::thread other([&] {
        for (int i = 0; i < 100; ++i) {
            ar_context_event* others = nullptr;
            slots.current(&others);
        }
    });
    other.join();
    if (!isReadable(events, size) || memcmp(events, copy.data(), size) != 0) {
        probe.finding("snapshot.stable",
                      fmt::format("{}'s records changed in the hands of their reader",
                                  slots.currentName));
    }
}

}  // namespace

void checkQueries(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    std::vector<QuerySlots> sides;
    if (subject.activity != nullptr) {
        sides.push_back({"get_supported_activities_list",
                         subject.activity->get_supported_activities_list, "get_current_activity",
                         subject.activity->get_current_activity});
    }
    if (subject.environment != nullptr) {
        sides.push_back({"get_supported_environments_list",
                         subject.environment->get_supported_environments_list,
                         "get_current_environment", subject.environment->get_current_environment});
    }
    for (const QuerySlots& side : sides) {
        checkList(probe, side);
        checkSnapshot(probe, side);
    }
    // A module that has nothing current at first may have after events.
    probe.stage("call.results", "enabling everything");
    Calls{probe, subject}.enableAll(0);
    Recorder::instance().waitForBatch(0, probe.options.listen);
    for (const QuerySlots& side : sides) checkSnapshot(probe, side);
}

}  // namespace modulecheck
