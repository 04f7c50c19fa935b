// SPDX-License-Identifier: Apache-2.0
package host.os;

/** The context manager (handle 0): finds services by name. */
interface IServiceManager {
    /** Null where no service has the name. */
    @nullable IBinder checkService(@utf8InCpp String name);
    /**
     * Takes the place of a service that has the name already. A name of 1 to 127 of the characters
     * a-z A-Z 0-9 _ - . / is legal; any other is EX_ILLEGAL_ARGUMENT.
     */
    void addService(@utf8InCpp String name, IBinder service);
}
