// SPDX-License-Identifier: Apache-2.0
#include "Descriptors.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>

#include "Wire.h"

namespace android { namespace hardware { namespace host {

namespace {

// For what the application and this runtime open later.
constexpr size_t kForOthers = 8;

constexpr size_t kMaxStrangers = 128;

size_t openDescriptors() {
    DIR* folder = opendir("/proc/self/fd");
    if (folder == nullptr) return 0;
    size_t count = 0;
    while (readdir(folder) != nullptr) ++count;
    closedir(folder);
    return count;  // with ".", ".." and the folder itself
}

}  // namespace

void Descriptors::start() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    const size_t others = openDescriptors() + kForOthers - Connection::count();
    const auto all = static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur, INT32_MAX));
    mForConnections = all > others ? all - others : 0;
    restock();
}

size_t Descriptors::shared() const {
    return std::clamp<size_t>(mForConnections / 8, 4, 2 * kMaxStrangers);
}

bool Descriptors::haveRoomForSession(size_t sessions) const {
    return kForSession * (sessions + 1) + shared() <= mForConnections;
}

bool Descriptors::haveRoomBeside(size_t owed) const {
    return Connection::count() + owed <= mForConnections;
}

size_t Descriptors::maxOfOne() const {
    return std::clamp<size_t>(mForConnections / 8, 4, 256);
}

size_t Descriptors::maxStrangers() const {
    return shared() / 2;
}

base::unique_fd Descriptors::accept(int listener, bool* full) {
    base::unique_fd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    *full = fd.get() < 0 && (errno == EMFILE || errno == ENFILE);
    if (*full) {
        mReserve.reset();
        fd.reset(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    }
    return fd;
}

void Descriptors::restock() {
    if (mReserve.get() < 0) mReserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}}}  // namespace android::hardware::host
