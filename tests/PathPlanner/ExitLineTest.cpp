#include "PathPlanner/ExitLine.h"

#include <gtest/gtest.h>

namespace {

TEST(ExitLineTest, EveryStatusReadsAsASentence) {
    const struct {
        int32_t rc;
        bool afterRescan;
        const char* reason;
        const char* line;
    } cases[] = {
        {0, false, "ignored", ""},
        {0, true, "", ""},
        {1, false, "", "PathPlanner failed with exit status 1 (out of memory at start)"},
        // After a rescan 1 is the script's answer, not a lack of memory.
        {1, true, "Error: SCSI subsystem not active",
         "PathPlanner failed with exit status 1 (the rescan script failed): Error: SCSI subsystem not active"},
        {2, true, "", "PathPlanner failed with exit status 2 (the rescan script failed)"},
        {-1, true, "", "PathPlanner failed with exit status 255 (the rescan script could not be run)"},
        {8, true, "", "PathPlanner failed with exit status 8 (the rescan was cancelled by a stop request, or its "
                      "script could not be written)"},
        {173, true, "x", "PathPlanner failed with exit status 173 (a multipath driver command could not be run or "
                         "failed): x"},
        {71, true, "", "PathPlanner failed with exit status 71 (the multipath driver's reconfiguration command "
                       "could not be run)"},
        {5, false, "the setting given is 9",
         "PathPlanner failed with exit status 5 (unknown multipath setting; the settings are 0 to 5): the setting "
         "given is 9"},
        {59, false, "", "PathPlanner failed with exit status 59 (the installation directory /opt/ZOR/QLX/agent does "
                        "not exist)"},
        {72, false, "", "PathPlanner failed with exit status 72 (the message catalogue could not be started)"},
        {169, false, "", "PathPlanner failed with exit status 169 (no multipath driver was found on this host)"},
        {172, false, "", "PathPlanner failed with exit status 172 (the multipath driver cannot apply this setting)"},
        {170, false, "", "PathPlanner failed with exit status 170 (the multipath driver does not know the device)"},
        {42, false, "", "PathPlanner failed with exit status 42 (the multipath driver reported this failure)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.line, exitLine(c.rc, c.afterRescan, c.reason)) << c.rc << " after rescan " << c.afterRescan;
    }
}

}  // namespace
