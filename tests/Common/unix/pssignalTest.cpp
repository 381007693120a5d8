#include "Common/unix/pssignal.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "gtest/gtest.h"

namespace {

// Runs body in a forked child so the test process keeps its own signal set-up and
// process group; returns the child's exit code.
template <typename Body>
int inChild(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

TEST(PsSignalTest, TermSetsStopFlagAndProcessKeepsRunning) {
    EXPECT_EQ(0, inChild([] {
        installSignalHandlers();
        if (agentStopRequested) return 1;
        raise(SIGTERM);
        raise(SIGTERM);  // a second request changes nothing
        return agentStopRequested == 1 ? 0 : 2;
    }));
}

TEST(PsSignalTest, HangupAndPipeAreIgnored) {
    EXPECT_EQ(0, inChild([] {
        installSignalHandlers();
        raise(SIGHUP);
        raise(SIGPIPE);
        return agentStopRequested == 0 ? 0 : 3;
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

TEST(PsSignalTest, BecomesProcessGroupLeader) {
    EXPECT_EQ(0, inChild([] {
        if (installSignalHandlers() != 0) return 1;
        return getpgrp() == getpid() ? 0 : 2;
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
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
}

}  // namespace
