// SPDX-License-Identifier: Apache-2.0
// What a process tells through object 0, its registry: who serves a name, and who uses what.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include <hwbinder/Parcel.h>

namespace android { namespace hardware { namespace host {

constexpr char kRegistryToken[] = "hidl-host-registry";
enum RegistryCode : uint32_t {
    kGet = 1,  // interface and instance; answers the object or NULL
    kUsage,    // answers a Usage
};

struct Usage {
    // Of one session, at one moment.
    struct Session {
        pid_t peer;
        uint32_t descriptors;  // of its connections
        uint32_t threads;      // that serve on them, or wait for the next call there
        // Bytes that wait for the peer to read, and of oneway calls that have come: those that wait
        // for a thread, and the one that is served.
        uint64_t queued;
    };

    std::vector<Session> sessions;
    // By "interface/instance" of what the process serves: who has its object.
    std::map<std::string, std::vector<pid_t>> clients;

    void writeTo(Parcel* parcel) const;
    // False when that is not one.
    bool readFrom(const Parcel& parcel);
};

}}}  // namespace android::hardware::host
