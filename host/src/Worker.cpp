// SPDX-License-Identifier: Apache-2.0
#include "Worker.h"

#include "Thread.h"

namespace android { namespace hardware { namespace host {

Worker::~Worker() {
    Mutex::Autolock lock(mState->mutex);
    mState->ending = true;
    mState->changed.notify_all();
}

bool Worker::start(const std::shared_ptr<State>& state) {
    if (!state->started) state->started = startThread(state->name, [state] { run(state); });
    return state->started;
}

bool Worker::start() {
    Mutex::Autolock lock(mState->mutex);
    return start(mState);
}

bool Worker::post(std::function<void()> task, size_t limit) {
    Mutex::Autolock lock(mState->mutex);
    if (mState->tasks.size() >= limit || !start(mState)) return false;
    mState->tasks.push_back(std::move(task));
    mState->changed.notify_all();
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
    while (std::function<void()> task = state->next()) task();
}

}}}  // namespace android::hardware::host
