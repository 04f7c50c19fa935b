#!/system/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# kusd, after rules that it would refuse have given way to their backup. Whatever comes of that, kusd
# is started: without it nothing is opened.
/system/bin/log -t kusd "$(/system_ext/bin/kusctl restore 2>&1)"
exec /system_ext/bin/kusd "$@"
