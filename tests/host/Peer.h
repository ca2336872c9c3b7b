// SPDX-License-Identifier: Apache-2.0
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
#include <sys/mman.h>
#include <unistd.h>

namespace hosttest {

using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::hidl::hosttest::V1_0::IListener;
using ::hidl::hosttest::V1_0::IPeer;
using ::hidl::hosttest::V1_0::Outer;

// A value that threads change and wait for.
template <typename T>
class Monitor {
  public:
    template <typename Change>
    void change(Change change) {
        std::lock_guard<std::mutex> lock(mMutex);
        change(mValue);
        mChanged.notify_all();
    }
    // False when the predicate does not come to hold within half a minute.
    template <typename Predicate>
    bool waitFor(Predicate predicate) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return predicate(mValue); });
    }
    T get() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mValue;
    }

  private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    T mValue{};
};

// A file in memory, to be handed in.
struct Handed {
    Handed() {
        native_handle_t* created = native_handle_create(1, 0);
        created->data[0] = memfd_create("handed", MFD_CLOEXEC);
        handle.setTo(created, true);
    }
    hidl_handle handle;
};

struct Listener : IListener {
    explicit Listener(std::function<int32_t(int32_t)> function =
                              [](int32_t value) { return value + 1; })
        : answer(std::move(function)) {
        live.change([](int& count) { ++count; });
    }
    ~Listener() override {
        live.change([](int& count) { --count; });
    }

    Return<int32_t> onValue(int32_t value) override { return answer(value); }
    Return<void> post(int32_t value) override {
        answer(value);
        return Void();
    }

    std::function<int32_t(int32_t)> answer;
    static inline Monitor<int> live;
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
        mKept.change([&](auto& kept) { kept = listener; });
        return Void();
    }
    Return<int32_t> callKept(int32_t value) override { return ask(mKept.get(), value); }
    Return<int32_t> callKeptFromThread(int32_t value) override {
        int32_t answer = 0;
        std::thread([&] { answer = ask(mKept.get(), value); }).join();
        return answer;
    }
    Return<void> postKept(int32_t count) override {
        const sp<IListener> kept = mKept.get();
        for (int32_t i = 0; kept != nullptr && i < count; ++i) {
            if (!kept->post(i).isOk()) break;
        }
        return Void();
    }
    Return<int32_t> callBack(const sp<IListener>& listener, int32_t value) override {
        return ask(listener, value);
    }
    Return<sp<IListener>> giveBack(const sp<IListener>& listener) override { return listener; }
    Return<sp<IListener>> make() override { return sp<IListener>(new Listener); }

    Return<void> note(int32_t value) override {
        mNotePid = ::android::hardware::IPCThreadState::self()->getCallingPid();
        mNotes.change([&](auto& notes) { notes.push_back(value); });
        return Void();
    }
    Return<void> notes(uint32_t count, notes_cb _hidl_cb) override {
        if (count <= 10000)
            mNotes.waitFor([&](const auto& notes) { return notes.size() >= count; });
        _hidl_cb(mNotes.get());
        return Void();
    }
    Return<int32_t> notePid() override { return mNotePid.load(); }
    Return<void> block() override {
        mReleased.waitFor([](bool released) { return released; });
        return Void();
    }
    Return<void> release() override {
        mReleased.change([](bool& released) { released = true; });
        return Void();
    }

    // Writes each option there.
    Return<void> debug(const hidl_handle& handle, const hidl_vec<hidl_string>& options) override {
        const int fd = handle != nullptr && handle->numFds > 0 ? handle->data[0] : -1;
        for (const std::string option : options) dprintf(fd, "%s", option.c_str());
        return Void();
    }
    Return<void> handOn(const hidl_handle& given, handOn_cb _hidl_cb) override {
        _hidl_cb(hidl_handle(given));  // gone before the reply leaves
        return Void();
    }

  private:
    // A listener that cannot be asked answers -1.
    static int32_t ask(const sp<IListener>& listener, int32_t value) {
        if (listener == nullptr) return -2;
        Return<int32_t> answer = listener->onValue(value);
        return answer.isOk() ? static_cast<int32_t>(answer) : -1;
    }

    Monitor<sp<IListener>> mKept;
    Monitor<std::vector<int32_t>> mNotes;
    std::atomic<int32_t> mNotePid{-1};
    Monitor<bool> mReleased;
};

}  // namespace hosttest
