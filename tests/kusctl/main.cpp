// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "../unit/private_world.h"

int main(int argc, char** argv) {
    enterPrivateWorld(argv);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
