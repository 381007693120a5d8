// The stop signals of the agent's Unix layer, tried in a forked child, so this process
// keeps its own signal set-up and process group.
#include <unistd.h>

#include <csignal>

#include "Common/unix/pssignal.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::inChild;

TEST(PsSignalTest, TermAndInterruptSetStopFlagOthersDoNothing) {
    EXPECT_EQ(0, inChild([] {
        if (installSignalHandlers() != 0 || getpgrp() != getpid()) return 1;
        raise(SIGHUP);
        raise(SIGPIPE);
        unxInterruptHandler(SIGUSR2);
        if (agentStopRequested) return 2;
        raise(SIGTERM);
        raise(SIGTERM);  // a second request changes nothing
        if (agentStopRequested != 1) return 3;
        agentStopRequested = 0;
        unxInterruptHandler(SIGINT);
        return agentStopRequested == 1 ? 0 : 4;
    }));
}

}  // namespace
