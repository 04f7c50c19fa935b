# SPDX-License-Identifier: Apache-2.0
#
# Adds the service to a product: `include` or `inherit-product` this from the product's makefile.

KUS_DIR := $(patsubst %/,%,$(dir $(lastword $(MAKEFILE_LIST))))

PRODUCT_PACKAGES += \
    kusctl \
    kusd \
    kusgate

SYSTEM_EXT_PUBLIC_SEPOLICY_DIRS += $(KUS_DIR)/sepolicy/public
SYSTEM_EXT_PRIVATE_SEPOLICY_DIRS += $(KUS_DIR)/sepolicy/private
