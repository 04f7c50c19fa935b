# SPDX-License-Identifier: Apache-2.0
#
# Adds the service in its strict form, in place of kus.mk: a device stays closed until it is allowed.

include $(dir $(lastword $(MAKEFILE_LIST)))kus.mk

PRODUCT_PACKAGES += \
    kus_strict
