// Test entry point: the host log's copy on standard error is off unless
// TAVREND_TEST_LOG_STDERR is set, so test output stays readable.
#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/log_hook.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (getenv("TAVREND_TEST_LOG_STDERR") == nullptr) tavrend::platform::setLogToStderr(false);
    return RUN_ALL_TESTS();
}
