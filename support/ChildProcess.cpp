// SPDX-License-Identifier: Apache-2.0
#include <support/ChildProcess.h>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <utils/Timers.h>

extern char** environ;

namespace support {
namespace {

using android::base::unique_fd;

std::vector<LineSource*>& sources() {
    static std::vector<LineSource*> all;
    return all;
}

volatile sig_atomic_t gInterrupted = 0;

constexpr std::chrono::milliseconds kAskAgain{20};

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
    unique_fd read;
    unique_fd write;
};

Pipe makePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

}  // namespace

LineSource::~LineSource() {
    auto& all = sources();
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
}

void LineSource::adopt(unique_fd fd) {
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
    mFd = std::move(fd);
    sources().push_back(this);
}

void LineSource::deepen() {
    fcntl(mFd.get(), F_SETPIPE_SZ, 1024 * 1024);
}

std::string LineSource::text() const {
    std::string text;
    for (const Line& line : mLines) text += line.text + '\n';
    return text + mPartial;
}

void LineSource::readSome() {
    char buffer[16384];
    for (;;) {
        const ssize_t size = read(mFd.get(), buffer, sizeof(buffer));
        if (size < 0 && errno == EINTR) continue;
        if (size < 0 && errno == EAGAIN) return;
        if (size <= 0) {
            mFd.reset();
            return;
        }
        const int64_t now = systemTime(SYSTEM_TIME_MONOTONIC);
        mPartial.append(buffer, static_cast<size_t>(size));
        size_t begin = 0;
        for (size_t end; (end = mPartial.find('\n', begin)) != std::string::npos; begin = end + 1) {
            mLines.push_back({now, mPartial.substr(begin, end - begin)});
        }
        mPartial.erase(0, begin);
    }
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (done()) return true;
        if (gInterrupted) throw Interrupted();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        std::vector<pollfd> fds;
        std::vector<LineSource*> open;
        for (LineSource* source : sources()) {
            if (source->atEnd()) continue;
            fds.push_back({source->mFd.get(), POLLIN, 0});
            open.push_back(source);
        }
        const auto pause = std::min(left, kAskAgain);
        if (poll(fds.data(), fds.size(), static_cast<int>(pause.count()) + 1) < 0) continue;
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].revents) open[i]->readSome();
        }
    }
}

void require(const std::function<bool()>& done, const std::string& what,
             const std::function<std::string()>& describe) {
    if (!waitUntil(done)) {
        throw std::runtime_error(fmt::format("waited in vain for {}\n{}", what, describe()));
    }
}

void drainOutput() {
    for (LineSource* source : sources()) {
        if (!source->atEnd()) source->readSome();
    }
}

void throwOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { gInterrupted = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

Process::Process(const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment)
    : mCommand(fmt::format("{}", fmt::join(arguments, " "))) {
    // Everything that allocates happens before the fork.
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string name(*variable, strcspn(*variable, "="));
        if (environment.count(name) == 0) variables.emplace_back(*variable);
    }
    for (const auto& [name, value] : environment) {
        if (!value.empty()) variables.push_back(name + "=" + value);
    }
    auto pointers = [](const std::vector<std::string>& texts) {
        std::vector<char*> list;
        for (const std::string& text : texts) list.push_back(const_cast<char*>(text.c_str()));
        list.push_back(nullptr);
        return list;
    };
    const auto argv = pointers(arguments);
    const auto envp = pointers(variables);
    Pipe in = makePipe(), out = makePipe(), err = makePipe();
    const pid_t parent = getpid();

    mPid = fork();
    if (mPid < 0) fail("fork");
    if (mPid == 0) {
        // The child dies with its parent, also when that one is killed hard.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(in.read.get(), STDIN_FILENO);
        dup2(out.write.get(), STDOUT_FILENO);
        dup2(err.write.get(), STDERR_FILENO);
        execvpe(argv[0], argv.data(), envp.data());
        dprintf(STDERR_FILENO, "%s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    mIn = std::move(in.write);
    mOut.adopt(std::move(out.read));
    mErr.adopt(std::move(err.read));
}

Process::~Process() {
    closeInput();
    if (!hasEnded()) {
        kill(mPid, SIGKILL);
        int status = 0;
        while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) continue;
    }
}

void Process::write(const std::string& text) {
    // The child may have ended: that shows in what it did not answer, not as SIGPIPE here.
    struct sigaction ignore {
    }, before{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    for (size_t at = 0; at < text.size();) {
        const ssize_t size = ::write(mIn.get(), text.data() + at, text.size() - at);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) break;
        at += static_cast<size_t>(size);
    }
    sigaction(SIGPIPE, &before, nullptr);
}

void Process::closeInput() {
    mIn.reset();
}

void Process::signal(int number) {
    if (hasEnded()) return;
    kill(mPid, number);
    siginfo_t stopped;
    if (number == SIGSTOP) waitid(P_PID, mPid, &stopped, WSTOPPED | WEXITED | WNOWAIT);
}

bool Process::hasEnded() {
    if (mStatus >= 0) return true;
    int status = 0;
    if (waitpid(mPid, &status, WNOHANG) != mPid) return false;
    mStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return true;
}

int Process::waitExit(std::chrono::milliseconds limit) {
    unique_fd ended(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
    if (ended.get() < 0 && !hasEnded()) fail("pidfd_open");
    LineSource notice;  // readable, and so at its end, when the process ends
    if (ended.get() >= 0) notice.adopt(std::move(ended));
    if (!waitUntil([&] { return hasEnded() && mOut.atEnd() && mErr.atEnd(); }, limit)) {
        throw std::runtime_error("still running: " + describe());
    }
    return mStatus;
}

std::string Process::describe() {
    drainOutput();
    return fmt::format("[{}] {}{}\n--- output\n{}--- errors\n{}---", mPid, mCommand,
                       hasEnded() ? fmt::format(" (exit status {})", mStatus) : "", mOut.text(),
                       mErr.text());
}

}  // namespace support
