// SPDX-License-Identifier: Apache-2.0
#include "Probe.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <system_error>

#include <android-base/unique_fd.h>
#include <fmt/format.h>

namespace modulecheck {
namespace {

using Clock = std::chrono::steady_clock;

// All guarded parameters of a child lie in one range: pairs of a data page and a guard page.
constexpr size_t kGuardedPairs = 32768;
char* sGuarded = nullptr;
size_t sPageSize = 0;
std::atomic<size_t> sUsedPairs{0};
int sReportFd = -1;
struct sigaction sOldAction;

// Signal-safe. Anything but a fault in guarded parameters is left to whoever was there before.
void onFault(int, siginfo_t* info, void*) {
    const char* at = static_cast<char*>(info->si_addr);
    if (at >= sGuarded && at < sGuarded + 2 * kGuardedPairs * sPageSize) {
        const bool guard = (static_cast<size_t>(at - sGuarded) / sPageSize) % 2 == 1;
        const char* line =
                guard ? "F\tparams.bounded\tread or wrote past the 32 bytes of name\n"
                      : "F\tparams.retained\tread or wrote parameters of a call that was over\n";
        ssize_t ignored = write(sReportFd, line, strlen(line));
        (void)ignored;
        _exit(0);
    }
    sigaction(SIGSEGV, &sOldAction, nullptr);
}

void prepareGuards(int reportFd) {
    sReportFd = reportFd;
    sPageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* range = mmap(nullptr, 2 * kGuardedPairs * sPageSize, PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (range == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    sGuarded = static_cast<char*>(range);
    struct sigaction action = {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &sOldAction);
}

// Field separators must not come from a module's texts.
std::string oneLine(std::string text) {
    for (char& c : text) {
        if (c == '\t' || c == '\n') c = ' ';
    }
    return text;
}

std::atomic<pid_t> sChild{0};

void onStop(int number) {
    if (const pid_t child = sChild; child > 0) {
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    signal(number, SIG_DFL);
    raise(number);
}

// What the user stops must not go on in a process that he does not see. An ignored signal stays so.
void setStopHandlers(void (*handler)(int)) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_IGN) signal(number, handler);
    }
}

// A group of its own, which whatever the module starts belongs to.
void becomeChild(pid_t parent) {
    setStopHandlers(SIG_DFL);
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
}

class Listener {
  public:
    Listener(Report* report, Seconds timeout)
        : mReport(*report), mTimeout(timeout), mDeadline(later({})) {}

    void take(const char* text, size_t size) {
        mText.append(text, size);
        for (size_t end; (end = mText.find('\n')) != std::string::npos; mText.erase(0, end + 1)) {
            const size_t first = mText.find('\t');
            const size_t second = mText.find('\t', first + 1);
            if (first > end || second > end) continue;
            const std::string rule = mText.substr(first + 1, second - first - 1);
            line(mText[0], rule, mText.substr(second + 1, end - second - 1));
        }
    }
    void fate(const std::string& what) {
        mReport.addFinding(mRule, fmt::format("{} during: {}", what, mDoing));
    }
    bool isDone() const { return mDone; }
    Clock::time_point deadline() const { return mDeadline; }

  private:
    void line(char kind, const std::string& rule, const std::string& text) {
        if (kind == 'F') mReport.addFinding(rule, text);
        if (kind == 'N') mReport.addNote(text);
        if (kind == 'E') mReport.addExercised(rule);
        if (kind == 'S') mRule = rule, mDoing = text, mDeadline = later({});
        if (kind == 'W') mDeadline = later(Seconds(strtod(text.c_str(), nullptr)));
        // A finding may end the child too: parameters that fault.
        if (kind == 'D' || (kind == 'F' && rule.compare(0, 7, "params.") == 0)) mDone = true;
    }

    Clock::time_point later(Seconds time) const {
        return Clock::now() + std::chrono::duration_cast<Clock::duration>(time + mTimeout);
    }

    Report& mReport;
    const Seconds mTimeout;
    Clock::time_point mDeadline;
    std::string mText;
    std::string mRule = "module.symbol";
    std::string mDoing = "start";
    bool mDone = false;
};

}  // namespace

void Probe::stage(const char* rule, const std::string& doing) {
    send('S', rule, doing);
}

void Probe::waits(Seconds time) {
    send('W', "", fmt::format("{}", time.count()));
}

void Probe::exercised(const char* rule) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mExercised.insert(rule).second) send('E', rule, "");
}

void Probe::send(char kind, const char* rule, const std::string& text) {
    const std::string line = fmt::format("{}\t{}\t{:.1500}\n", kind, rule, oneLine(text));
    // Below PIPE_BUF, so lines of several threads do not mix.
    ssize_t ignored = write(mFd, line.data(), line.size());
    (void)ignored;
}

void runInChild(const Check& check, const Options& options, Report* report) {
    android::base::unique_fd receiving, sending;
    if (!android::base::Pipe(&receiving, &sending)) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    setStopHandlers(onStop);
    // Not stopped before the handler knows the child.
    sigset_t all, before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        becomeChild(parent);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        receiving.reset();
        prepareGuards(sending.get());
        Probe probe(sending.get(), options);
        check(probe);
        ssize_t ignored = write(sending.get(), "D\t\t\n", 4);
        (void)ignored;
        _exit(0);
    }
    if (child > 0) setpgid(child, child);
    sChild = child;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    sending.reset();

    Listener listener(report, options.timeout);
    bool late = false;
    // Until the child is gone: its threads may have something to say to the end.
    while (true) {
        const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(listener.deadline() - Clock::now())
                        .count();
        pollfd fd = {receiving.get(), POLLIN, 0};
        if (left <= 0 || poll(&fd, 1, static_cast<int>(left)) == 0) {
            late = true;
            break;
        }
        char text[4096];
        const ssize_t size = read(receiving.get(), text, sizeof(text));
        if (size <= 0) break;
        listener.take(text, static_cast<size_t>(size));
    }
    if (late) kill(child, SIGKILL);
    // Not reaped before its group is gone: until then the number is nobody else's.
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) < 0 &&
           errno == EINTR) {
    }
    kill(-child, SIGKILL);
    sChild = 0;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (late && listener.isDone()) return;
    if (late) {
        listener.fate(fmt::format("hung for {:g} s or longer", options.timeout.count()));
    } else if (WIFSIGNALED(status)) {
        listener.fate(strsignal(WTERMSIG(status)));
    } else if (WEXITSTATUS(status) != 0 || !listener.isDone()) {
        listener.fate(fmt::format("the process exited with status {}", WEXITSTATUS(status)));
    }
}

bool isReadable(const void* start, size_t size) {
    static const int* const fds = [] {
        static int pair[2];
        if (pipe2(pair, O_NONBLOCK | O_CLOEXEC) != 0) pair[0] = pair[1] = -1;
        return pair;
    }();
    // Several threads share the pipe: what one wrote another may drain, which does no harm.
    const char* at = static_cast<const char*>(start);
    for (size_t done = 0; done < size;) {
        // Past the sanitizers, which would judge the pointer first.
        const long written =
                syscall(SYS_write, fds[1], at + done, std::min<size_t>(size - done, 4096));
        if (written < 0 && errno != EAGAIN && errno != EINTR) return false;
        if (written > 0) done += static_cast<size_t>(written);
        char drained[4096];
        ssize_t ignored = read(fds[0], drained, sizeof(drained));
        (void)ignored;
    }
    return true;
}

std::optional<std::string> readText(const char* start, size_t max) {
    std::string text;
    for (; text.size() < max; text += start[text.size()]) {
        if (!isReadable(start + text.size(), 1)) return std::nullopt;
        if (start[text.size()] == '\0') return text;
    }
    return std::nullopt;
}

GuardedParams::GuardedParams(Probe& probe, const double (&params)[4], const std::string& name) {
    const size_t index = sUsedPairs++;
    if (index >= kGuardedPairs) {
        probe.note("ran out of guarded pages");
        _exit(1);
    }
    char* page = sGuarded + 2 * sPageSize * index;
    mprotect(page, sPageSize, PROT_READ | PROT_WRITE);
    mParams = reinterpret_cast<other_params*>(page + sPageSize - sizeof(other_params));
    memcpy(mParams->params, params, sizeof(params));
    // A text of 32 bytes fills the field without a NUL, as the service passes it.
    memcpy(mParams->name, name.data(), std::min(name.size(), sizeof(mParams->name)));
}

GuardedParams::~GuardedParams() {
    char* page = reinterpret_cast<char*>(mParams) + sizeof(other_params) - sPageSize;
    mprotect(page, sPageSize, PROT_NONE);
    madvise(page, sPageSize, MADV_DONTNEED);
}

}  // namespace modulecheck
