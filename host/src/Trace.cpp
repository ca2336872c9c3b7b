// SPDX-License-Identifier: Apache-2.0
// The tracer of cutils/trace.h, whose functions do nothing in Debian's libcutils. Each process that
// is told a file appends to it what would stand in the kernel's buffer on a device, in the text
// form that trace viewers open, with all tags on.
//
// Whoever is linked with this library before that one calls these functions; start() looks. They
// take no lock and ask for process and thread each time, so they work after a fork as well.
#define LOG_TAG "hidl"

#include <cutils/trace.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include <android-base/errno_restorer.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

extern "C" void atrace_begin_body(const char* name);

namespace android { namespace hardware { namespace host { namespace {

// So long a device's tracer makes a message, and cuts what is longer.
constexpr size_t kMaxMessage = 1024;

const char* gPath = nullptr;  // stays
// Open as long as the process lives, since any thread may be writing. -1: nothing is written.
std::atomic<int> gFile{-1};
std::atomic<uint64_t> gTags{0};

// A line of the file, at the time and on the thread of its making.
class Line {
  public:
    // what: the letter that the kernel's buffer has for it.
    explicit Line(char what) {
        char thread[16] = "";
        prctl(PR_GET_NAME, thread);
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int pid = getpid();
        addText(*thread != '\0' ? thread : "<...>", sizeof(thread));
        add("-%d (%d) [000] ...1 %" PRId64 ".%06ld: tracing_mark_write: %c|%d",
            static_cast<int>(syscall(SYS_gettid)), pid, int64_t{now.tv_sec}, now.tv_nsec / 1000,
            what, pid);
    }

    Line& name(const char* name) {
        add("|");
        addText(name, kMaxMessage - 40);  // what it stands between is no longer
        return *this;
    }
    Line& value(int64_t value) {
        add("|%" PRId64, value);
        return *this;
    }

    // In one call, so that lines of several threads and processes don't mix.
    void write() {
        const base::ErrnoRestorer restoreErrno;
        const int file = gFile;
        if (file < 0) return;
        mText[mSize++] = '\n';
        const ssize_t size = TEMP_FAILURE_RETRY(::write(file, mText, mSize));
        if (size == static_cast<ssize_t>(mSize) || gFile.exchange(-1) < 0) return;
        gTags = 0;
        ALOGE("Cannot write the trace %s: %s. This process traces no more", gPath,
              size < 0 ? strerror(errno) : "no room");
    }

  private:
    __attribute__((format(printf, 2, 3))) void add(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        mSize += vsnprintf(mText + mSize, sizeof(mText) - mSize, format, arguments);
        va_end(arguments);
    }
    // Without what would end the field or the line.
    void addText(const char* text, int limit) {
        char* const begin = mText + mSize;
        add("%.*s", limit, text);
        std::replace_if(
                begin, mText + mSize, [](unsigned char c) { return c < ' ' || c == '|'; }, ' ');
    }

    char mText[kMaxMessage + 128];  // has room for all of it
    size_t mSize = 0;
};

// NULL, or why not.
const char* openTrace(base::unique_fd* file) {
    // O_NONBLOCK: not even a FIFO holds anybody up.
    file->reset(
            open(gPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
    struct stat info = {};
    if (file->get() < 0 || fstat(file->get(), &info) != 0) return strerror(errno);
    if (!S_ISREG(info.st_mode)) return "it is no regular file";
    // A line beyond the limit would end the process.
    rlimit limit = {};
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        return "the sizes of this process's files are limited";
    }
    // Viewers know the form by its first line. Whoever finds the file empty writes it before
    // anything else; when two do at once, the second one is a comment.
    static const char kHeader[] = "# tracer: nop\n";
    constexpr ssize_t kSize = sizeof(kHeader) - 1;
    if (info.st_size == 0 && write(file->get(), kHeader, kSize) != kSize) return strerror(errno);
    return nullptr;
}

__attribute__((constructor)) void start() {
    const char* path = getenv("HIDL_HOST_TRACE");
    if (path == nullptr || *path == '\0') return;
    gPath = strdup(path);
    if (dlsym(RTLD_DEFAULT, "atrace_begin_body") != reinterpret_cast<void*>(atrace_begin_body)) {
        ALOGE("Cannot write the trace %s: %s is linked with libcutils before libhidl", gPath,
              program_invocation_short_name);
        return;
    }
    base::unique_fd file;
    if (const char* error = openTrace(&file)) {
        ALOGE("Cannot open the trace %s: %s", gPath, error);
        return;
    }
    gFile = file.release();
    atrace_set_tracing_enabled(true);
}

}}}}  // namespace android::hardware::host

using namespace android::hardware::host;

extern "C" {

uint64_t atrace_get_enabled_tags() {
    return gTags.load(std::memory_order_relaxed);
}

void atrace_set_tracing_enabled(bool enabled) {
    gTags = enabled && gFile >= 0 ? ATRACE_TAG_VALID_MASK : 0;
}

// All was done when the library was loaded, and there is no property that may change.
void atrace_init() {}
void atrace_setup() {}
void atrace_update_tags() {}
void atrace_set_debuggable(bool) {}

void atrace_begin_body(const char* name) {
    Line('B').name(name).write();
}

void atrace_end_body() {
    Line('E').write();
}

void atrace_async_begin_body(const char* name, int32_t cookie) {
    Line('S').name(name).value(cookie).write();
}

void atrace_async_end_body(const char* name, int32_t cookie) {
    Line('F').name(name).value(cookie).write();
}

void atrace_int_body(const char* name, int32_t value) {
    Line('C').name(name).value(value).write();
}

void atrace_int64_body(const char* name, int64_t value) {
    Line('C').name(name).value(value).write();
}

}  // extern "C"
