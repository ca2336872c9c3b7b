// The main function of a service that serves an implementation library.
#pragma once

#include <string>

#include <hidl/HidlTransportSupport.h>
#include <log/log.h>

namespace android { namespace hardware {
namespace details {

// OK when the library was loaded and its object registered.
template <class Interface>
status_t registerPassthroughServiceImplementation(const std::string& name) {
    sp<Interface> service = Interface::getService(name, true /* getStub */);
    if (service == nullptr || service->isRemote()) {
        ALOGE("Could not get passthrough implementation for %s/%s.", Interface::descriptor,
              name.c_str());
        return EXIT_FAILURE;
    }
    status_t status = service->registerAsService(name);
    if (status != OK) {
        ALOGE("Could not register service %s/%s (%d).", Interface::descriptor, name.c_str(),
              status);
    }
    return status;
}

}  // namespace details

using details::registerPassthroughServiceImplementation;

// Registers and serves; comes back only on failure.
template <class Interface>
status_t defaultPassthroughServiceImplementation(const std::string& name, size_t maxThreads = 1) {
    configureRpcThreadpool(maxThreads, true /* callerWillJoin */);
    status_t result = registerPassthroughServiceImplementation<Interface>(name);
    if (result != OK) return result;
    joinRpcThreadpool();
    return UNKNOWN_ERROR;
}

template <class Interface>
status_t defaultPassthroughServiceImplementation(size_t maxThreads = 1) {
    return defaultPassthroughServiceImplementation<Interface>("default", maxThreads);
}

}}  // namespace android::hardware
