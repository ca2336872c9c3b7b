// SPDX-License-Identifier: Apache-2.0
// A trace in JSON trace events (docs/schemas/trace.json) as a picture: lanes of processes below
// each other, time to the right in columns. A column is one moment: a batch with its deliveries, or
// what one client asked for with what the module was told for it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace activityctl {

struct Timeline {
    // From one column to another, without one to the end of the picture.
    struct Bar {
        std::string label;
        size_t from;
        std::optional<size_t> to;
    };
    struct Mark {
        size_t column;
        std::string label;
        std::string details;  // shown by a pointer that rests there
    };
    struct Row {
        std::string name;
        std::vector<Bar> bars;
        std::vector<Mark> marks;
    };
    struct Lane {
        std::string name;
        std::string what;
        bool module = false;
        std::optional<size_t> entered, ended;
        bool died = false;
        std::string end;  // how it ended
        std::vector<Row> rows;
    };

    std::vector<Lane> lanes;
    std::vector<double> columns;  // seconds since the start
    std::vector<double> clock;    // seconds of the module's clock at each column; empty: not told
    bool even = false;            // the columns' times mean nothing but their order
};

// Failure(kUsage) names the file and the place in it. even: the same story makes the same timeline,
// however long its steps took.
Timeline readTimeline(const std::string& path, bool even);

// One SVG document, complete in itself.
std::string drawTimeline(const Timeline& timeline);

}  // namespace activityctl
