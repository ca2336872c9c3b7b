// The other side of the host runtime's tests: what the child process serves.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <hidl/hosttest/1.0/IListener.h>
#include <hidl/hosttest/1.0/IPeer.h>
#include <hwbinder/IPCThreadState.h>
#include <unistd.h>

namespace hosttest {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::hidl::hosttest::V1_0::IListener;
using ::hidl::hosttest::V1_0::IPeer;
using ::hidl::hosttest::V1_0::Outer;

struct Listener : IListener {
    explicit Listener(std::function<int32_t(int32_t)> function =
                              [](int32_t value) { return value + 1; })
        : answer(std::move(function)) {
        ++live;
    }
    ~Listener() override {
        std::unique_lock<std::mutex> lock(mutex);
        --live;
        changed.notify_all();
    }
    // False when not so many are left within half a minute.
    static bool waitForLive(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(30), [&] { return live == count; });
    }

    Return<int32_t> onValue(int32_t value) override { return answer(value); }
    Return<void> post(int32_t value) override {
        answer(value);
        return Void();
    }

    std::function<int32_t(int32_t)> answer;
    static inline std::atomic<int> live{0};
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
};

struct Peer : IPeer {
    Return<int32_t> add(int32_t a, int32_t b) override { return a + b; }
    Return<void> echo(const Outer& value, echo_cb _hidl_cb) override {
        _hidl_cb(value);
        return Void();
    }
    Return<void> blob(const hidl_vec<uint8_t>& bytes, blob_cb _hidl_cb) override {
        _hidl_cb(bytes);
        return Void();
    }
    Return<int32_t> callerPid() override {
        return ::android::hardware::IPCThreadState::self()->getCallingPid();
    }
    Return<int32_t> serverPid() override { return getpid(); }

    Return<void> keep(const sp<IListener>& listener) override {
        mKept = listener;
        return Void();
    }
    Return<int32_t> callKept(int32_t value) override { return ask(mKept, value); }
    Return<int32_t> callKeptFromThread(int32_t value) override {
        int32_t answer = 0;
        std::thread([&] { answer = ask(mKept, value); }).join();
        return answer;
    }
    Return<void> postKept(int32_t count) override {
        for (int32_t i = 0; mKept != nullptr && i < count; ++i) {
            if (!mKept->post(i).isOk()) break;
        }
        return Void();
    }
    Return<void> drop() override {
        mKept = nullptr;
        return Void();
    }
    Return<int32_t> callBack(const sp<IListener>& listener, int32_t value) override {
        return ask(listener, value);
    }
    Return<sp<IListener>> giveBack(const sp<IListener>& listener) override { return listener; }
    Return<sp<IListener>> make() override { return sp<IListener>(new Listener); }

    Return<void> note(int32_t value) override {
        std::unique_lock<std::mutex> lock(mMutex);
        mNotePid = ::android::hardware::IPCThreadState::self()->getCallingPid();
        mNotes.push_back(value);
        mChanged.notify_all();
        return Void();
    }
    Return<void> notes(uint32_t count, notes_cb _hidl_cb) override {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, std::chrono::seconds(count > 10000 ? 0 : 30),
                          [&] { return mNotes.size() >= count; });
        _hidl_cb(mNotes);
        return Void();
    }
    Return<int32_t> notePid() override { return mNotePid.load(); }
    Return<void> block() override {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return mReleased; });
        return Void();
    }
    Return<void> release() override {
        std::unique_lock<std::mutex> lock(mMutex);
        mReleased = true;
        mChanged.notify_all();
        return Void();
    }

  private:
    // A listener that cannot be asked answers -1.
    static int32_t ask(const sp<IListener>& listener, int32_t value) {
        if (listener == nullptr) return -2;
        Return<int32_t> answer = listener->onValue(value);
        return answer.isOk() ? static_cast<int32_t>(answer) : -1;
    }

    sp<IListener> mKept;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<int32_t> mNotes;
    std::atomic<int32_t> mNotePid{-1};
    bool mReleased = false;
};

}  // namespace hosttest
