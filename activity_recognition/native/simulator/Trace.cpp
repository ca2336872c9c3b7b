// SPDX-License-Identifier: Apache-2.0
#include "Trace.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <utils/Timers.h>

namespace ar_simulator {
namespace {

void appendNumber(std::string* text, const char* key, int64_t value) {
    *text += std::string("\"") + key + "\":" + std::to_string(value);
}

// Bytes outside ASCII become the characters of the same number, so any bytes make valid JSON.
void appendName(std::string* text, const char* name) {
    *text += "\"name\":\"";
    const size_t length = strnlen(name, ACTIVITY_RECOGNITION_NAME_SIZE);
    for (size_t i = 0; i < length; ++i) {
        const unsigned byte = static_cast<unsigned char>(name[i]);
        if (byte == '"' || byte == '\\') {
            *text += '\\';
            *text += name[i];
        } else if (byte < 0x20 || byte > 0x7e) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", byte);
            *text += escape;
        } else {
            *text += name[i];
        }
    }
    *text += '"';
}

}  // namespace

TraceLine::TraceLine(const char* native) {
    mText = "{";
    appendNumber(&mText, "t", systemTime(SYSTEM_TIME_MONOTONIC));
    mText += std::string(",\"native\":\"") + native + "\"";
}

TraceLine& TraceLine::number(const char* key, int64_t value) {
    mText += ',';
    appendNumber(&mText, key, value);
    return *this;
}

TraceLine& TraceLine::params(const other_params* params) {
    if (params == nullptr) return *this;
    mText += ",\"params\":[";
    for (int i = 0; i < 4; ++i) {
        char number[32] = "null";
        const double value = params->params[i];
        if (isfinite(value)) snprintf(number, sizeof(number), "%.17g", value);
        mText += std::string(i == 0 ? "" : ",") + number;
    }
    mText += "],";
    appendName(&mText, params->name);
    return *this;
}

TraceLine& TraceLine::events(const ar_context_event* events, int count, bool withPayload) {
    number("count", count);
    mText += ",\"events\":[";
    for (int i = 0; i < count; ++i) {
        const ar_context_event& event = events[i];
        mText += i == 0 ? "{" : ",{";
        appendNumber(&mText, "event_type", event.event_type);
        mText += ',';
        appendNumber(&mText, "activity", event.activity);
        mText += ',';
        appendNumber(&mText, "timestamp", event.timestamp);
        mText += ',';
        appendNumber(&mText, "extra", event.extra);
        if (withPayload) {
            mText += ',';
            appendNumber(&mText, "value", event.value);
            char data[96];
            snprintf(data, sizeof(data),
                     ",\"context_data\":[%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 "],",
                     event.context_data[0], event.context_data[1], event.context_data[2],
                     event.context_data[3]);
            mText += data;
            appendName(&mText, event.name);
        }
        mText += '}';
    }
    mText += ']';
    return *this;
}

TraceLine& TraceLine::timestamps(const ar_context_event* events, int count) {
    mText += ",\"timestamps\":[";
    for (int i = 0; i < count; ++i) {
        mText += (i == 0 ? "" : ",") + std::to_string(events[i].timestamp);
    }
    mText += ']';
    return *this;
}

std::string TraceLine::finish() {
    return mText + "}\n";
}

int Trace::open(const char* path) {
    mFd.reset(::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    return mFd.get() >= 0 ? 0 : -errno;
}

void Trace::write(TraceLine& line) {
    if (!isOpen()) return;
    const std::string text = line.finish();
    // A trace that cannot be written (a full disk) must not stop the module.
    ssize_t ignored = TEMP_FAILURE_RETRY(::write(mFd.get(), text.data(), text.size()));
    (void)ignored;
}

}  // namespace ar_simulator
