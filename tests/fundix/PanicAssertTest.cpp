#include <gtest/gtest.h>

#include "fundix/PanicAssert.h"

namespace {

TEST(PanicAssertDeathTest, WritesOneLineAndAborts) {
    // Other suites start threads; re-executing the binary for the death test keeps that safe.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Fundix::PanicAssert("x > 0", "src/thing.cpp", 42),
                 "^panic: x > 0 \\(src/thing\\.cpp:42\\)\n$");

    int items = 2;
    FUNDIX_ASSERT(items == 2);
    EXPECT_DEATH(FUNDIX_ASSERT(items == 3), "panic: items == 3 \\(.*PanicAssertTest\\.cpp:[0-9]+\\)");
}

}  // namespace
