#include <android/log.h>

// A device's log holds debug lines; liblog on a host drops them unless it is told.
__attribute__((constructor)) static void keepDebugLines() {
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
}
