#include "BKVlib/common/unx/psthread.h"

#include <gtest/gtest.h>

namespace {

TEST(PsDelayTest, SplitsIntoSecondsAndMicroseconds) {
    const struct { int32_t ms; long seconds, micros; } cases[] = {
        {1500, 1, 500000}, {999, 0, 999000}, {1000, 1, 0}, {0, 0, 0}, {2001, 2, 1000}};
    for (const auto& c : cases) {
        long seconds = -1, micros = -1;
        psDelaySplit(c.ms, &seconds, &micros);
        EXPECT_EQ(c.seconds, seconds) << c.ms;
        EXPECT_EQ(c.micros, micros) << c.ms;
    }
}

}  // namespace
