// SPDX-License-Identifier: Apache-2.0
// Where log lines go on the host: stderr, as liblog writes them. A device's log never holds up or
// ends who writes to it, so neither does this one, whoever reads it.
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <android-base/errno_restorer.h>
#include <android-base/unique_fd.h>

namespace android { namespace hardware { namespace host { namespace {

// Lines that nobody took since the last one that somebody did.
std::atomic<uint64_t> gDropped{0};

// The signal of writing to a pipe that nobody reads is this thread's alone, and is taken back.
class ScopedNoSigpipe {
  public:
    ScopedNoSigpipe() {
        sigemptyset(&mPipe);
        sigaddset(&mPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &mPipe, &mBefore);
        if (!sigismember(&mBefore, SIGPIPE)) return;  // so none is pending
        sigset_t pending;
        sigpending(&pending);
        mWasPending = sigismember(&pending, SIGPIPE);
    }
    ~ScopedNoSigpipe() {
        const timespec now = {};
        while (mBroken && !mWasPending && sigtimedwait(&mPipe, nullptr, &now) < 0 &&
               errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }

    // What write() answered.
    ssize_t wrote(ssize_t size) {
        mBroken |= size < 0 && errno == EPIPE;
        return size;
    }

  private:
    sigset_t mPipe;
    sigset_t mBefore;
    bool mWasPending = false;
    bool mBroken = false;
};

// Writes the line whole; what it cannot write at once it does not, if fd does not wait.
// noSigpipe: NULL for what cannot break.
bool writeAll(int fd, const std::string& line, ScopedNoSigpipe* noSigpipe) {
    ssize_t size;
    do {
        size = write(fd, line.data(), line.size());
        if (noSigpipe != nullptr) noSigpipe->wrote(size);
    } while (size < 0 && errno == EINTR);
    return size == static_cast<ssize_t>(line.size());
}

// Never waits. False when the line was not taken.
bool put(const std::string& line) {
    struct stat info = {};
    if (fstat(STDERR_FILENO, &info) != 0) return false;
    if (S_ISSOCK(info.st_mode)) {
        return send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(line.size());
    }
    if (S_ISREG(info.st_mode)) return writeAll(STDERR_FILENO, line, nullptr);
    ScopedNoSigpipe noSigpipe;
    // O_NONBLOCK on stderr itself would be everybody's who has it. Linux 6.4 knows it for a single
    // write to a pipe.
    iovec whole = {const_cast<char*>(line.data()), line.size()};
    const ssize_t size =
            noSigpipe.wrote(pwritev2(STDERR_FILENO, &whole, 1, /*offset=*/-1, RWF_NOWAIT));
    if (size >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS)) {
        return size == static_cast<ssize_t>(line.size());
    }
    // Else it is opened anew for each line, so that the program may point stderr elsewhere, and its
    // reader sees the end when it closes it.
    base::unique_fd own(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own.get() >= 0) return writeAll(own.get(), line, &noSigpipe);
    // Another user's pipe, or no descriptor left: as good as it gets is to ask first.
    pollfd room = {STDERR_FILENO, POLLOUT, 0};
    return poll(&room, 1, 0) == 1 && room.revents == POLLOUT &&
           writeAll(STDERR_FILENO, line, &noSigpipe);
}

// liblog's own form.
std::string format(const __android_logger_data& data, const char* text) {
    static const char kPriorities[] = "??VDIWEF";
    const size_t priority = static_cast<size_t>(data.priority);
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    char when[32];
    strftime(when, sizeof(when), "%m-%d %H:%M:%S", &local);
    char start[256];
    snprintf(start, sizeof(start), "%s %c %s %5d %5d ",
             data.tag != nullptr ? data.tag : program_invocation_short_name,
             priority < sizeof(kPriorities) - 1 ? kPriorities[priority] : '?', when, getpid(),
             static_cast<int>(syscall(SYS_gettid)));
    std::string line = start;
    if (data.file != nullptr) {
        line += std::string(data.file) + ":" + std::to_string(data.line) + "] ";
    }
    line += text;
    // A pipe takes so much whole or not at all; a device's log cuts there too.
    if (line.size() >= PIPE_BUF) line.resize(PIPE_BUF - 1);
    return line + '\n';
}

void log(const __android_logger_data* data, const char* text) {
    const base::ErrnoRestorer restoreErrno;
    const uint64_t dropped = gDropped.exchange(0);
    if (dropped > 0) {
        const __android_logger_data about = {sizeof(about), 0,       ANDROID_LOG_WARN,
                                             "hidl",        nullptr, 0};
        const std::string told =
                "Nobody read the log: " + std::to_string(dropped) + " lines are missing here";
        if (!put(format(about, told.c_str()))) {
            gDropped += dropped + 1;
            return;
        }
    }
    if (!put(format(*data, text))) ++gDropped;
}

// A device's log holds debug lines; liblog on a host drops them unless it is told.
__attribute__((constructor)) void start() {
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    __android_log_set_logger(log);
}

}}}}  // namespace android::hardware::host
