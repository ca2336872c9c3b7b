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

#include <log/log.h>

namespace android { namespace hardware { namespace host {

namespace {

constexpr char kLockName[] = ".lock";
constexpr char kSocketPrefix[] = "process-";
constexpr int kBacklog = 128;

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

base::unique_fd makeSocket() {
    return base::unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
}

class ScopedFileLock {
  public:
    explicit ScopedFileLock(int dir)
        : mFd(openat(dir, kLockName, O_CREAT | O_RDWR | O_CLOEXEC, 0600)) {
        while (mFd.get() >= 0 && flock(mFd.get(), LOCK_EX) != 0 && errno == EINTR) {
        }
    }

  private:
    base::unique_fd mFd;
};

}  // namespace

Registry& Registry::self() {
    static auto* registry = new Registry(defaultPath());
    return *registry;
}

Registry::Registry(std::string path) : mPath(std::move(path)) {
    if (mkdir(mPath.c_str(), 0700) != 0 && errno != EEXIST) {
        ALOGE("Cannot make the folder of services %s: %s", mPath.c_str(), strerror(errno));
        return;
    }
    base::unique_fd dir(open(mPath.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
    struct stat info = {};
    if (dir.get() < 0 || fstat(dir.get(), &info) != 0) {
        ALOGE("Cannot open the folder of services %s: %s", mPath.c_str(), strerror(errno));
        return;
    }
    if (info.st_uid != geteuid() || (info.st_mode & 0077) != 0) {
        ALOGE("The folder of services %s must belong to this user and be closed to all others",
              mPath.c_str());
        return;
    }
    mDir = std::move(dir);
}

bool Registry::usable() {
    if (mDir.get() >= 0) return true;
    errno = ENOENT;
    return false;
}

base::unique_fd Registry::listen(std::string* socketName) {
    base::unique_fd fd = makeSocket();
    uint64_t random = 0;
    if (!usable() || fd.get() < 0 || getrandom(&random, sizeof(random), 0) != sizeof(random)) {
        ALOGE("Cannot listen in %s: %s", mPath.c_str(), strerror(errno));
        return base::unique_fd();
    }
    char suffix[40];
    snprintf(suffix, sizeof(suffix), "%d-%016llx", getpid(),
             static_cast<unsigned long long>(random));
    *socketName = std::string(kSocketPrefix) + suffix;

    // Under the lock, since between bind() and listen() the socket looks dead.
    ScopedFileLock lock(mDir.get());
    const sockaddr_un address = addressOf(mDir.get(), *socketName);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        fchmodat(mDir.get(), socketName->c_str(), 0600, 0) != 0 ||
        ::listen(fd.get(), kBacklog) != 0) {
        ALOGE("Cannot listen in %s: %s", mPath.c_str(), strerror(errno));
        return base::unique_fd();
    }
    return fd;
}

ConnectionPtr Registry::connect(const std::string& socketName) {
    base::unique_fd fd = makeSocket();
    if (!usable() || fd.get() < 0) return nullptr;
    const sockaddr_un address = addressOf(mDir.get(), socketName);
    while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        if (errno != EINTR) return nullptr;
    }
    return Connection::withPeer(std::move(fd));
}

bool Registry::alive(const std::string& socketName) {
    base::unique_fd fd = makeSocket();
    const sockaddr_un address = addressOf(mDir.get(), socketName);
    const int result =
            ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    // Anything but a refusal, a full backlog say, is life.
    return result == 0 || (errno != ECONNREFUSED && errno != ENOENT);
}

std::string Registry::linkTarget(const std::string& link) {
    char target[256];
    const ssize_t length = readlinkat(mDir.get(), link.c_str(), target, sizeof(target));
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

status_t Registry::add(const std::vector<std::string>& interfaces, const std::string& instance,
                       const std::string& socketName) {
    if (!usable()) return NAME_NOT_FOUND;
    ScopedFileLock lock(mDir.get());
    removeDead();
    for (const std::string& interface : interfaces) {
        const std::string link = linkName(interface, instance);
        if (link.size() > NAME_MAX) {
            ALOGE("The instance name '%s' is too long", instance.c_str());
            return BAD_VALUE;
        }
        const std::string target = linkTarget(link);
        if (target.empty() || target == socketName) continue;
        // A dead owner's link was removed above.
        ALOGE("%s/%s is served already, by %s", interface.c_str(), instance.c_str(),
              target.c_str());
        return ALREADY_EXISTS;
    }
    for (const std::string& interface : interfaces) {
        const std::string link = linkName(interface, instance);
        if (symlinkat(socketName.c_str(), mDir.get(), link.c_str()) != 0 && errno != EEXIST) {
            ALOGE("Cannot add %s to %s: %s", link.c_str(), mPath.c_str(), strerror(errno));
            return UNKNOWN_ERROR;
        }
    }
    return OK;
}

std::string Registry::lookup(const std::string& interface, const std::string& instance) {
    if (!usable()) return "";
    return linkTarget(linkName(interface, instance));
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

void Registry::removeDead() {
    for (const std::string& name : entries()) {
        const bool isSocket = name.compare(0, strlen(kSocketPrefix), kSocketPrefix) == 0;
        if (!alive(isSocket ? name : linkTarget(name))) unlinkat(mDir.get(), name.c_str(), 0);
    }
}

std::vector<std::string> Registry::list() {
    std::vector<std::string> services;
    if (!usable()) return services;
    for (const std::string& name : entries()) {
        if (name.find(',') != std::string::npos && alive(linkTarget(name))) {
            services.push_back(serviceName(name));
        }
    }
    return services;
}

void Registry::waitForChange() {
    base::unique_fd notify(inotify_init1(IN_CLOEXEC));
    inotify_add_watch(notify.get(), mPath.c_str(), IN_CREATE);
    pollfd event = {notify.get(), POLLIN, 0};
    poll(&event, 1, 1000 /* ms */);
}

}}}  // namespace android::hardware::host
