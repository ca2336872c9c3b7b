// SPDX-License-Identifier: Apache-2.0
// An implementation library, as the passthrough loader looks for it.
#include <cstring>

#include "Peer.h"

extern "C" __attribute__((visibility("default"))) hosttest::IPeer* HIDL_FETCH_IPeer(
        const char* name) {
    return strcmp(name, "default") == 0 ? new hosttest::Peer : nullptr;
}
