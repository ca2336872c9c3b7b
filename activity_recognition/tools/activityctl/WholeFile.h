// SPDX-License-Identifier: Apache-2.0
// A file that stands under its name only when all of it is written: who is killed on the way leaves
// what stood there before.
#pragma once

#include <functional>
#include <ostream>
#include <string>

namespace activityctl {

class WholeFile {
  public:
    // Failure(kOutput) when it could not be written; what stands there is left alone.
    explicit WholeFile(const std::string& path);

    // Once; Failure(kOutput).
    void write(const std::function<void(std::ostream&)>& content);

  private:
    [[noreturn]] void fail() const;
    // Makes it anew, so that nobody else's is written to.
    void makePart() const;

    const std::string mName;  // as it was given
    std::string mPath;        // what it leads to
    std::string mPart;        // beside it; empty for what can only be written to, such as a pipe
};

}  // namespace activityctl
