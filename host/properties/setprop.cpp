// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: setprop NAME VALUE\n");
        return 2;
    }
    if (const int error = property_set(argv[1], argv[2]); error != 0) {
        fprintf(stderr, "setprop: cannot set %s: %s\n", argv[1], strerror(-error));
        return 1;
    }
}
