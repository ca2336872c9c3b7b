// SPDX-License-Identifier: Apache-2.0
#include "WholeFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include <android-base/unique_fd.h>

#include "Failure.h"

namespace activityctl {

WholeFile::WholeFile(const std::string& path) : mName(path), mPath(path) {
    char real[PATH_MAX];
    if (realpath(path.c_str(), real) != nullptr) mPath = real;
    struct stat state;
    const bool exists = stat(mPath.c_str(), &state) == 0;
    if (exists && S_ISDIR(state.st_mode)) {
        errno = EISDIR;
        fail();
    }
    if (exists && !S_ISREG(state.st_mode)) return;
    if (exists && access(mPath.c_str(), W_OK) != 0) fail();
    mPart = fmt::format("{}.part-{}", mPath, getpid());
    makePart();
    unlink(mPart.c_str());
}

void WholeFile::makePart() const {
    unlink(mPart.c_str());
    const ::android::base::unique_fd fd(
            open(mPart.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.get() < 0) fail();
    // As open as the one whose place it takes.
    struct stat before;
    if (stat(mPath.c_str(), &before) == 0) fchmod(fd.get(), before.st_mode & 07777);
}

void WholeFile::write(const std::function<void(std::ostream&)>& content) {
    if (!mPart.empty()) makePart();
    std::ofstream file(mPart.empty() ? mPath : mPart);
    content(file);
    file.close();
    if (file && (mPart.empty() || rename(mPart.c_str(), mPath.c_str()) == 0)) return;
    const int error = errno;
    if (!mPart.empty()) unlink(mPart.c_str());
    errno = error;
    fail();
}

void WholeFile::fail() const {
    throw Failure(kOutput, fmt::format("{} cannot be written: {}", mName, strerror(errno)));
}

}  // namespace activityctl
