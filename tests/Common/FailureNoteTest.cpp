#include "Common/FailureNote.h"

#include <gtest/gtest.h>

#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"

namespace {

TEST(FailureNoteTest, KeepsTheLastLineThatSaysSomething) {
    const struct { const char* text; const char* note; } cases[] = {
        {"Error: SCSI subsystem not active\n", "Error: SCSI subsystem not active"},
        {"Scanning host 0\r\nNo SCSI host adapters found in /sys\r\n", "No SCSI host adapters found in /sys"},
        {"first\n  last words \t\n\n \n", "last words"},
        {"no line end", "no line end"},
        {"", "earlier"},  // nothing said: the earlier note stands
        {" \n\t\n", "earlier"},
    };
    for (const auto& c : cases) {
        clearFailure();
        noteFailure("earlier");
        noteFailure(c.text);
        EXPECT_EQ(c.note, lastFailure()) << "[" << c.text << "]";
    }
}

// Only error messages explain a failure; the start and end messages do not.
TEST(FailureNoteTest, LoggedErrorMessagesAreNoted) {
    ASSERT_EQ(0, initMessages(std::string(PP_BINARY_DIR) + "/nls", "", "qlxna.cat", "en_US"));
    clearFailure();
    logMsg(nullptr, AGT0456E);
    logMsg(nullptr, AGT0430I, "PathPlanner", 169);
    EXPECT_EQ("AGT0456E No multipath driver was found on this host.", lastFailure());
    endMessages();
}

}  // namespace
