// SPDX-License-Identifier: Apache-2.0
// The dump asked for by who means no good. That it is right is the demo's to show.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include "ProcessTest.h"

namespace {

using ::android::sp;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::vendor::zaltho::hardware::activity_recognition::V1_1::IActivityRecognition;

class Dump : public ProcessTest {
  protected:
    // Descriptors of the service that are no sockets of its own.
    size_t handles() {
        size_t found = 0;
        for (const auto& entry : std::filesystem::directory_iterator(
                     fmt::format("/proc/{}/fd", stage().service().pid()))) {
            std::error_code gone;
            const std::string target = std::filesystem::read_symlink(entry, gone).string();
            found += target.find("pipe:") == 0 || target.find("memfd") != target.npos ||
                     target == "/dev/full" || target == "/";
        }
        return found;
    }
};

TEST_F(Dump, ServesOnWhateverItIsAskedWith) {
    setenv("HIDL_HOST_DIR", stage().registry().c_str(), 1);
    const sp<IActivityRecognition> root = IActivityRecognition::tryGetService();
    ASSERT_NE(root, nullptr);
    const auto debug = [&root](int fd, const hidl_vec<hidl_string>& options = {}) {
        native_handle_t* const handle = native_handle_create(fd < 0 ? 0 : 1, 0);
        if (fd >= 0) handle->data[0] = fd;
        EXPECT_TRUE(root->debug(handle, options).isOk());
        native_handle_delete(handle);
    };
    const size_t before = handles();
    EXPECT_TRUE(root->debug(nullptr, {}).isOk());
    debug(-1);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    debug(ends[1]);  // nobody can read it any more
    close(ends[1]);
    const int full = memfd_create("full", MFD_ALLOW_SEALING);
    fcntl(full, F_ADD_SEALS, F_SEAL_GROW);
    for (const int fd : {full, ::open("/dev/full", O_WRONLY), ::open("/", O_RDONLY)}) {
        debug(fd);
        close(fd);
    }
    // Nobody reads, and there is more to say than a pipe takes; from all threads that there are.
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    std::vector<std::thread> askers;
    for (int i = 0; i < 8; ++i) askers.emplace_back([&] { debug(ends[1]); });
    debug(ends[1], std::vector<hidl_string>(1000, std::string(100, 'x')));
    run("watch walking:1 --for 0s");
    for (std::thread& asker : askers) asker.join();
    close(ends[0]);
    close(ends[1]);
    EXPECT_TRUE(run("dump")->output("dump").at(0).at("held").empty());
    support::require([&] { return handles() == before; }, "the handles' end",
                     [this] { return stage().service().describe(); });
}

}  // namespace
