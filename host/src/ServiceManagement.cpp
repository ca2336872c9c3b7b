// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <hidl/ServiceManagement.h>

#include <map>

#include <android/hidl/base/1.0/BpHwBase.h>
#include <android/hidl/manager/1.0/IServiceManager.h>
#include <hidl/HidlTransportSupport.h>
#include <log/log.h>
#include <utils/Mutex.h>

#include "Node.h"
#include "Registry.h"
#include "Usage.h"

namespace android { namespace hardware {

using ::android::hidl::base::V1_0::BnHwBase;
using ::android::hidl::base::V1_0::BpHwBase;
using ::android::hidl::base::V1_0::IBase;
using ::android::hidl::manager::V1_0::IServiceManager;
using ::android::hidl::manager::V1_0::IServiceNotification;

namespace {

// What this process serves, by "interface/instance". Other processes ask it through object 0.
class LocalServices : public BHwBinder {
  public:
    static const sp<LocalServices>& self() {
        static auto* self = new sp<LocalServices>(new LocalServices);
        return *self;
    }

    sp<IBase> get(const std::string& interface, const std::string& instance) {
        Mutex::Autolock lock(mMutex);
        auto it = mServices.find(interface + "/" + instance);
        return it == mServices.end() ? nullptr : it->second;
    }

    void add(const std::vector<std::string>& interfaces, const std::string& instance,
             const sp<IBase>& service) {
        Mutex::Autolock lock(mMutex);
        for (const std::string& interface : interfaces) {
            mServices[interface + "/" + instance] = service;
        }
    }

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t,
                        TransactCallback) override {
        std::string interface;
        std::string instance;
        if (code != host::kGet && code != host::kUsage) return UNKNOWN_TRANSACTION;
        if (!data.enforceInterface(host::kRegistryToken)) return BAD_TYPE;
        if (code == host::kUsage) {
            usage().writeTo(reply);
            return OK;
        }
        if (data.readText(&interface) != OK || data.readText(&instance) != OK) return BAD_TYPE;
        return reply->writeStrongBinder(getOrCreateCachedBinder(get(interface, instance).get()));
    }

  private:
    host::Usage usage() {
        decltype(mServices) services;
        {
            Mutex::Autolock lock(mMutex);
            services = mServices;
        }
        host::Usage usage;
        for (const host::SessionPtr& session : host::Node::self().sessions()) {
            usage.sessions.push_back(session->usage());
            for (const auto& [name, service] : services) {
                const sp<IBinder> binder = getOrCreateCachedBinder(service.get());
                if (session->hasSent(binder.get())) usage.clients[name].push_back(session->peer());
            }
        }
        return usage;
    }

    Mutex mMutex;
    std::map<std::string, sp<IBase>> mServices GUARDED_BY(mMutex);
};

class HostServiceManager : public IServiceManager {
  public:
    Return<sp<IBase>> get(const hidl_string& fqName, const hidl_string& name) override {
        sp<IBase> local = LocalServices::self()->get(fqName, name);
        if (local != nullptr) return local;
        const std::string socket = host::Registry::self().lookup(fqName, name);
        if (socket.empty()) return sp<IBase>();
        host::SessionPtr session = host::Node::self().dial(socket);
        if (session == nullptr) return sp<IBase>();

        Parcel data;
        Parcel reply;
        sp<IBinder> binder;
        data.writeInterfaceToken(host::kRegistryToken);
        data.writeText(fqName.c_str(), fqName.size());
        data.writeText(name.c_str(), name.size());
        status_t status = session->call(host::Session::kRegistryObject, host::kGet, data, &reply,
                                        host::kPeerLimit);
        if (status == OK) status = reply.readNullableStrongBinder(&binder);
        if (status != OK) {
            ALOGE("Cannot get %s/%s from pid %d: %s", fqName.c_str(), name.c_str(), session->peer(),
                  Status::fromStatusT(status).description().c_str());
            return sp<IBase>();
        }
        return fromBinder<IBase, BpHwBase, BnHwBase>(binder);
    }

    Return<bool> add(const hidl_string& name, const sp<IBase>& service) override {
        if (service == nullptr || service->isRemote()) {
            ALOGE("Only an object of this process can be registered as '%s'", name.c_str());
            return false;
        }
        std::vector<std::string> interfaces;
        Return<void> chain = service->interfaceChain([&](const hidl_vec<hidl_string>& descriptors) {
            for (const hidl_string& descriptor : descriptors) {
                // Everything is an IBase: no use to look for.
                if (descriptor != IBase::descriptor) interfaces.push_back(descriptor);
            }
        });
        if (!chain.isOk() || getOrCreateCachedBinder(service.get()) == nullptr) return false;

        host::Node::self().setRegistryObject(LocalServices::self());
        if (host::Node::self().listen().empty()) return false;
        // Served before it can be found.
        const std::string instance = name;
        const sp<IBase> before = LocalServices::self()->get(interfaces.front(), instance);
        LocalServices::self()->add(interfaces, instance, service);
        ProcessState::self()->startThreadPool();
        if (host::Registry::self().add(interfaces, instance) == OK) return true;
        LocalServices::self()->add(interfaces, instance, before);
        return false;
    }

    Return<void> list(list_cb _hidl_cb) override {
        const std::vector<std::string> names = host::Registry::self().list();
        _hidl_cb(hidl_vec<hidl_string>(names.begin(), names.end()));
        return Void();
    }

    Return<void> listByInterface(const hidl_string& fqName, listByInterface_cb _hidl_cb) override {
        const std::string prefix = std::string(fqName) + "/";
        std::vector<hidl_string> instances;
        for (const std::string& name : host::Registry::self().list()) {
            if (name.compare(0, prefix.size(), prefix) == 0) {
                instances.push_back(name.substr(prefix.size()));
            }
        }
        _hidl_cb(instances);
        return Void();
    }

    Return<bool> registerForNotifications(const hidl_string& fqName, const hidl_string& name,
                                          const sp<IServiceNotification>&) override {
        ALOGW("Nobody is told of registrations on this host, so not of %s/%s either",
              fqName.c_str(), name.c_str());
        return false;
    }
};

}  // namespace

sp<IServiceManager> defaultServiceManager() {
    static auto* manager = new sp<IServiceManager>(new HostServiceManager);
    return *manager;
}

namespace details {

sp<IBase> getRawServiceInternal(const std::string& descriptor, const std::string& instance,
                                bool retry, bool getStub) {
    if (getStub) return getPassthroughServiceManager()->get(descriptor, instance);
    sp<IBase> service = defaultServiceManager()->get(descriptor, instance);
    while (service == nullptr && retry) {
        ALOGI("Waiting for service %s/%s...", descriptor.c_str(), instance.c_str());
        // Before it is looked for again: what comes in between is seen.
        host::Registry::Watch watch;
        service = defaultServiceManager()->get(descriptor, instance);
        if (service == nullptr) watch.wait();
    }
    return service;
}

status_t registerAsServiceInternal(const sp<IBase>& service, const std::string& name) {
    Return<bool> added = defaultServiceManager()->add(name, service);
    return added.isOk() && added ? OK : UNKNOWN_ERROR;
}

}  // namespace details
}}  // namespace android::hardware
