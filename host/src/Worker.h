// SPDX-License-Identifier: Apache-2.0
// Runs tasks in order on a thread of its own, started by the first task.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>

#include <utils/Mutex.h>

namespace android { namespace hardware { namespace host {

class Worker {
  public:
    // name: of the thread; at most 15 characters.
    explicit Worker(const char* name) : mState(std::make_shared<State>(name)) {}
    // Does not wait: queued tasks still run, then the thread ends.
    ~Worker();

    // Makes the thread ahead of its first task. False when none can be made, which is logged.
    bool start();
    // False when `limit` tasks are waiting already, or no thread can be made.
    bool post(std::function<void()> task, size_t limit = SIZE_MAX);

  private:
    struct State {
        explicit State(const char* threadName) : name(threadName) {}
        // Waits for one; empty when there will be none any more.
        std::function<void()> next();

        const char* const name;
        Mutex mutex;
        std::condition_variable_any changed;
        std::deque<std::function<void()>> tasks GUARDED_BY(mutex);
        bool started GUARDED_BY(mutex) = false;
        bool ending GUARDED_BY(mutex) = false;
    };
    static bool start(const std::shared_ptr<State>& state) REQUIRES(state->mutex);
    static void run(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> mState;
};

}}}  // namespace android::hardware::host
