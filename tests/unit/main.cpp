// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "private_world.h"

// libutils comes from Debian without instrumentation, so ThreadSanitizer does not see that a
// reference count puts every use of an object before its destructor.
extern "C" const char* __tsan_default_suppressions() {
    return "race:android::RefBase::decStrong\n";
}

int main(int argc, char** argv) {
    enterPrivateWorld(argv);
    // Death tests run again from main: there are threads, and a sanitizer, that fork would break.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
