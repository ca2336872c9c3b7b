// SPDX-License-Identifier: Apache-2.0
// Serves the implementation library to other processes under the instance name "default".
#define LOG_TAG "AR_service"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <hidl/HidlTransportSupport.h>
#include <log/log.h>
#include <utils/Errors.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

using ::android::sp;
using ::vendor::zaltho::hardware::activity_recognition::V1_1::IActivityRecognition;

namespace {

constexpr char kInstance[] = "default";

constexpr char kHelp[] =
        "Serves %s/%s\nuntil it is ended. It takes no options but --help and --version; the log says how "
        "it goes.\n";

// While a delivery waits for a slow client, each registration waits with it and holds a thread;
// calls on the others go on.
constexpr size_t kThreads = 4;

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        if (strcmp(argv[1], "--help") == 0) {
            printf(kHelp, IActivityRecognition::descriptor, kInstance);
            return EXIT_SUCCESS;
        }
        if (strcmp(argv[1], "--version") == 0) {
            printf("vendor.zaltho.hardware.activity_recognition@1.1-service " AR_VERSION "\n");
            return EXIT_SUCCESS;
        }
        fprintf(stderr, "%s: there is no '%s' (--help explains)\n", argv[0], argv[1]);
        return 2;
    }
    ::android::hardware::configureRpcThreadpool(kThreads, /*callerWillJoin=*/true);

    const sp<IActivityRecognition> root =
            IActivityRecognition::getService(kInstance, /*getStub=*/true);
    if (root == nullptr) {
        ALOGE("No implementation of %s: library or native module missing, see above",
              IActivityRecognition::descriptor);
        return EXIT_FAILURE;
    }
    // The root object makes each side on its first request, without a lock: asked for here, before
    // anybody else can ask, first requests don't meet. A side that the module lacks is no error.
    if (!root->getActivityInterfaceV1_1().isOk() || !root->getEnvironmentInterfaceV1_1().isOk()) {
        ALOGE("The implementation of %s does not answer", IActivityRecognition::descriptor);
        return EXIT_FAILURE;
    }

    const ::android::status_t status = root->registerAsService(kInstance);
    if (status != ::android::OK) {
        ALOGE("Registration of %s/%s refused: %d", IActivityRecognition::descriptor, kInstance,
              status);
        return EXIT_FAILURE;
    }
    ALOGI("Serving %s/%s", IActivityRecognition::descriptor, kInstance);
    ::android::hardware::joinRpcThreadpool();
    ALOGE("The thread pool ended");
    return EXIT_FAILURE;
}
