// SPDX-License-Identifier: Apache-2.0
// A queue of oneway calls in passthrough mode, run in order by a thread of its own.
#pragma once

#include <stddef.h>

#include <functional>
#include <memory>

namespace android { namespace hardware {

namespace host {
class Worker;
}  // namespace host

namespace details {

class TaskRunner {
  public:
    using Task = std::function<void()>;

    TaskRunner();
    // Tasks that are queued still run.
    ~TaskRunner();

    // limit: most tasks that may wait.
    void start(size_t limit);
    // False when the queue is full, or not started.
    bool push(const Task& task);

  private:
    std::unique_ptr<host::Worker> mWorker;
    size_t mLimit = 0;
};

}  // namespace details
}}  // namespace android::hardware
