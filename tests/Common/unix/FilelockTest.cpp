#include "Common/unix/Filelock.h"

#include <unistd.h>

#include <csignal>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::inChild;

// The content as another process reads it. Opening and closing the file here would
// drop a lock this process holds on it.
bool contentElsewhere(const std::string& path, const std::string& expected) {
    return inChild([&] { return testfiles::readFile(path) == expected ? 0 : 1; }) == 0;
}

class FilelockTest : public ::testing::Test {
protected:
    testfiles::TempDir dir_;
    std::string path_ = dir_.file("agent.pid");
};

TEST_F(FilelockTest, LockOfKilledHolderIsTakenOver) {
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t holder = fork();
    if (holder == 0) {
        char made = createPidFile(path_) == RC_OK ? 'y' : 'n';
        if (write(ready[1], &made, 1) == 1) pause();
        _exit(0);
    }
    char made = 0;
    EXPECT_EQ(1, read(ready[0], &made, 1));
    close(ready[0]);
    close(ready[1]);
    ASSERT_EQ('y', made);
    Filelock lock(path_);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(RC_ALREADY_LOCKED, lock.lockFile());
    EXPECT_EQ(std::to_string(holder), testfiles::readFile(path_));
    kill(holder, SIGKILL);
    EXPECT_EQ(1000 + SIGKILL, testfiles::exitCodeOf(holder));
    EXPECT_TRUE(testfiles::fileExists(path_));  // left behind, no longer locked
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(RC_OK, lock.lockFile());
    EXPECT_EQ(RC_OK, lock.writeProcessId(std::string()));
    EXPECT_TRUE(contentElsewhere(path_, std::to_string(getpid())));
    EXPECT_EQ(1, inChild([&] { return Filelock(path_).isLocked() ? 1 : 0; }));
}

}  // namespace

namespace {

}  // namespace
