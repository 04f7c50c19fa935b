// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <stdlib.h>

#include "../unit/private_world.h"

int main(int argc, char** argv) {
    enterPrivateWorld(argv);
    // For the daemons: looking for leaks does not work under strace, and local_binder.cpp is meant
    // to define what the binder library defines.
    setenv("ASAN_OPTIONS", "detect_leaks=0:detect_odr_violation=0", 1);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
