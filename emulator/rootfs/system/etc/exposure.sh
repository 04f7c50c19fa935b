# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=dash
# How long a refused device works, by the kernel's own events (Documentation/trace/kprobetrace.rst).
tracefs=/sys/kernel/tracing

# A struct device starts with the pointer to its name.
start_recording() {
    [ -e $tracefs/trace ] || mount -t tracefs tracefs $tracefs || return
    echo 0 >$tracefs/events/enable
    echo 'p:kus/added device_add device=+0(+0($arg1)):string
p:kus/bound driver_bound device=+0(+0($arg1)):string
p:kus/unbound usb_unbind_interface device=+0(+0($arg1)):string
p:kus/written interface_authorized_store device=+0(+0($arg1)):string value=+0($arg3):string' \
        >$tracefs/kprobe_events
    echo mono >$tracefs/trace_clock
    echo >$tracefs/trace
    echo 1 >$tracefs/events/kus/enable
}

# Since start_recording, how many milliseconds the USB device with sysfs name $1 has worked: from
# its first interface, or the first that was opened where it came closed, to the last that was
# closed. 0 where no interface has had a driver; nothing where one is left with it.
usable_milliseconds() {
    awk -v name="device=\"$1:" '
        !index($0, name) {next}
        {for (i = 1; $i !~ /^[0-9]+\.[0-9]+:$/; i++); time = $i * 1000}
        / added: / && !from {from = time}
        / written: .*="1/ && !bound && !opened {from = time; opened = 1}
        / bound: / {bound = time}
        / written: .*="0/ {to = time}
        END {if (!bound) print 0; else if (to > bound) printf "%.0f\n", to - from}' $tracefs/trace
}
