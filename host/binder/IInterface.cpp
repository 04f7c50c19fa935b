// SPDX-License-Identifier: Apache-2.0
#include <binder/IInterface.h>

namespace android {

IInterface::IInterface() = default;

IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* interface) {
    return interface ? const_cast<IInterface*>(interface)->onAsBinder() : nullptr;
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& interface) {
    return asBinder(interface.get());
}

}  // namespace android
