// Helpers of the agent's Unix layer: file names, signals, child processes, PID file
// locks. Signals and locks are tried in forked children, so this process keeps its
// own signal set-up, process group and locks.
#include <unistd.h>

#include <csignal>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/comutils.h"
#include "Common/unix/Filelock.h"
#include "Common/unix/psnautil.h"
#include "Common/unix/pssignal.h"
#include "Common/unix/psspawn.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::inChild;

TEST(ComutilsTest, QuotedNamesAreUnquotedOnce) {
    const std::pair<std::string, std::string> cases[] = {
        {"\"a\"", "a"}, {"\"\"\"", "\""}, {"\"\"", "\"\""}, {"\"a b", "\"a b"}};
    for (const auto& c : cases) EXPECT_EQ(c.second, psUnquote(c.first)) << c.first;
    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("f"), "x");
    EXPECT_TRUE(psFileExist("\"" + dir.file("f") + "\""));
    EXPECT_EQ(RC_OK, psRemoveFile("\"" + dir.file("f") + "\""));
    EXPECT_FALSE(psFileExist(dir.file("f")));
    EXPECT_EQ(-1, psRemoveFile(dir.file("f")));
}

TEST(ComutilsTest, TextHelpersAndExecutableSearch) {
    std::string text = "\t\r\n  two words \f\n", blank = " \t ";
    EXPECT_EQ("two words", psTrim(text));
    EXPECT_EQ("", psTrim(blank));
    const unsigned char bytes[] = {0x00, 0x0f, 0xab, 0xff};
    EXPECT_EQ("000fabff", psHexText(bytes, sizeof(bytes)));
    EXPECT_EQ("/bin/sh", psFindExecutable("/bin/sh"));
    EXPECT_EQ("", psFindExecutable("no-such-program-here"));
    EXPECT_NE("", psFindExecutable("sh"));
}

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

TEST(FilelockTest, LockOfKilledHolderIsTakenOver) {
    testfiles::TempDir dir;
    const std::string path = dir.file("agent.pid");
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t holder = fork();
    if (holder == 0) {
        char made = createPidFile(path) == RC_OK ? 'y' : 'n';
        if (write(ready[1], &made, 1) == 1) pause();
        _exit(0);
    }
    char made = 0;
    EXPECT_EQ(1, read(ready[0], &made, 1));
    close(ready[0]);
    close(ready[1]);
    ASSERT_EQ('y', made);
    Filelock lock(path);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(RC_ALREADY_LOCKED, lock.lockFile());
    EXPECT_EQ(std::to_string(holder), testfiles::readFile(path));
    kill(holder, SIGKILL);
    EXPECT_EQ(1000 + SIGKILL, testfiles::exitCodeOf(holder));
    EXPECT_TRUE(testfiles::fileExists(path));  // left behind, no longer locked
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(RC_OK, lock.lockFile());
    EXPECT_EQ(RC_OK, lock.writeProcessId(std::string()));
    // Read in another process: opening and closing the file here would drop this lock.
    const std::string self = std::to_string(getpid());
    EXPECT_EQ(0, inChild([&] { return testfiles::readFile(path) == self ? 0 : 1; }));
    EXPECT_EQ(1, inChild([&] { return Filelock(path).isLocked() ? 1 : 0; }));
}

}  // namespace
