// SPDX-License-Identifier: Apache-2.0
// Writes the dump: as one JSON object, or with the same names as text, one row of a list a line.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// A name that ends in "_ns" is a time in nanoseconds, which text shows in seconds and without that
// ending. Names are NULL for what stands in a list.
class DumpWriter {
  public:
    DumpWriter(bool json, int64_t nowNs) : mJson(json), mNowNs(nowNs) {}

    // Everything up to the matching close() stands in it.
    void openObject(const char* name);
    void openList(const char* name);
    void close();

    void number(const char* name, int64_t value);
    void number(const char* name, uint64_t value);
    void number(const char* name, uint32_t value) { number(name, uint64_t{value}); }
    void number(const char* name, int32_t value) { number(name, int64_t{value}); }
    void real(const char* name, double value);  // JSON has null for what is not finite
    void flag(const char* name, bool value);
    // text: of ours; bytes: of anybody's.
    void text(const char* name, const char* text);
    void bytes(const char* name, const std::string& bytes);
    // There is none; the rows of text leave it out.
    void none(const char* name);
    // Nobody can tell now.
    void unknown(const char* name);
    void duration(const char* name, int64_t ns);
    // CLOCK_MONOTONIC; text shows how long ago.
    void moment(const char* name, int64_t ns);

    const std::string& result() const { return mResult; }

  private:
    enum class Kind { kSection, kList, kRow, kInRow };
    struct Open {
        Kind kind;
        bool list;
        bool empty;
    };

    void begin(const char* name);
    void value(const char* name, const std::string& json, const std::string& text);
    void open(const char* name, bool list);
    void indent() { mResult.append(2 * (mOpen.size() - 1), ' '); }

    const bool mJson;
    const int64_t mNowNs;
    std::string mResult;
    std::vector<Open> mOpen;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
