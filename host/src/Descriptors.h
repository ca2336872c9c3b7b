// SPDX-License-Identifier: Apache-2.0
// The descriptors of a process that serves: how many connections it can hold, and one in reserve,
// so that whoever comes when there are none is told so.
#pragma once

#include <stddef.h>

#include <android-base/unique_fd.h>

namespace android { namespace hardware { namespace host {

class Descriptors {
  public:
    // For each process that has looked this one up: its control connection, and the one on which it
    // serves. Connections for calls come and go, and share what is left.
    static constexpr size_t kForSession = 2;

    // Raises the soft limit to the hard one, and counts what is open.
    void start();

    // Whether one more process can be taken, beside `sessions` others.
    bool haveRoomForSession(size_t sessions) const;
    // Whether the connections that there are leave room for `owed` that must be had.
    bool haveRoomBeside(size_t owed) const;
    // How many control connections one process may have, of which it needs one, and how many
    // others.
    size_t maxOfOne() const;
    // How many connections may be silent at a time.
    size_t maxStrangers() const;

    // Invalid when nobody is waiting. full: there was none left, so the connection uses the
    // reserve, and must be closed before restock().
    base::unique_fd accept(int listener, bool* full);
    void restock();

  private:
    // Of the connections' room, what sessions do not fill: for calls, for greeting.
    size_t shared() const;

    size_t mForConnections = 0;
    base::unique_fd mReserve;
};

}}}  // namespace android::hardware::host
