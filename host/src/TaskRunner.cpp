// SPDX-License-Identifier: Apache-2.0
#include <hidl/TaskRunner.h>

#include "Worker.h"

namespace android { namespace hardware { namespace details {

TaskRunner::TaskRunner() = default;
TaskRunner::~TaskRunner() = default;

void TaskRunner::start(size_t limit) {
    if (mWorker != nullptr) return;
    mWorker.reset(new host::Worker("hidl-passthru"));
    mLimit = limit;
}

bool TaskRunner::push(const Task& task) {
    return mWorker != nullptr && mWorker->post(task, mLimit);
}

}}}  // namespace android::hardware::details
