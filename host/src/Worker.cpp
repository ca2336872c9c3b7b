#include "Worker.h"

#include <pthread.h>

#include <thread>

namespace android { namespace hardware { namespace host {

Worker::~Worker() {
    std::unique_lock<std::mutex> lock(mState->mutex);
    mState->ending = true;
    mState->changed.notify_all();
}

bool Worker::post(std::function<void()> task, size_t limit) {
    std::unique_lock<std::mutex> lock(mState->mutex);
    if (mState->tasks.size() >= limit) return false;
    mState->tasks.push_back(std::move(task));
    mState->changed.notify_all();
    if (!mState->started) {
        mState->started = true;
        std::thread(run, mState).detach();
    }
    return true;
}

void Worker::run(const std::shared_ptr<State>& state) {
    pthread_setname_np(pthread_self(), state->name);
    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        state->changed.wait(lock, [&] { return state->ending || !state->tasks.empty(); });
        if (state->tasks.empty()) return;
        std::function<void()> task = std::move(state->tasks.front());
        state->tasks.pop_front();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

}}}  // namespace android::hardware::host
