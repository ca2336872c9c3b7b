// SPDX-License-Identifier: Apache-2.0
#include "DumpWriter.h"

#include <inttypes.h>
#include <math.h>
#include <stdio.h>
#include <string.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

std::string Format(const char* format, double value) {
    char text[64];
    snprintf(text, sizeof(text), format, value);
    return text;
}

// How many bytes from here on are one character of UTF-8; 0: none.
size_t CharacterAt(const std::string& bytes, size_t at) {
    const auto byte = [&](size_t i) { return i < bytes.size() ? uint8_t(bytes[i]) : 0u; };
    const uint32_t first = byte(at);
    if (first < 0x80) return 1;
    const size_t length = first < 0xc2   ? 0
                          : first < 0xe0 ? 2
                          : first < 0xf0 ? 3
                          : first < 0xf5 ? 4
                                         : 0;
    uint32_t code = first & (0x7f >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xc0) != 0x80) return 0;
        code = code << 6 | (byte(at + i) & 0x3f);
    }
    const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xd800 && code < 0xe000;
    return tooLong || surrogate || code > 0x10ffff ? 0 : length;
}

// A JSON string. Bytes that are no UTF-8 stand as U+FFFD, control characters escaped.
std::string Quoted(const std::string& bytes) {
    std::string quoted = "\"";
    for (size_t at = 0; at < bytes.size();) {
        const size_t length = CharacterAt(bytes, at);
        const uint8_t first = bytes[at];
        if (length == 0) {
            quoted += "\xef\xbf\xbd";
        } else if (first < 0x20 || first == 0x7f) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", first);
            quoted += escape;
        } else {
            if (first == '"' || first == '\\') quoted += '\\';
            quoted.append(bytes, at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return quoted + '"';
}

// "2.5s": as many decimals as it takes.
std::string Seconds(int64_t ns) {
    const uint64_t size = ns < 0 ? 0 - uint64_t(ns) : ns;
    char text[48];
    snprintf(text, sizeof(text), "%s%" PRIu64 ".%09" PRIu64, ns < 0 ? "-" : "", size / 1000000000,
             size % 1000000000);
    std::string seconds = text;
    seconds.erase(seconds.find_last_not_of('0') + 1);
    if (seconds.back() == '.') seconds.pop_back();
    return seconds + "s";
}

}  // namespace

// What stands before a value or an opening bracket.
void DumpWriter::begin(const char* name) {
    if (mOpen.empty()) return;
    Open& in = mOpen.back();
    if (mJson) {
        if (!in.empty) mResult += ',';
        if (name != nullptr) mResult += Quoted(name) + ':';
    } else {
        if (in.kind == Kind::kSection || in.kind == Kind::kList) indent();
        if (in.kind == Kind::kRow && !in.empty) mResult += ' ';
        if (in.kind == Kind::kInRow && !in.empty) mResult += ',';
        if (name != nullptr) {
            const size_t length = strlen(name);
            const bool time = length > 3 && strcmp(name + length - 3, "_ns") == 0;
            mResult.append(name, time ? length - 3 : length);
        }
    }
    in.empty = false;
}

void DumpWriter::value(const char* name, const std::string& json, const std::string& text) {
    begin(name);
    mResult += mJson ? json : (name == nullptr ? "" : "=") + text;
    const Kind in = mOpen.back().kind;
    if (!mJson && (in == Kind::kSection || in == Kind::kList)) mResult += '\n';
}

void DumpWriter::open(const char* name, bool list) {
    begin(name);
    Kind kind = list ? Kind::kList : Kind::kSection;
    if (!mOpen.empty() && mOpen.back().kind == Kind::kList) kind = Kind::kRow;
    if (!mOpen.empty() && mOpen.back().kind >= Kind::kRow) kind = Kind::kInRow;
    if (mJson) mResult += list ? '[' : '{';
    if (!mJson && kind == Kind::kInRow) mResult += "=(";
    if (!mJson && kind < Kind::kRow && name != nullptr) mResult += ":\n";
    mOpen.push_back({kind, list, true});
}

void DumpWriter::openObject(const char* name) {
    open(name, false);
}

void DumpWriter::openList(const char* name) {
    open(name, true);
}

void DumpWriter::close() {
    const Open closed = mOpen.back();
    if (mJson) {
        mResult += closed.list ? ']' : '}';
    } else if (closed.kind == Kind::kList && closed.empty) {
        indent();
        mResult += "none\n";
    } else if (closed.kind == Kind::kRow) {
        mResult += '\n';
    } else if (closed.kind == Kind::kInRow) {
        mResult += ')';
    }
    mOpen.pop_back();
    if (mJson && mOpen.empty()) mResult += '\n';
}

void DumpWriter::number(const char* name, int64_t value) {
    this->value(name, std::to_string(value), std::to_string(value));
}

void DumpWriter::number(const char* name, uint64_t value) {
    this->value(name, std::to_string(value), std::to_string(value));
}

void DumpWriter::real(const char* name, double value) {
    const std::string text = Format("%.17g", value);
    this->value(name, isfinite(value) ? text : "null", Format("%g", value));
}

void DumpWriter::flag(const char* name, bool value) {
    this->value(name, value ? "true" : "false", value ? "yes" : "no");
}

void DumpWriter::text(const char* name, const char* text) {
    this->value(name, Quoted(text), text);
}

void DumpWriter::bytes(const char* name, const std::string& bytes) {
    this->value(name, Quoted(bytes), Quoted(bytes));
}

void DumpWriter::none(const char* name) {
    if (mJson || mOpen.back().kind < Kind::kRow) value(name, "null", "none");
}

void DumpWriter::unknown(const char* name) {
    value(name, "null", "unknown");
}

void DumpWriter::duration(const char* name, int64_t ns) {
    this->value(name, std::to_string(ns), Seconds(ns));
}

void DumpWriter::moment(const char* name, int64_t ns) {
    this->value(name, std::to_string(ns), Format("%.3fs ago", double(mNowNs - ns) / 1e9));
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
