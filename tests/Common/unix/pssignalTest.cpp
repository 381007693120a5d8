#include "Common/unix/pssignal.h"

#include <unistd.h>

#include <csignal>

#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

// Each case runs in a forked child so the test process keeps its own signal set-up
// and process group.
using testfiles::inChild;

TEST(PsSignalTest, TermSetsStopFlagHangupAndPipeDoNothing) {
    EXPECT_EQ(0, inChild([] {
        if (installSignalHandlers() != 0 || getpgrp() != getpid()) return 1;
        raise(SIGHUP);
        raise(SIGPIPE);
        if (agentStopRequested) return 2;
        raise(SIGTERM);
        raise(SIGTERM);  // a second request changes nothing
        return agentStopRequested == 1 ? 0 : 3;
    }));
}

TEST(PsSignalTest, HandlerAcceptsInterruptAndIgnoresOthers) {
    EXPECT_EQ(0, inChild([] {
        unxInterruptHandler(SIGUSR2);
        if (agentStopRequested) return 1;
        unxInterruptHandler(SIGINT);
        return agentStopRequested == 1 ? 0 : 2;
    }));
}

TEST(PsSignalTest, JobInterruptRejectsNonNumbersAndSignalsNumbers) {
    EXPECT_EQ(-1, psSendJobInterrupt("abc"));
    EXPECT_EQ(-1, psSendJobInterrupt(""));
    pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    EXPECT_EQ(0, psSendJobInterrupt(std::to_string(child)));
    EXPECT_EQ(1000 + SIGTERM, testfiles::exitCodeOf(child));
}

}  // namespace
