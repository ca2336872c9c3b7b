// SPDX-License-Identifier: Apache-2.0
#include "Simulator.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include <android/log.h>

#define SIM_LOG(priority, ...) \
    __android_log_print(ANDROID_LOG_##priority, AR_SIMULATOR_LOG_TAG, __VA_ARGS__)

namespace ar_simulator {
namespace {

// Work that is done at a time, and the pause in which whoever waits for the mutex gets it.
constexpr int kRecordsAtATime = 4096;
constexpr int kReadsAtATime = 16;
constexpr int64_t kPauseNs = 100000;

// Whether this thread is inside a callback.
thread_local bool tCallsBack = false;

const char* nonEmptyEnv(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// Installed beside the module, so that whoever only installed it sees something happen.
std::string scenarioBesideTheModule() {
    Dl_info info = {};
    if (dladdr(&kPauseNs, &info) == 0) return "";
    const std::string module = info.dli_fname;
    const std::string path = module.substr(0, module.rfind('/') + 1) + "activity_recognition.scn";
    return access(path.c_str(), R_OK) == 0 ? path : "";
}

// Open for writing too, so that the reading end never sees the last writer go.
int openControl(const char* path, android::base::unique_fd* fd) {
    struct stat info = {};
    if (stat(path, &info) != 0) return -errno;
    if (!S_ISFIFO(info.st_mode)) return -ENXIO;
    fd->reset(::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    return fd->get() >= 0 ? 0 : -errno;
}

Side sideOf(Kind kind) {
    return kind == Kind::kEnvironment ? kEnvironment : kActivity;
}

const char* nounOf(Side side) {
    return side == kActivity ? "activity" : "environment";
}

}  // namespace

Simulator& Simulator::instance() {
    // Never destroyed: its thread may run until the process is gone.
    static Simulator* const simulator = new Simulator;
    return *simulator;
}

int Simulator::open() {
    android::Mutex::Autolock lock(mMutex);
    if (mState != State::kClosed) {
        SIM_LOG(ERROR, "the device is open already");
        return -EBUSY;
    }
    if (!configure()) {
        release();
        return -EINVAL;
    }
    mClock.start(mScenario.speed);
    mGrantedNs = 0;
    mPlayer = Player();
    mActivityCallbacks = nullptr;
    mEnvironmentCallbacks = nullptr;
    mState = State::kOpen;
    mThread = std::thread([this] { run(); });
    TraceLine line("open");
    return finish("open", line, 0);
}

// Leaves whatever it opened to release().
bool Simulator::configure() {
    std::string error;
    const char* path = nonEmptyEnv("AR_SIMULATOR_SCENARIO");
    const std::string beside = path == nullptr ? scenarioBesideTheModule() : "";
    if (!beside.empty()) path = beside.c_str();
    for (auto& list : mLists) list.clear();
    mScenario = Scenario::builtIn();
    if (path != nullptr && !readScenario(path, &mScenario, &error)) {
        SIM_LOG(ERROR, "%s", error.c_str());
        return false;
    }
    if (const char* speed = nonEmptyEnv("AR_SIMULATOR_SPEED")) {
        if (!parseSpeed(speed, &mScenario.speed)) {
            SIM_LOG(ERROR, "AR_SIMULATOR_SPEED: '%s' is not a factor of 0.001 to 10000, nor step",
                    speed);
            return false;
        }
    }
    if (const char* loop = nonEmptyEnv("AR_SIMULATOR_LOOP")) {
        if (strcmp(loop, "0") != 0 && strcmp(loop, "1") != 0) {
            SIM_LOG(ERROR, "AR_SIMULATOR_LOOP: '%s' is neither 0 nor 1", loop);
            return false;
        }
        mScenario.loops = *loop == '1';
    }
    error = checkLoop(mScenario);
    if (!error.empty()) {
        SIM_LOG(ERROR, "%s: %s", path, error.c_str());
        return false;
    }

    int result = 0;
    const char* control = nonEmptyEnv("AR_SIMULATOR_CONTROL");
    if (control != nullptr && (result = openControl(control, &mControlFd)) != 0) {
        SIM_LOG(ERROR, "AR_SIMULATOR_CONTROL: %s: %s", control,
                result == -ENXIO ? "not a FIFO" : strerror(-result));
        return false;
    }
    const auto wait = std::find_if(mScenario.steps.begin(), mScenario.steps.end(),
                                   [](const Step& step) { return step.kind == Kind::kWait; });
    if (control == nullptr && wait != mScenario.steps.end()) {
        SIM_LOG(ERROR, "%s: waits for '%s', but AR_SIMULATOR_CONTROL names no FIFO", path,
                wait->event.name);
        return false;
    }
    if (control == nullptr && mScenario.speed == kStep && mScenario.loops &&
        !mScenario.steps.empty()) {
        SIM_LOG(ERROR,
                "%s: loops in virtual time, but AR_SIMULATOR_CONTROL names no FIFO to grant it",
                path);
        return false;
    }
    const char* trace = nonEmptyEnv("AR_SIMULATOR_TRACE");
    if (trace != nullptr && (result = mTrace.open(trace)) != 0) {
        SIM_LOG(ERROR, "AR_SIMULATOR_TRACE: %s: %s", trace, strerror(-result));
        return false;
    }
    mWakeFd.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (mWakeFd.get() < 0) {
        SIM_LOG(ERROR, "eventfd: %s", strerror(errno));
        return false;
    }

    const std::vector<std::string>* const names[kSides] = {&mScenario.activities,
                                                           &mScenario.environments};
    for (int side = 0; side < kSides; ++side) {
        for (const std::string& name : *names[side]) {
            mLists[side].push_back(const_cast<char*>(name.c_str()));
        }
    }
    char speed[32] = "step";
    if (mScenario.speed != kStep) snprintf(speed, sizeof(speed), "%g", mScenario.speed);
    SIM_LOG(INFO, "%s: %zu records, speed %s, %s", path != nullptr ? path : "no scenario",
            mScenario.steps.size(), speed, mScenario.loops ? "looping" : "once");
    return true;
}

void Simulator::release() {
    mWakeFd.reset();
    mControlFd.reset();
    mTrace.close();
    mControlText.clear();
    mInitialised.clear();
    for (int side = 0; side < kSides; ++side) {
        mPairs[side].clear();
        mCurrent[side].clear();
        mOverlong[side].clear();
    }
    for (HoldBuffer& buffer : mBuffers) buffer = HoldBuffer();
    mDirect = Step();
    mInside.clear();
    mAnswers.clear();
}

int Simulator::close() {
    std::thread thread;
    {
        android::Mutex::Autolock lock(mMutex);
        if (mState != State::kOpen) return -EINVAL;
        if (tCallsBack) {
            SIM_LOG(ERROR, "close was called from inside a callback");
            return -EDEADLK;
        }
        TraceLine line("close");
        finish("close", line, 0);
        mState = State::kClosing;
        thread.swap(mThread);
        wake();
    }
    thread.join();
    android::Mutex::Autolock lock(mMutex);
    release();
    mState = State::kClosed;
    return 0;
}

// Calls.

int Simulator::finish(const char* native, TraceLine& line, int result) {
    if (mState != State::kOpen) return -ENODEV;
    if (result < 0) SIM_LOG(WARN, "%s refused: %s", native, strerror(-result));
    write(line.number("result", result));
    const auto inside = mInside.find(native);
    if (inside != mInside.end()) {
        const Step step = inside->second;
        mInside.erase(inside);
        handOver(step);
    }
    return result;
}

void Simulator::write(TraceLine& line) {
    if (mClock.isVirtual()) line.number("clock", mClock.nowNs());
    mTrace.write(line);
}

// What the scenario has this call answer: 0 for what it would have anyway.
int Simulator::takeAnswer(const char* native) {
    playNow();
    const auto found = mAnswers.find(native);
    if (found == mAnswers.end()) return 0;
    const int answer = found->second.answer;
    if (--found->second.calls == 0) mAnswers.erase(found);
    return answer;
}

bool Simulator::offers(Side side) {
    const char* native = side == kActivity ? "get_activity_interface" : "get_environment_interface";
    TraceLine line(native);
    android::Mutex::Autolock lock(mMutex);
    const bool lacks = side == kActivity ? mScenario.lacksActivity : mScenario.lacksEnvironment;
    finish(native, line, lacks ? -EOPNOTSUPP : 0);
    return !lacks;
}

void Simulator::registerActivityCallbacks(const activity_callbacks* callbacks) {
    android::Mutex::Autolock lock(mMutex);
    TraceLine line("register_activity_callbacks");
    if (finish("register_activity_callbacks", line, 0) != 0) return;
    mActivityCallbacks = callbacks;
    startPlaying();
}

void Simulator::registerEnvironmentCallbacks(const environment_callbacks* callbacks) {
    android::Mutex::Autolock lock(mMutex);
    TraceLine line("register_environment_callbacks");
    if (finish("register_environment_callbacks", line, 0) != 0) return;
    mEnvironmentCallbacks = callbacks;
    startPlaying();
}

void Simulator::startPlaying() {
    if (mPlayer.isStarted()) return;
    mPlayer.start(&mScenario, mClock.nowNs());
    wake();
}

int Simulator::supportedList(Side side, char*** list) {
    const char* native =
            side == kActivity ? "get_supported_activities_list" : "get_supported_environments_list";
    android::Mutex::Autolock lock(mMutex);
    TraceLine line(native);
    if (list == nullptr) return finish(native, line, -EINVAL);
    *list = mLists[side].data();
    return finish(native, line, static_cast<int>(mLists[side].size()));
}

int Simulator::current(Side side, ar_context_event** events) {
    // Other threads' queries must not change a snapshot that is still being read.
    static thread_local ar_context_event snapshots[kSides][ACTIVITY_RECOGNITION_MAX_CURRENT];
    const char* native = side == kActivity ? "get_current_activity" : "get_current_environment";
    android::Mutex::Autolock lock(mMutex);
    TraceLine line(native);
    if (events == nullptr) return finish(native, line, -EINVAL);
    const int answer = takeAnswer(native);
    std::vector<ar_context_event> snapshot = mCurrent[side];
    // Too many of them repeat those that there are.
    if (snapshot.empty() && answer > 0) snapshot.emplace_back();
    while (static_cast<int>(snapshot.size()) < answer) {
        snapshot.insert(snapshot.begin(), ar_context_event(snapshot.back()));
    }
    const int count = static_cast<int>(snapshot.size());
    line.timestamps(snapshot.data(), count);
    if (count <= ACTIVITY_RECOGNITION_MAX_CURRENT) {
        std::copy(snapshot.begin(), snapshot.end(), snapshots[side]);
        *events = snapshots[side];
    } else {
        std::vector<ar_context_event>& kept = mOverlong[side][std::this_thread::get_id()];
        kept.swap(snapshot);
        *events = kept.data();
    }
    return finish(native, line, answer < 0 ? answer : count);
}

int Simulator::checkPair(Side side, uint32_t what, uint32_t eventType) {
    if (what >= mLists[side].size()) return -EINVAL;
    return side == kActivity && (eventType < 1 || eventType > 2) ? -EINVAL : 0;
}

void Simulator::addPair(Side side, const PairKey& key, int64_t latencyNs, bool extended) {
    if (mState != State::kOpen) return;
    Pair& pair = mPairs[side][key];
    pair.latencyNs = latencyNs;
    pair.extended = pair.extended || extended;
    wake();
}

void Simulator::dropPair(Side side, const PairKey& key) {
    if (mState != State::kOpen) return;
    for (Kind kind : {Kind::kPlain, Kind::kExtended, Kind::kEnvironment}) {
        if (sideOf(kind) == side) mBuffers[static_cast<int>(kind)].drop(key);
    }
    mPairs[side].erase(key);
}

int Simulator::enable(Kind kind, uint32_t what, uint32_t eventType, int64_t latencyNs,
                      const other_params* params) {
    static const char* const natives[] = {"enable_activity_event", "enable_activity_event_extend",
                                          "enable_environment"};
    const char* native = natives[static_cast<int>(kind)];
    const Side side = sideOf(kind);
    android::Mutex::Autolock lock(mMutex);
    TraceLine line(native);
    line.number(nounOf(side), what).number("event_type", eventType);
    line.number("latency_ns", latencyNs).params(params);
    int result = takeAnswer(native);
    if (result == 0) result = checkPair(side, what, eventType);
    if (params == nullptr && kind != Kind::kPlain) result = -EINVAL;
    if (result == 0 && side == kEnvironment && mInitialised.count(what) == 0) result = -EPERM;
    if (result == 0) addPair(side, {what, eventType}, latencyNs, kind == Kind::kExtended);
    return finish(native, line, result);
}

int Simulator::disable(Side side, uint32_t what, uint32_t eventType) {
    const char* native = side == kActivity ? "disable_activity_event" : "disable_environment";
    android::Mutex::Autolock lock(mMutex);
    TraceLine line(native);
    line.number(nounOf(side), what).number("event_type", eventType);
    int result = takeAnswer(native);
    if (result == 0) result = checkPair(side, what, eventType);
    if (result == 0) dropPair(side, {what, eventType});
    return finish(native, line, result);
}

int Simulator::flush() {
    android::Mutex::Autolock lock(mMutex);
    TraceLine line("flush");
    const int result = takeAnswer("flush");
    if (result == 0 && mState == State::kOpen) {
        const int64_t nowNs = mClock.nowNs();
        play(nowNs);
        // What has happened may still have to be played. Otherwise more can happen in this moment
        // of virtual time, and is later than the flush.
        const int64_t untilNs = mPlayer.nextDueNs() <= nowNs ? nowNs : nowNs - 1;
        mBuffers[static_cast<int>(Kind::kPlain)].flush(untilNs);
        mBuffers[static_cast<int>(Kind::kExtended)].flush(untilNs);
        wake();
    }
    return finish("flush", line, result);
}

int Simulator::initEnvironment(uint32_t environment, const other_params* params) {
    android::Mutex::Autolock lock(mMutex);
    TraceLine line("init_environment");
    line.number("environment", environment).params(params);
    int result = takeAnswer("init_environment");
    if (result == 0) result = params == nullptr ? -EINVAL : checkPair(kEnvironment, environment, 0);
    if (result == 0 && mState == State::kOpen) mInitialised.insert(environment);
    return finish("init_environment", line, result);
}

int Simulator::exitEnvironment(uint32_t environment, const other_params* params) {
    android::Mutex::Autolock lock(mMutex);
    TraceLine line("exit_environment");
    line.number("environment", environment).params(params);
    int result = takeAnswer("exit_environment");
    if (result == 0) result = params == nullptr ? -EINVAL : checkPair(kEnvironment, environment, 0);
    if (result == 0) {
        mInitialised.erase(environment);
        const PairTable pairs = mPairs[kEnvironment];
        for (const auto& pair : pairs) {
            if (pair.first.first == environment) dropPair(kEnvironment, pair.first);
        }
    }
    return finish("exit_environment", line, result);
}

// The thread.

void Simulator::wake() {
    // Fails only when the counter is full, and then the thread is awake anyway.
    const uint64_t one = 1;
    ssize_t ignored = ::write(mWakeFd.get(), &one, sizeof(one));
    (void)ignored;
}

void Simulator::run() {
    mMutex.lock();
    int steps = 0;  // of virtual time, since others had their turn
    while (mState == State::kOpen) {
        readControl();
        while (!mClock.isVirtual() && obeyNext()) {
        }
        const int64_t nowNs = mClock.nowNs();
        play(nowNs);
        if (sendDue(nowNs)) continue;
        // Once nothing is due and nobody is called any more: each line of the control is obeyed at
        // the time that those before it have led to.
        const int64_t dueNs = nextDueNs();
        const bool goesOn = mClock.isVirtual() && mCalling == 0 && dueNs > nowNs &&
                            (advance(dueNs) || obeyNext());
        if (goesOn && ++steps < kRecordsAtATime) continue;
        steps = 0;

        // Nothing more is read while lines have to wait.
        pollfd fds[] = {{mWakeFd.get(), POLLIN, 0}, {hasLine() ? -1 : mControlFd.get(), POLLIN, 0}};
        const int64_t leftNs = std::max(goesOn ? 0 : mClock.untilNs(dueNs), kPauseNs);
        timespec timeout = {static_cast<time_t>(leftNs / kNsPerSecond),
                            static_cast<long>(leftNs % kNsPerSecond)};
        mMutex.unlock();
        ppoll(fds, 2, leftNs == INT64_MAX ? nullptr : &timeout, nullptr);
        uint64_t drained = 0;
        ssize_t ignored = ::read(fds[0].fd, &drained, sizeof(drained));
        (void)ignored;
        mMutex.lock();
    }
    mMutex.unlock();
}

bool Simulator::hasLine() const {
    return mControlText.find('\n') != std::string::npos;
}

// What is to be obeyed first is taken before there is more.
void Simulator::readControl() {
    char text[256];
    ssize_t length = 0;
    const int fd = mControlFd.get();
    if (fd < 0 || hasLine()) return;
    for (int i = 0; i < kReadsAtATime; ++i) {
        if ((length = ::read(fd, text, sizeof(text))) <= 0) break;
        mControlText.append(text, static_cast<size_t>(length));
    }
}

// False when there is no whole line.
bool Simulator::obeyNext() {
    const size_t end = mControlText.find('\n');
    if (end == std::string::npos) return false;
    const size_t start = mControlText.find_first_not_of(" \t");
    const size_t last = mControlText.find_last_not_of(" \t\r\n", end);
    if (start < end && last != std::string::npos) {
        obey(mControlText.substr(start, last + 1 - start));
    }
    mControlText.erase(0, end + 1);
    return true;
}

// One word goes past a wait, anything else is played now or lets virtual time pass.
void Simulator::obey(const std::string& line) {
    const size_t end = line.find_first_of(" \t");
    if (end == std::string::npos) {
        mPlayer.release(line);
        return;
    }
    std::string reason;
    if (line.substr(0, end) == "step") {
        int64_t ns = 0;
        reason = mClock.isVirtual() ? readGrant(line, &ns) : "the clock runs by itself";
        mGrantedNs = mClock.nowNs() + ns;
    } else {
        std::vector<Step> steps;
        reason = readLine(line, mScenario, &steps);
        if (reason.empty() && !mPlayer.add(steps, mClock.nowNs())) reason = "too many are to come";
    }
    if (!reason.empty()) {
        SIM_LOG(ERROR, "AR_SIMULATOR_CONTROL: '%s': %s", line.c_str(), reason.c_str());
    }
}

// Plays what is due; stops at a full buffer and at a batch of its own, which must be sent first,
// and when it is enough for now.
void Simulator::play(int64_t nowNs) {
    Step step = {};
    int left = kRecordsAtATime;
    while (left-- > 0 && mDirect.fault == nullptr &&
           std::none_of(mBuffers, mBuffers + kRecordKinds,
                        [](const HoldBuffer& buffer) { return buffer.isFull(); }) &&
           mPlayer.next(nowNs, &step)) {
        if (step.kind == Kind::kAnswer) {
            mAnswers[step.fault->slot] = *step.fault;
            continue;
        }
        const PairKey key = {step.event.activity, step.event.event_type};
        ar_context_event& event = step.event;
        if (step.fault != nullptr && step.fault->withoutType) event.event_type = 0;
        if (step.fault != nullptr && step.fault->unterminated) {
            std::replace(std::begin(event.name), std::end(event.name), '\0', '~');
        }
        const bool isBatch = step.fault != nullptr && step.fault->batch != kHeld;
        const Side side = sideOf(step.kind);
        std::vector<ar_context_event>& current = mCurrent[side];
        current.erase(std::remove_if(current.begin(), current.end(),
                                     [&](const ar_context_event& other) {
                                         return other.activity == event.activity;
                                     }),
                      current.end());
        current.push_back(event);
        if (current.size() > ACTIVITY_RECOGNITION_MAX_CURRENT) current.erase(current.begin());

        if (isBatch) {
            (step.fault->slot.empty() ? mDirect : mInside[step.fault->slot]) = step;
            continue;
        }
        const auto pair = mPairs[side].find(key);
        if (pair == mPairs[side].end()) continue;
        if (step.kind == Kind::kExtended && !pair->second.extended) continue;
        mBuffers[static_cast<int>(step.kind)].add(key, event);
    }
}

// What was due before a call is judged by what was enabled then.
void Simulator::playNow() {
    if (mState == State::kOpen) play(mClock.nowNs());
}

// Hands over one batch; false when nothing is due.
bool Simulator::sendDue(int64_t nowNs) {
    Kind kind = Kind::kPlain;
    int64_t firstNs = INT64_MAX;
    for (Kind candidate : {Kind::kPlain, Kind::kExtended, Kind::kEnvironment}) {
        const int64_t deadlineNs =
                mBuffers[static_cast<int>(candidate)].deadlineNs(mPairs[sideOf(candidate)]);
        if (deadlineNs < firstNs) {
            firstNs = deadlineNs;
            kind = candidate;
        }
    }
    if (firstNs <= nowNs && firstNs != INT64_MAX) {
        handOver(kind, mBuffers[static_cast<int>(kind)].take(mPairs[sideOf(kind)], nowNs),
                 /*threads=*/1);
    } else if (mDirect.fault != nullptr) {
        const Step step = mDirect;
        mDirect = Step();
        handOver(step);
    } else {
        return false;
    }
    return true;
}

// A batch of its own.
void Simulator::handOver(const Step& step) {
    std::vector<ar_context_event> events;
    events.reserve(step.fault->batch + 1);  // not NULL when there are none
    events.assign(step.fault->batch, step.event);
    handOver(step.kind, events, step.fault->threads);
}

// Without the lock, by this thread and as many others as make up threads.
void Simulator::handOver(Kind kind, const std::vector<ar_context_event>& events, int threads) {
    const int count = static_cast<int>(events.size());
    const activity_callbacks* activityCallbacks = mActivityCallbacks;
    const environment_callbacks* environmentCallbacks = mEnvironmentCallbacks;
    const bool heard = kind == Kind::kEnvironment ? environmentCallbacks != nullptr
                                                  : activityCallbacks != nullptr;
    if (!heard) return;
    for (int i = 0; mTrace.isOpen() && i < threads; ++i) {
        static const char* const natives[] = {"activity_changed", "activity_extend_changed",
                                              "environment_changed"};
        TraceLine line(natives[static_cast<int>(kind)]);
        write(line.events(events.data(), count, kind != Kind::kPlain));
    }
    std::vector<activity_event> plain;
    plain.reserve(events.capacity());
    if (kind == Kind::kPlain) {
        for (const ar_context_event& event : events) {
            plain.push_back({event.event_type, event.activity, event.timestamp, event.extra, {}});
        }
    }

    std::atomic<int> missing{threads};
    const auto call = [&] {
        const bool nested = tCallsBack;
        tCallsBack = true;
        // All at the same time.
        for (--missing; missing > 0;) std::this_thread::yield();
        switch (kind) {
            case Kind::kPlain:
                activityCallbacks->activity_changed(plain.data(), count);
                break;
            case Kind::kExtended:
                activityCallbacks->activity_extend_changed(events.data(), count);
                break;
            default:
                environmentCallbacks->environment_changed(events.data(), count);
                break;
        }
        tCallsBack = nested;
    };
    ++mCalling;
    mMutex.unlock();
    std::vector<std::thread> others;
    for (int i = 1; i < threads; ++i) others.emplace_back(call);
    call();
    for (std::thread& other : others) other.join();
    mMutex.lock();
    // Virtual time may wait for a callback on another thread.
    if (--mCalling == 0 && mClock.isVirtual()) wake();
}

// When a record is due to be played or handed over.
int64_t Simulator::nextDueNs() const {
    int64_t dueNs = mPlayer.nextDueNs();
    for (Kind kind : {Kind::kPlain, Kind::kExtended, Kind::kEnvironment}) {
        dueNs = std::min(dueNs, mBuffers[static_cast<int>(kind)].deadlineNs(mPairs[sideOf(kind)]));
    }
    return dueNs;
}

// Virtual time passes to what is due next: by itself, or as far as it was granted. False when it
// stands.
bool Simulator::advance(int64_t dueNs) {
    if (!mPlayer.stands() && mClock.moveTo(dueNs)) return true;
    return mClock.moveTo(std::min(dueNs, mGrantedNs));
}

}  // namespace ar_simulator
