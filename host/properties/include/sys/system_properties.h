// SPDX-License-Identifier: Apache-2.0
#pragma once

// The two limits that <cutils/properties.h> takes from bionic's header of this name.
#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
