#include "Common/unix/psspawn.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

TEST(WaitForExternalProgramTest, HangingChildIsKilledAfterTimeout) {
    // exec: the kill reaches the sleeper itself, not a shell that would leave it behind.
    const char* argv[] = {"exec /bin/sleep 30;", nullptr};
    SpawnInfo info;
    ASSERT_EQ(RC_OK, SpawnExternalProgram(argv, &info, false, false, false, nullptr));
    int32_t code = -1;
    EXPECT_EQ(RC_CHILD_KILLED, WaitForExternalProgram(&info, &code, 1));
    EXPECT_EQ(-1, code);
    EXPECT_EQ(-1, kill(info.pid, 0));  // gone and reaped
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);  // the caller's action is back
}

}  // namespace
