// SPDX-License-Identifier: Apache-2.0
// Child processes whose output is read line by line, against deadlines. One thread only: whoever
// waits for one child reads the output of all of them meanwhile, so that none blocks on its pipe.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <android-base/unique_fd.h>

namespace support {

// Long enough for a sanitized build on a busy machine; nothing waits that long when all is well.
constexpr std::chrono::seconds kDeadline{30};

// Something that fills with lines: a pipe of a child, or a FIFO.
class LineSource {
  public:
    struct Line {
        int64_t ns;  // CLOCK_MONOTONIC when it was read
        std::string text;
    };

    LineSource() = default;
    ~LineSource();
    LineSource(const LineSource&) = delete;
    LineSource& operator=(const LineSource&) = delete;

    void adopt(android::base::unique_fd fd);
    const std::vector<Line>& lines() const { return mLines; }
    // What was read since the last time, for those whose children say more than they want to keep.
    std::vector<Line> take() { return std::exchange(mLines, {}); }
    // Room for a megabyte, where whoever writes does not wait for its reader.
    void deepen();
    // Everything read, for messages.
    std::string text() const;
    bool atEnd() const { return mFd.get() < 0; }

  private:
    friend bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
    friend void drainOutput();
    void readSome();

    android::base::unique_fd mFd;
    std::string mPartial;
    std::vector<Line> mLines;
};

// Reads all sources until done() or the limit; returns what done() says at the end. It is asked
// after each output, and now and then besides, as it may look at what tells nobody of its changes.
// Throws Interrupted once this process was told to end (see throwOnSignals()).
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = kDeadline);
// As above; throws std::runtime_error with what was waited for, and what describe() says.
void require(const std::function<bool()>& done, const std::string& what,
             const std::function<std::string()>& describe);
// Reads what is there already.
void drainOutput();

struct Interrupted : std::exception {
    const char* what() const noexcept override { return "interrupted"; }
};
// SIGINT and SIGTERM make waits throw from now on, so that destructors clean up.
void throwOnSignals();

// A running child. It is killed and reaped at the latest by the destructor, and by the kernel when
// this process ends in whatever way.
class Process {
  public:
    // environment: added to this process's own; an empty value removes the variable.
    Process(const std::vector<std::string>& arguments,
            const std::map<std::string, std::string>& environment);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return mPid; }
    LineSource& out() { return mOut; }
    LineSource& err() { return mErr; }

    void write(const std::string& text);
    void closeInput();
    // After SIGSTOP it has stopped when this returns: it goes on for a while.
    void signal(int number);

    // Waits for the end and all output. The exit status, or 128 plus the signal; throws
    // std::runtime_error past the deadline.
    int waitExit(std::chrono::milliseconds limit = kDeadline);
    bool hasEnded();

    // For messages: the command, how it ended if it did, and its output.
    std::string describe();

  private:
    std::string mCommand;
    pid_t mPid = -1;
    android::base::unique_fd mIn;
    int mStatus = -1;  // as waitExit() returns it
    LineSource mOut;
    LineSource mErr;
};

}  // namespace support
