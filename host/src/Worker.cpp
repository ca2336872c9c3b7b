#include "Worker.h"

#include <pthread.h>

#include <thread>

namespace android { namespace hardware { namespace host {

Worker::~Worker() {
    Mutex::Autolock lock(mState->mutex);
    mState->ending = true;
    mState->changed.notify_all();
}

bool Worker::post(std::function<void()> task, size_t limit) {
    Mutex::Autolock lock(mState->mutex);
    if (mState->tasks.size() >= limit) return false;
    mState->tasks.push_back(std::move(task));
    mState->changed.notify_all();
    if (!mState->started) {
        mState->started = true;
        std::thread(run, mState).detach();
    }
    return true;
}

std::function<void()> Worker::State::next() {
    Mutex::Autolock lock(mutex);
    while (!ending && tasks.empty()) changed.wait(mutex);
    if (tasks.empty()) return nullptr;
    std::function<void()> task = std::move(tasks.front());
    tasks.pop_front();
    return task;
}

void Worker::run(const std::shared_ptr<State>& state) {
    pthread_setname_np(pthread_self(), state->name);
    while (std::function<void()> task = state->next()) task();
}

}}}  // namespace android::hardware::host
