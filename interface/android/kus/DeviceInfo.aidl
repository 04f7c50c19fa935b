// SPDX-License-Identifier: Apache-2.0
package android.kus;

/** One attached device, as the platform describes it and as the service decided on it. */
parcelable DeviceInfo {
    /** Display name of the device. */
    @utf8InCpp String deviceName = "";
    /**
     * The device's key in the service's lists: bus number * 1000 + device number; for an input device
     * any number that no other input device has.
     */
    int deviceId = 0;
    /** USB device class code; for an input device its input-source bits. */
    int deviceClass = 0;
    /** USB class code of each interface, in order; empty for an input device. */
    int[] interfaceClassList = {};
    int vendorId = 0;
    int productId = 0;
    /** Set by the service: 1 = enabled, 0 = disabled. */
    int status = 0;
    /** 1 = HID device reported by the input subsystem, 0 = any other device. */
    int deviceType = 0;
    /** Set by the service: why the device is enabled or disabled. */
    @utf8InCpp String reason = "";
    /**
     * Set by the service: sum of its interfaces' categories
     * (1 network, 2 serial tty, 4 mass storage, 8 vendor-specific HID, 0 none of these).
     */
    int category = 0;
    /**
     * Set by the service: what is behind the category, each text once and followed by ";": the
     * kernel's name of a network device or tty, "sdcard" for mass storage, "empty" for the rest.
     */
    @utf8InCpp String categoryPath = "";
}
