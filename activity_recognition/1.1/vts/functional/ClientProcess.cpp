#include "ClientProcess.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "Target.h"

ClientProcess::ClientProcess() {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) abort();
    // "" ends a command that is sent to a client which has died; the test sees no answer then.
    signal(SIGPIPE, SIG_IGN);
    const std::string program = gOptions.program, instance = gOptions.instance;
    mPid = fork();
    if (mPid == 0) {
        // Whatever ends the suite ends its clients.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        execlp(program.c_str(), program.c_str(), "--client", "--instance", instance.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    mIn = in[1];
    mOut = out[0];
}

ClientProcess::~ClientProcess() {
    killHard();
    close(mIn);
    close(mOut);
}

void ClientProcess::killHard() {
    if (mPid < 0) return;
    kill(mPid, SIGKILL);
    while (waitpid(mPid, nullptr, 0) < 0 && errno == EINTR) continue;
    mPid = -1;
}

void ClientProcess::send(const std::string& command) {
    const std::string line = command + "\n";
    EXPECT_EQ(static_cast<ssize_t>(line.size()), write(mIn, line.data(), line.size())) << command;
}

std::string ClientProcess::answer() {
    EXPECT_TRUE(waitUntil([this] { return !mAnswers.empty(); }, kAnswerTimeoutMs))
            << "a client process does not answer";
    if (mAnswers.empty()) return "";
    const std::string first = mAnswers.front();
    mAnswers.erase(mAnswers.begin());
    return first;
}

std::vector<ClientProcess::Event> ClientProcess::events(const std::string& method) const {
    std::vector<Event> all;
    for (const Call& call : mCalls) {
        if (call.method == method) all.insert(all.end(), call.events.begin(), call.events.end());
    }
    return all;
}

bool ClientProcess::waitUntil(const std::function<bool()>& done, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return done();
    }
    return true;
}

bool ClientProcess::waitForEvents(const std::string& method, size_t count, int timeoutMs) {
    return waitUntil([&] { return events(method).size() >= count; }, timeoutMs);
}

bool ClientProcess::readSome(int timeoutMs) {
    pollfd fd = {mOut, POLLIN, 0};
    if (poll(&fd, 1, timeoutMs) <= 0) return true;  // the caller looks at the clock
    char buffer[16384];
    const ssize_t size = read(mOut, buffer, sizeof(buffer));
    if (size <= 0) return false;
    mPartial.append(buffer, static_cast<size_t>(size));
    size_t begin = 0;
    for (size_t end; (end = mPartial.find('\n', begin)) != std::string::npos; begin = end + 1) {
        understand(mPartial.substr(begin, end - begin));
    }
    mPartial.erase(0, begin);
    return true;
}

void ClientProcess::understand(const std::string& line) {
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    if (kind == "=") {
        mAnswers.push_back(line.substr(2));
    } else if (kind == "call") {
        Call call;
        words >> call.method;
        mCalls.push_back(call);
    } else if (kind == "event" && !mCalls.empty()) {
        Event event;
        words >> event.eventType >> event.id >> event.timestamp >> event.extra >> event.value;
        mCalls.back().events.push_back(event);
    } else {
        ADD_FAILURE() << "a client process says '" << line << "'";
    }
}
