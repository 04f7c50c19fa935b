// SPDX-License-Identifier: Apache-2.0
package android.kus;

import android.kus.DeviceInfo;

/**
 * Implemented by clients. The service calls every registered client and waits for none: a client
 * gets its notices in order, whatever it does inside them, and one that falls so far behind that
 * its binder buffer is full loses the next ones.
 */
oneway interface IKUsbServiceCallback {
    /** A USB device was recorded; status, reason and category are filled in. */
    void onDeviceAdded(in DeviceInfo device);
    /** A USB device went away; the record is the one passed to updateDeviceList. */
    void onDeviceRemoved(in DeviceInfo device);
}
