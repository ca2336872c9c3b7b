// SPDX-License-Identifier: Apache-2.0
// Which calls out of the library run this moment: clients' callbacks and the module's slots. Kept
// without a lock, since it matters most while such a call hangs with a lock held.
#pragma once

#include <stdint.h>
#include <time.h>

#include <atomic>
#include <vector>

#include "Trace.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// CLOCK_MONOTONIC, nanoseconds.
inline int64_t NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

// Where a call goes out. One constant for each; all of it is texts that live as long as the
// library.
struct CallSite {
    const char* side;
    const char* call;   // the client's method or the module's slot
    const char* holds;  // the lock that is held across it; NULL for the module, which is called
                        // under none
};

class InFlight {
  public:
    struct Call {
        const CallSite* site;
        uint64_t pid;  // the client that is called, or on whose behalf the module is
        int64_t sinceNs;
        const char* holds;  // also of a delivery further up on the same thread; NULL: no lock
    };

    // In flight while it lives. Beyond kPlaces at a time, calls are made but not shown.
    class Mark {
      public:
        Mark(const CallSite& site, uint64_t pid, int64_t sinceNs);
        ~Mark();
        Mark(const Mark&) = delete;
        Mark& operator=(const Mark&) = delete;

      private:
        struct Place* const mPlace;  // NULL: none was free
    };

    // Each as it was at some moment during the call; may be called from anywhere.
    static std::vector<Call> look();

    static constexpr int kPlaces = 64;  // what the host's pool has at most; a device's has fewer
};

// Calls a slot of the module, in flight and a slice of the trace meanwhile.
template <typename Native, typename Result, typename... Parameters, typename... Arguments>
Result CallModule(const CallSite& site, uint64_t pid, const Native* impl,
                  Result (*Native::*slot)(Parameters...), Arguments... arguments) {
    const InFlight::Mark mark(site, pid, NowNs());
    const TraceSlice slice(site.call);
    return (impl->*slot)(arguments...);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
