// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <host/os/IServiceManager.h>
#include <utils/String8.h>

#include <chrono>
#include <mutex>
#include <thread>

namespace android {

namespace {

using namespace std::chrono_literals;

constexpr auto kPollInterval = 100ms;

/** The service manager in its own process, behind the interface that the platform's code uses. */
class ServiceManagerClient : public IServiceManager {
  public:
    explicit ServiceManagerClient(const sp<host::os::IServiceManager>& remote) : mRemote(remote) {}

    sp<IBinder> checkService(const String16& name) const override {
        sp<IBinder> service;
        find(name, &service);
        return service;
    }

    sp<IBinder> waitForService(const String16& name) override {
        sp<IBinder> service;
        while (find(name, &service) && service == nullptr) {
            std::this_thread::sleep_for(kPollInterval);
        }
        return service;
    }

    // Whose processes have no uid of their own, and who dumps services in which order, is of
    // interest on Android alone.
    status_t addService(const String16& name, const sp<IBinder>& service, bool, int) override {
        return mRemote->addService(String8(name).string(), service).exceptionCode();
    }

    // The rest is called by nobody here.
    sp<IBinder> getService(const String16& name) const override { return checkService(name); }
    Vector<String16> listServices(int) override { return {}; }
    bool isDeclared(const String16&) override { return false; }

  private:
    IBinder* onAsBinder() override { return asBinder(mRemote).get(); }

    // False where the service manager cannot be asked.
    bool find(const String16& name, sp<IBinder>* service) const {
        return mRemote->checkService(String8(name).string(), service).isOk();
    }

    const sp<host::os::IServiceManager> mRemote;
};

std::once_flag once;

sp<IServiceManager>& theServiceManager() {
    static auto& manager = *new sp<IServiceManager>;
    return manager;
}

}  // namespace

IServiceManager::IServiceManager() = default;

IServiceManager::~IServiceManager() = default;

const String16& IServiceManager::getInterfaceDescriptor() const {
    return host::os::IServiceManager::descriptor;
}

sp<IServiceManager> defaultServiceManager() {
    std::call_once(once, [] {
        sp<IBinder> context;
        while ((context = ProcessState::self()->getContextObject(nullptr)) == nullptr) {
            std::this_thread::sleep_for(kPollInterval);
        }
        theServiceManager() =
            new ServiceManagerClient(interface_cast<host::os::IServiceManager>(context));
    });
    return theServiceManager();
}

void setDefaultServiceManager(const sp<IServiceManager>& sm) {
    bool first = false;
    std::call_once(once, [&] {
        theServiceManager() = sm;
        first = true;
    });
    CHECK(first) << "the default service manager is in use already";
}

}  // namespace android
