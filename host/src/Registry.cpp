// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include "Registry.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include <android-base/errno_restorer.h>
#include <log/log.h>

namespace android { namespace hardware { namespace host {

namespace {

constexpr char kSocketPrefix[] = "process-";
constexpr int kBacklog = 128;

// A change takes no longer than a few system calls for each entry.
constexpr std::chrono::seconds kLockLimit{5};

std::string defaultPath() {
    const char* path = getenv("HIDL_HOST_DIR");
    if (path != nullptr && *path != '\0') return path;
    path = getenv("XDG_RUNTIME_DIR");
    if (path != nullptr && *path != '\0') return std::string(path) + "/hidl";
    return "/tmp/hidl-" + std::to_string(geteuid());
}

// The name of a link. Interfaces have no comma; an instance may hold anything.
std::string linkName(const std::string& interface, const std::string& instance) {
    std::string name = interface + ",";
    for (char c : instance) {
        if (c == '/' || c == '%' || c == '.') {
            char escaped[4];
            snprintf(escaped, sizeof(escaped), "%%%02x", static_cast<unsigned char>(c));
            name += escaped;
        } else {
            name += c;
        }
    }
    return name;
}

std::string serviceName(const std::string& link) {
    const size_t comma = link.find(',');
    std::string name = link.substr(0, comma) + "/";
    for (size_t i = comma + 1; i < link.size(); ++i) {
        if (link[i] == '%' && i + 2 < link.size()) {
            name += static_cast<char>(strtol(link.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            name += link[i];
        }
    }
    return name;
}

// Through the open folder, so that its path may be longer than a socket's address.
sockaddr_un addressOf(int dir, const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", dir, name.c_str());
    return address;
}

base::unique_fd makeSocket(int flags = 0) {
    return base::unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

// Of the folder itself: a file in it could be removed while somebody holds it.
class ScopedFolderLock {
  public:
    ScopedFolderLock(int folder, std::chrono::milliseconds limit) : mFolder(folder) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (!(mHeld = flock(mFolder, LOCK_EX | LOCK_NB) == 0)) {
            if (errno == EINTR) continue;
            if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~ScopedFolderLock() {
        if (mHeld) flock(mFolder, LOCK_UN);
    }
    ScopedFolderLock(const ScopedFolderLock&) = delete;
    ScopedFolderLock& operator=(const ScopedFolderLock&) = delete;
    bool held() const { return mHeld; }

  private:
    const int mFolder;
    bool mHeld = false;
};

bool alive(int folder, const std::string& socketName) {
    // Does not wait for room in the backlog of a process that is stopped.
    base::unique_fd fd = makeSocket(SOCK_NONBLOCK);
    const sockaddr_un address = addressOf(folder, socketName);
    const int result =
            ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    // Anything but a refusal, a full backlog say, is life.
    return result == 0 || (errno != ECONNREFUSED && errno != ENOENT);
}

std::string linkTarget(int folder, const std::string& link) {
    char target[256];
    const ssize_t length = readlinkat(folder, link.c_str(), target, sizeof(target));
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

bool makeLink(int folder, const std::string& link, const std::string& socketName) {
    return symlinkat(socketName.c_str(), folder, link.c_str()) == 0 || errno == EEXIST;
}

}  // namespace

Registry& Registry::self() {
    static auto* registry = new Registry(defaultPath());
    return *registry;
}

base::unique_fd Registry::open() {
    base::unique_fd folder(::open(mPath.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
    if (folder.get() < 0 && errno == ENOENT) {
        mkdir(mPath.c_str(), 0700);
        folder.reset(::open(mPath.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
    }
    struct stat info = {};
    if (folder.get() < 0 || fstat(folder.get(), &info) != 0) {
        const base::ErrnoRestorer restoreErrno;
        ALOGE("Cannot open the folder of services %s: %s", mPath.c_str(), strerror(errno));
        return base::unique_fd();
    }
    if (info.st_uid != geteuid() || (info.st_mode & 0077) != 0) {
        ALOGE("The folder of services %s must belong to this user and be closed to all others",
              mPath.c_str());
        errno = EACCES;
        return base::unique_fd();
    }
    return folder;
}

// Under the lock, since between bind() and listen() the socket looks dead.
base::unique_fd Registry::bindSocket(int folder, const std::string& socketName) {
    base::unique_fd fd = makeSocket(SOCK_NONBLOCK);
    const sockaddr_un address = addressOf(folder, socketName);
    if (fd.get() < 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        fchmodat(folder, socketName.c_str(), 0600, 0) != 0 || ::listen(fd.get(), kBacklog) != 0) {
        ALOGE("Cannot listen in %s: %s", mPath.c_str(), strerror(errno));
        return base::unique_fd();
    }
    return fd;
}

base::unique_fd Registry::listen(std::string* socketName) {
    uint64_t random = 0;
    if (getrandom(&random, sizeof(random), 0) != sizeof(random)) return base::unique_fd();
    char suffix[40];
    snprintf(suffix, sizeof(suffix), "%d-%016llx", getpid(),
             static_cast<unsigned long long>(random));
    *socketName = std::string(kSocketPrefix) + suffix;

    const base::unique_fd folder = open();
    if (folder.get() < 0) return base::unique_fd();
    const ScopedFolderLock lock(folder.get(), kLockLimit);
    if (!lock.held()) {
        ALOGE("Cannot lock the folder of services %s: %s", mPath.c_str(), strerror(errno));
        return base::unique_fd();
    }
    base::unique_fd fd = bindSocket(folder.get(), *socketName);
    Mutex::Autolock ownLock(mMutex);
    if (fd.get() >= 0) mSocketName = *socketName;
    return fd;
}

ConnectionPtr Registry::connect(const std::string& socketName, std::chrono::milliseconds limit) {
    const base::unique_fd folder = open();
    base::unique_fd fd = makeSocket();
    if (folder.get() < 0 || fd.get() < 0) return nullptr;
    limitSocket(fd.get(), SO_SNDTIMEO, limit);
    const sockaddr_un address = addressOf(folder.get(), socketName);
    while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        if (errno != EINTR) return nullptr;
    }
    limitSocket(fd.get(), SO_SNDTIMEO, {});
    return Connection::withPeer(std::move(fd));
}

status_t Registry::add(const std::vector<std::string>& interfaces, const std::string& instance) {
    std::vector<std::string> links;
    for (const std::string& interface : interfaces) links.push_back(linkName(interface, instance));
    const base::unique_fd folder = open();
    if (folder.get() < 0) return NAME_NOT_FOUND;
    const ScopedFolderLock lock(folder.get(), kLockLimit);
    if (!lock.held()) {
        ALOGE("Cannot lock the folder of services %s: %s", mPath.c_str(), strerror(errno));
        return TIMED_OUT;
    }
    removeDead(folder.get());
    Mutex::Autolock ownLock(mMutex);
    for (size_t i = 0; i < links.size(); ++i) {
        if (links[i].size() > NAME_MAX) {
            ALOGE("The instance name '%s' is too long", instance.c_str());
            return BAD_VALUE;
        }
        const std::string target = linkTarget(folder.get(), links[i]);
        if (target.empty() || target == mSocketName) continue;
        // A dead owner's link was removed above.
        ALOGE("%s/%s is served already, by %s", interfaces[i].c_str(), instance.c_str(),
              target.c_str());
        return ALREADY_EXISTS;
    }
    for (const std::string& link : links) {
        if (!makeLink(folder.get(), link, mSocketName)) {
            ALOGE("Cannot add %s to %s: %s", link.c_str(), mPath.c_str(), strerror(errno));
            return UNKNOWN_ERROR;
        }
    }
    mLinks.insert(links.begin(), links.end());
    return OK;
}

bool Registry::isComplete(int folder) {
    bool complete = faccessat(folder, mSocketName.c_str(), F_OK, 0) == 0;
    for (const std::string& link : mLinks) complete &= linkTarget(folder, link) == mSocketName;
    return complete;
}

bool Registry::putBack(base::unique_fd* listener) {
    const base::unique_fd folder = open();
    if (folder.get() < 0) return false;
    Mutex::Autolock ownLock(mMutex);
    if (isComplete(folder.get())) return true;
    const ScopedFolderLock lock(folder.get(), {});
    if (!lock.held()) return false;
    if (faccessat(folder.get(), mSocketName.c_str(), F_OK, 0) != 0) {
        *listener = bindSocket(folder.get(), mSocketName);
        if (listener->get() < 0) return false;
        ALOGW("The socket of this process was removed from %s: it is back", mPath.c_str());
    }
    for (auto link = mLinks.begin(); link != mLinks.end();) {
        const std::string target = linkTarget(folder.get(), *link);
        if (target == mSocketName) {
            ++link;
        } else if (target.empty()) {
            if (!makeLink(folder.get(), *link, mSocketName)) return false;
            ALOGW("%s was removed from %s: it is back", serviceName(*link).c_str(), mPath.c_str());
            ++link;
        } else {
            ALOGE("%s was removed from %s, and is served by another process now",
                  serviceName(*link).c_str(), mPath.c_str());
            link = mLinks.erase(link);
        }
    }
    return true;
}

std::string Registry::lookup(const std::string& interface, const std::string& instance) {
    const base::unique_fd folder = open();
    return folder.get() < 0 ? "" : linkTarget(folder.get(), linkName(interface, instance));
}

std::vector<std::string> Registry::entries() {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(mPath.c_str()), closedir);
    while (dir != nullptr) {
        const dirent* entry = readdir(dir.get());
        if (entry == nullptr) break;
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    return names;
}

void Registry::removeDead(int folder) {
    for (const std::string& name : entries()) {
        const bool isSocket = name.compare(0, strlen(kSocketPrefix), kSocketPrefix) == 0;
        if (!alive(folder, isSocket ? name : linkTarget(folder, name))) {
            unlinkat(folder, name.c_str(), 0);
        }
    }
}

std::vector<std::string> Registry::list() {
    std::vector<std::string> services;
    const base::unique_fd folder = open();
    if (folder.get() < 0) return services;
    for (const std::string& name : entries()) {
        if (name.find(',') != std::string::npos &&
            alive(folder.get(), linkTarget(folder.get(), name))) {
            services.push_back(serviceName(name));
        }
    }
    return services;
}

Registry::Watch::Watch() : mNotify(inotify_init1(IN_CLOEXEC)) {
    inotify_add_watch(mNotify.get(), self().mPath.c_str(), IN_CREATE | IN_MOVED_TO);
}

void Registry::Watch::wait() {
    pollfd event = {mNotify.get(), POLLIN, 0};
    poll(&event, 1, 1000 /* ms */);
}

bool Registry::watchRemovals(int notify) {
    return inotify_add_watch(notify, mPath.c_str(),
                             IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF) >= 0;
}

}}}  // namespace android::hardware::host
