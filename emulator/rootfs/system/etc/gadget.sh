# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=dash
# Shared by plug, replug and unplug. A USB device is a configfs gadget (the kernel's
# Documentation/usb/gadget_configfs.rst) on one of the ports dummy_udc.0 to dummy_udc.5, each of
# which is the other end of a host controller with a single port.
# shellcheck disable=SC2034
gadgets=/sys/kernel/config/usb_gadget

usage_error() {
    echo "${0##*/}: $1 (--help shows the usage)" >&2
    exit 2
}

fail() {
    echo "${0##*/}: $1" >&2
    exit 1
}

seconds_since_boot() {
    cut -d . -f 1 /proc/uptime
}

# Calls a function of this file until it succeeds. Fails after 10 s.
wait_until() {
    local end=$(($(seconds_since_boot) + 10))
    until "$@"; do
        [ "$(seconds_since_boot)" -lt $end ] || return 1
        usleep 50000
    done
}

# Whether the host side has configured the device on port $1 and asked the drivers. The kernel
# holds the device's lock meanwhile, and bConfigurationValue is read under it.
is_enumerated() {
    [ -n "$(cat /sys/devices/platform/dummy_hcd.$1/usb*/*-1/bConfigurationValue 2>/dev/null)" ]
}

is_gone() {
    ! ls -d /sys/devices/platform/dummy_hcd.$1/usb*/*-1 >/dev/null 2>&1
}

# Binds the gadget directory $1 to port $2, waits for its enumeration and prints its sysfs name.
attach() {
    echo "dummy_udc.$2" 2>/dev/null >"$1/UDC" || return
    wait_until is_enumerated "$2" || return
    basename /sys/devices/platform/dummy_hcd.$2/usb*/*-1
}

# Prints the port of the gadget directory $1.
port_of() {
    sed -n 's/^dummy_udc\.//p' "$1/UDC"
}

# Unbinds the gadget directory $1 and waits until the host side has seen the device go.
detach() {
    local port
    port=$(port_of "$1")
    [ -n "$port" ] || return 0
    echo >"$1/UDC" && wait_until is_gone "$port"
}

# Takes the detached gadget directory $1 apart.
remove_gadget() {
    rm -f "$1"/configs/c.1/*.* "/tmp/${1##*/}.img"
    rmdir "$1"/functions/* "$1/configs/c.1" "$1/strings/0x409" "$1" 2>/dev/null
    [ ! -d "$1" ]
}
