// SPDX-License-Identifier: Apache-2.0
#include "ClientProcess.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "Target.h"

ClientProcess::ClientProcess(const std::vector<std::string>& commands) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
    const timeval deadline = {60, 0};  // longer than it waits for events
    setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    const std::string program = gOptions.program, instance = gOptions.instance;
    mPid = fork();
    if (mPid == 0) {
        // Whatever ends the suite ends its clients.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDIN_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        execlp(program.c_str(), program.c_str(), "--client", "--instance", instance.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ends[1]);
    mSocket = ends[0];
    for (const std::string& command : commands) EXPECT_EQ("0", ask(command)) << command;
}

ClientProcess::~ClientProcess() {
    kill(mPid, SIGKILL);
    while (waitpid(mPid, nullptr, 0) < 0 && errno == EINTR) continue;
    close(mSocket);
}

// To a client that has died it is sent in vain; the test sees no answer then.
void ClientProcess::send(const std::string& command) {
    const std::string line = command + "\n";
    ::send(mSocket, line.data(), line.size(), MSG_NOSIGNAL);
}

std::string ClientProcess::answer() {
    size_t end = 0;
    while ((end = mPartial.find('\n')) == std::string::npos) {
        char buffer[16384];
        const ssize_t size = read(mSocket, buffer, sizeof(buffer));
        if (size <= 0) {
            ADD_FAILURE() << "a client process does not answer";
            return "";
        }
        mPartial.append(buffer, static_cast<size_t>(size));
    }
    const std::string line = mPartial.substr(0, end);
    mPartial.erase(0, end + 1);
    EXPECT_EQ("= ", line.substr(0, 2)) << line;
    return line.substr(2);
}

std::vector<ClientProcess::Event> ClientProcess::events(const std::string& method, size_t atLeast) {
    std::istringstream words(ask("events " + method + " " + std::to_string(atLeast) + " " +
                                 std::to_string(eventTimeoutMs())));
    std::vector<Event> all;
    for (Event event; words >> event.eventType >> event.id >> event.timestamp;) {
        all.push_back(event);
    }
    return all;
}

bool ClientProcess::gets(const std::string& method, int64_t timestamp) {
    for (size_t count = 1;; ++count) {
        const std::vector<Event> all = events(method, count);
        if (all.size() < count) return false;
        if (all[count - 1].timestamp == timestamp) return true;
    }
}
