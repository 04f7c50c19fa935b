// SPDX-License-Identifier: Apache-2.0
package android.kus;

import android.kus.DeviceInfo;

/**
 * Implemented by clients. The service calls every registered client in turn and ignores what the
 * calls return; a client may call the service from inside either of them.
 */
interface IKUsbServiceCallback {
    /** A USB device was recorded; status, reason and category are filled in. */
    void onDeviceAdded(in DeviceInfo device);
    /** A USB device went away; the record is the one passed to updateDeviceList. */
    void onDeviceRemoved(in DeviceInfo device);
}
