// SPDX-License-Identifier: Apache-2.0
#include "Usage.h"

namespace android { namespace hardware { namespace host {

void Usage::writeTo(Parcel* parcel) const {
    parcel->writeUint32(static_cast<uint32_t>(sessions.size()));
    for (const Session& session : sessions) {
        parcel->writeInt32(session.peer);
        parcel->writeUint32(session.descriptors);
        parcel->writeUint32(session.threads);
        parcel->writeInt64(static_cast<int64_t>(session.queued));
    }
    parcel->writeUint32(static_cast<uint32_t>(clients.size()));
    for (const auto& [name, pids] : clients) {
        parcel->writeText(name.c_str(), name.size());
        parcel->writeUint32(static_cast<uint32_t>(pids.size()));
        for (const pid_t pid : pids) parcel->writeInt32(pid);
    }
}

bool Usage::readFrom(const Parcel& parcel) {
    uint32_t count;
    if (parcel.readUint32(&count) != OK) return false;
    // Grows with what is there, not with what is said to be.
    for (; count > 0; --count) {
        Session session;
        int64_t queued;
        if (parcel.readInt32(&session.peer) != OK ||
            parcel.readUint32(&session.descriptors) != OK ||
            parcel.readUint32(&session.threads) != OK || parcel.readInt64(&queued) != OK) {
            return false;
        }
        session.queued = static_cast<uint64_t>(queued);
        sessions.push_back(session);
    }
    if (parcel.readUint32(&count) != OK) return false;
    for (; count > 0; --count) {
        std::string name;
        uint32_t pids;
        if (parcel.readText(&name) != OK || parcel.readUint32(&pids) != OK) return false;
        for (; pids > 0; --pids) {
            pid_t pid;
            if (parcel.readInt32(&pid) != OK) return false;
            clients[name].push_back(pid);
        }
    }
    return true;
}

}}}  // namespace android::hardware::host
