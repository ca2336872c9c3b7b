// SPDX-License-Identifier: Apache-2.0
#include "HandleWriter.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "InFlight.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr int64_t kLimitNs = 2000000000;
constexpr int kMaxWaiting = 2;
std::atomic<int> gWaiting{0};

// Keeps from this thread, and from the process, the signal of a pipe that nobody reads. The library
// is a guest: how the process takes the signal otherwise is not its business.
class WithoutSigpipe {
  public:
    WithoutSigpipe() {
        sigemptyset(&mSignal);
        sigaddset(&mSignal, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        mPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &mSignal, &mBefore);
    }
    ~WithoutSigpipe() {
        const timespec now = {};
        while (!mPending && sigtimedwait(&mSignal, nullptr, &now) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }
    WithoutSigpipe(const WithoutSigpipe&) = delete;
    WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;

  private:
    sigset_t mSignal;
    sigset_t mBefore;
    bool mPending;  // one was before; it stays
};

// Waits until more can be written; false when the time is over.
bool AwaitRoom(int fd, int64_t endNs) {
    const int64_t leftMs = (endNs - NowNs()) / 1000000;
    if (leftMs <= 0) return false;
    bool room = false;
    if (++gWaiting <= kMaxWaiting) {
        pollfd end = {fd, POLLOUT, 0};
        room = poll(&end, 1, static_cast<int>(leftMs)) != 0;
    }
    --gWaiting;
    return room;
}

// write(step) makes one attempt that does not wait, and answers as write() does.
template <typename Write>
void WriteAll(int fd, size_t length, const Write& write) {
    const int64_t endNs = NowNs() + kLimitNs;
    while (length > 0) {
        const ssize_t written = write(length);
        if (written > 0) {
            length -= std::min(length, static_cast<size_t>(written));
        } else if (written == 0 || (errno != EINTR && (errno != EAGAIN || !AwaitRoom(fd, endNs)))) {
            return;
        }
    }
}

// By way of a pipe of our own: between two pipes splice() never waits when it is told not to, be
// the other one in blocking mode and filled by others meanwhile.
void WriteToPipe(int fd, const std::string& text) {
    int own[2];
    if (pipe2(own, O_CLOEXEC | O_NONBLOCK) != 0) return;
    size_t next = 0;
    size_t between = 0;
    WriteAll(fd, text.size(), [&](size_t) -> ssize_t {
        const ssize_t in = write(own[1], text.data() + next, text.size() - next);
        if (in > 0) {
            next += static_cast<size_t>(in);
            between += static_cast<size_t>(in);
        }
        const ssize_t out = splice(own[0], nullptr, fd, nullptr, between, SPLICE_F_NONBLOCK);
        if (out > 0) between -= static_cast<size_t>(out);
        return out;
    });
    close(own[0]);
    close(own[1]);
}

}  // namespace

void WriteToHandle(int fd, const std::string& text) {
    struct stat status;
    if (fstat(fd, &status) != 0) return;
    const WithoutSigpipe guard;
    const char* const end = text.data() + text.size();
    if (S_ISFIFO(status.st_mode)) {
        WriteToPipe(fd, text);
    } else if (S_ISSOCK(status.st_mode)) {
        WriteAll(fd, text.size(), [&](size_t left) {
            return send(fd, end - left, left, MSG_DONTWAIT | MSG_NOSIGNAL);
        });
    } else if (S_ISREG(status.st_mode)) {
        WriteAll(fd, text.size(), [&](size_t left) { return write(fd, end - left, left); });
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
