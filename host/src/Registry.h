// SPDX-License-Identifier: Apache-2.0
// Where services are found: a folder, with a socket for each process that serves and a symbolic
// link to it for each "interface/instance" that it serves. No daemon; what a dead process left
// behind is told from what lives by connecting to it. Changes are made under a lock on the folder,
// which a stopped process may hold: whoever cannot get it in time changes nothing.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>

#include "Wire.h"

namespace android { namespace hardware { namespace host {

class Registry {
  public:
    // The folder of this process's environment: $HIDL_HOST_DIR, else one under $XDG_RUNTIME_DIR,
    // else one for this user under /tmp. Made when missing, mode 0700.
    static Registry& self();

    // Binds and listens on a new socket of this folder, from now on this process's; its name there
    // is set. Invalid on failure, with a log line.
    base::unique_fd listen(std::string* socketName) EXCLUDES(mMutex);

    // NULL, with errno, when nobody listens there or takes the connection within `limit`; EACCES
    // with a log line when it is another user.
    ConnectionPtr connect(const std::string& socketName, std::chrono::milliseconds limit);

    // Makes every one of these interfaces of an instance lead to this process's socket.
    // ALREADY_EXISTS when a live process serves one of them; nothing has changed then.
    status_t add(const std::vector<std::string>& interfaces, const std::string& instance)
            EXCLUDES(mMutex);

    // The socket that serves this; empty when none does.
    std::string lookup(const std::string& interface, const std::string& instance);

    // "interface/instance" of every live service.
    std::vector<std::string> list();

    // Sees what is added after it was made.
    class Watch {
      public:
        Watch();
        // Until something was added, or for a second.
        void wait();

      private:
        base::unique_fd mNotify;
    };

    // Lets this inotify descriptor tell of removals from the folder as it is now.
    bool watchRemovals(int notify);
    // Puts back what was removed of this process's socket and links, without waiting; `listener` is
    // set when the socket is a new one. False when it must be tried again.
    bool putBack(base::unique_fd* listener) EXCLUDES(mMutex);

  private:
    explicit Registry(std::string path) : mPath(std::move(path)) {}

    // Opened for each use, since it may have been removed and made anew. Invalid, with errno and a
    // log line, when it is missing and cannot be made, or is not this user's alone.
    base::unique_fd open();
    base::unique_fd bindSocket(int folder, const std::string& socketName);
    bool isComplete(int folder) REQUIRES(mMutex);
    void removeDead(int folder);
    std::vector<std::string> entries();

    const std::string mPath;

    // What is this process's. Not held while another process is waited for.
    Mutex mMutex;
    std::string mSocketName GUARDED_BY(mMutex);
    std::set<std::string> mLinks GUARDED_BY(mMutex);
};

}}}  // namespace android::hardware::host
