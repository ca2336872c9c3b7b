// SPDX-License-Identifier: Apache-2.0
// Calls of the service have no bound. Who must go on makes them on a thread of their own, which is
// left behind when its call does not return.
#pragma once

#include <sys/eventfd.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <android-base/unique_fd.h>

namespace activityctl {

// call owns what it uses. Its result, or the exception that it ends with, is the future's.
template <typename Call>
auto inBackground(Call call) {
    std::packaged_task<decltype(call())()> task(std::move(call));
    auto result = task.get_future();
    std::thread(std::move(task)).detach();
    return result;
}

// As above, and an eventfd becomes readable when the call is over, however it ends. Who is told
// this early waits for the result for a moment.
template <typename Call>
auto inBackground(std::shared_ptr<::android::base::unique_fd> over, Call call) {
    return inBackground([over = std::move(over), call = std::move(call)]() mutable {
        using ::android::base::unique_fd;
        const std::unique_ptr<unique_fd, void (*)(unique_fd*)> tell(
                over.get(), [](unique_fd* fd) { eventfd_write(fd->get(), 1); });
        return call();
    });
}

// The result, or nothing when it took longer.
template <typename Call>
auto inTime(int64_t ns, Call call) {
    auto result = inBackground(std::move(call));
    return result.wait_for(std::chrono::nanoseconds(ns)) == std::future_status::ready
                   ? std::optional(result.get())
                   : std::nullopt;
}

}  // namespace activityctl
