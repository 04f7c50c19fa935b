// SPDX-License-Identifier: Apache-2.0
package android.kus;

import android.kus.DeviceInfo;
import android.kus.IKUsbServiceCallback;

/**
 * Decides which USB and input devices may be used. Registered as "kusbservice". Every operation
 * returns the OK status: outcomes are in the results and in the log.
 */
interface IKUsbService {
    /**
     * Adds a client, until it unregisters or its process dies. Registering a callback twice gives
     * it every notification twice.
     */
    void registerKusCallback(IKUsbServiceCallback callback);
    /**
     * Removes one registration of the callback. A notification that is under way may still come.
     */
    void unregisterKusCallback(IKUsbServiceCallback callback);
    /** All recorded devices: input devices first, then USB devices, each by ascending id. */
    DeviceInfo[] getDeviceList();
    /**
     * Reports that a device was removed (updateStatus 0). Any other value is only logged: devices
     * are recorded by isDeviceAllowed.
     */
    void updateDeviceList(in DeviceInfo device, int updateStatus);
    /**
     * Decides on a device that was just attached, and de-authorizes the interfaces of a USB device
     * that it refuses. A USB device with no interface but HID ones, none of them vendor-specific,
     * gets false without being recorded: the input subsystem asks about it with deviceType 1.
     */
    boolean isDeviceAllowed(in DeviceInfo device);
    /**
     * Makes attached devices enumerate again. 0 or less toggles the host controllers' role; a
     * positive value runs the dock sequence with a wait of that many milliseconds.
     */
    void resetUsbDevices(int waitMs);
}
