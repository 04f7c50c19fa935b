// SPDX-License-Identifier: Apache-2.0
#include <binder/ProcessState.h>
#include <gmock/gmock.h>

#include "process.h"

int main(int argc, char** argv) {
    const int status = android::kus::runAsClient(argc, argv);
    if (status >= 0) return status;
    testing::InitGoogleMock(&argc, argv);
    android::ProcessState::self()->startThreadPool();
    return RUN_ALL_TESTS();
}
