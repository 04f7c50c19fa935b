// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>
#include <stdio.h>

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: getprop NAME [DEFAULT]\n");
        return 2;
    }
    char value[PROPERTY_VALUE_MAX];
    property_get(argv[1], value, argc == 3 ? argv[2] : "");
    puts(value);
}
