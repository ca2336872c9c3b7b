// SPDX-License-Identifier: Apache-2.0
// Tables that generated code fills and asks: how to make a stub or a wrapper for an interface, and
// which stub an object has.
#pragma once

#include <sched.h>

#include <functional>
#include <map>
#include <string>

#include <hidl/HidlSupport.h>
#include <hwbinder/Binder.h>
#include <utils/Mutex.h>

namespace android { namespace hardware { namespace details {

struct SchedPrio {
    int sched_policy;
    int prio;
};

template <typename K, typename V>
class ConcurrentMap {
  public:
    V& operator[](const K&) = delete;  // a look-up never inserts

    V get(const K& key, const V& fallback) const {
        Mutex::Autolock lock(mMutex);
        auto it = mMap.find(key);
        return it == mMap.end() ? fallback : it->second;
    }
    void set(const K& key, const V& value) {
        Mutex::Autolock lock(mMutex);
        mMap[key] = value;
    }
    void erase(const K& key) {
        Mutex::Autolock lock(mMutex);
        mMap.erase(key);
    }
    // Leaves an entry alone that somebody has replaced.
    void eraseIfEqual(const K& key, const V& value) {
        Mutex::Autolock lock(mMutex);
        auto it = mMap.find(key);
        if (it != mMap.end() && it->second == value) mMap.erase(it);
    }

  private:
    mutable Mutex mMutex;
    std::map<K, V> mMap GUARDED_BY(mMutex);
};

using BnConstructorMap = ConcurrentMap<std::string, std::function<sp<IBinder>(void*)>>;
using BsConstructorMap =
        ConcurrentMap<std::string, std::function<sp<::android::hidl::base::V1_0::IBase>(void*)>>;

// By descriptor. Functions, since libraries fill them while they are being loaded.
BnConstructorMap& getBnConstructorMap();
BsConstructorMap& getBsConstructorMap();

// The living stub of a local object. Never destroyed: stubs outlive static destruction.
extern ConcurrentMap<const ::android::hidl::base::V1_0::IBase*, wp<BHwBinder>>* const gBnMap;
// Scheduling and security labels: kept for generated code, without meaning on the host.
extern ConcurrentMap<wp<::android::hidl::base::V1_0::IBase>, SchedPrio>* const gServicePrioMap;
extern ConcurrentMap<wp<::android::hidl::base::V1_0::IBase>, bool>* const gServiceSidMap;

}}}  // namespace android::hardware::details
