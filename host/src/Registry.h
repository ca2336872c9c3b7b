// Where services are found: a folder, with a socket for each process that serves and a symbolic
// link to it for each "interface/instance" that it serves. No daemon; what a dead process left
// behind is told from what lives by connecting to it.
#pragma once

#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <utils/Errors.h>

#include "Wire.h"

namespace android { namespace hardware { namespace host {

class Registry {
  public:
    // The folder of this process's environment: $HIDL_HOST_DIR, else one under $XDG_RUNTIME_DIR,
    // else one for this user under /tmp. Made when missing, mode 0700.
    static Registry& self();

    // Binds and listens on a new socket of this folder; its name there is set. Invalid on failure,
    // with a log line.
    base::unique_fd listen(std::string* socketName);

    // NULL, with errno, when nobody listens there; EACCES with a log line when it is another user.
    ConnectionPtr connect(const std::string& socketName);

    // Makes every one of these interfaces of an instance lead to the socket. ALREADY_EXISTS when a
    // live process serves one of them; nothing has changed then.
    status_t add(const std::vector<std::string>& interfaces, const std::string& instance,
                 const std::string& socketName);

    // The socket that serves this; empty when none does, or it is dead.
    std::string lookup(const std::string& interface, const std::string& instance);

    // "interface/instance" of every live service.
    std::vector<std::string> list();

    // Waits until something is added, or for a second.
    void waitForChange();

  private:
    explicit Registry(std::string path);

    bool usable();
    bool alive(const std::string& socketName);
    std::string linkTarget(const std::string& linkName);
    std::vector<std::string> entries();
    void removeDead();

    const std::string mPath;
    base::unique_fd mDir;
};

}}}  // namespace android::hardware::host
