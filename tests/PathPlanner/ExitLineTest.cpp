#include "PathPlanner/ExitLine.h"

#include <gtest/gtest.h>

namespace {

TEST(ExitLineTest, EveryStatusReadsAsASentence) {
    const struct { int32_t rc; bool afterRescan; const char* reason; const char* line; } cases[] = {
        {0, false, "ignored", ""},
        {0, true, "", ""},
        {1, false, "", "PathPlanner failed with exit status 1 (out of memory at start)"},
        // After a rescan 1 and 2 are the script's answers, not a lack of memory.
        {2, true, "", "PathPlanner failed with exit status 2 (the rescan script failed)"},
        {-1, true, "", "PathPlanner failed with exit status 255 (the rescan script could not be run)"},
        {173, true, "x", "PathPlanner failed with exit status 173 (a multipath driver command could not be run or "
                         "failed): x"},
        {42, false, "", "PathPlanner failed with exit status 42 (the multipath driver reported this failure)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.line, exitLine(c.rc, c.afterRescan, c.reason)) << c.rc << " after rescan " << c.afterRescan;
    }
}

}  // namespace
