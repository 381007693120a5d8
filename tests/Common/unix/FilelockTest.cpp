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
std::string readElsewhere(const std::string& path) {
    int fds[2];
    if (pipe(fds) != 0) return "<pipe failed>";
    pid_t pid = fork();
    if (pid == 0) {
        std::string text = testfiles::readFile(path);
        _exit(write(fds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string text;
    char buf[256];
    for (ssize_t got; (got = read(fds[0], buf, sizeof(buf))) > 0;) text.append(buf, static_cast<size_t>(got));
    close(fds[0]);
    testfiles::exitCodeOf(pid);
    return text;
}

// What a second process sees of the lock held by holder, as exit-code bits.
int secondProcessView(const std::string& path, int32_t holder) {
    Filelock other(path);
    int32_t pid = 0;
    std::string data;
    int bits = other.lockFile() == RC_ALREADY_LOCKED ? 1 : 0;
    if (other.isLocked()) bits |= 2;
    if (other.readProcessId(&pid, &data) == RC_OK && pid == holder) bits |= 4;
    return data == "agent data" ? bits | 8 : bits;
}

class FilelockTest : public ::testing::Test {
protected:
    testfiles::TempDir dir_;
    std::string path_ = dir_.file("agent.pid");
};

TEST_F(FilelockTest, SecondProcessFindsFileAlreadyLocked) {
    Filelock lock(path_);
    ASSERT_EQ(RC_OK, lock.lockFile());
    ASSERT_EQ(RC_OK, lock.writeProcessId("agent data"));
    int32_t self = getpid();
    EXPECT_EQ(15, inChild([&] { return secondProcessView(path_, self); }));
    // Reading and testing in the holder must not drop its own lock.
    int32_t pid = 0;
    std::string data;
    EXPECT_EQ(RC_OK, lock.readProcessId(&pid, &data));
    EXPECT_EQ(self, pid);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_FALSE(Filelock(path_).isLocked());  // the holder's own lock never conflicts
    EXPECT_EQ(15, inChild([&] { return secondProcessView(path_, self); }));
    EXPECT_EQ(RC_OK, lock.unlockFile());
    EXPECT_FALSE(testfiles::fileExists(path_));
}

TEST_F(FilelockTest, LockOfKilledHolderIsTakenOver) {
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t holder = fork();
    if (holder == 0) {
        int32_t rc = createPidFile(path_);
        if (write(ready[1], &rc, sizeof(rc)) != sizeof(rc)) _exit(1);
        pause();
        _exit(0);
    }
    int32_t childRc = -1;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(childRc)), read(ready[0], &childRc, sizeof(childRc)));
    close(ready[0]);
    close(ready[1]);
    ASSERT_EQ(RC_OK, childRc);
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
    EXPECT_EQ(std::to_string(getpid()), readElsewhere(path_));
    EXPECT_EQ(1, inChild([&] { return Filelock(path_).isLocked() ? 1 : 0; }));
}

TEST_F(FilelockTest, WriteProcessIdReplacesLongerContent) {
    testfiles::writeFile(path_, "123456789 an old and much longer text than the new one");
    Filelock lock(path_);
    ASSERT_EQ(RC_OK, lock.lockFile());
    EXPECT_EQ(RC_OK, lock.writeProcessId("x"));
    EXPECT_EQ(std::to_string(getpid()) + " x", readElsewhere(path_));
}

TEST_F(FilelockTest, FailuresReturnTheirCodes) {
    EXPECT_EQ(RC_LOCK_FAILED, Filelock("").lockFile());
    Filelock nowhere("/nonexistent-dir/agent.pid");
    EXPECT_EQ(RC_LOCK_FAILED, nowhere.lockFile());
    int32_t pid = 0;
    std::string data;
    EXPECT_EQ(RC_READ_PID_FAILED, nowhere.readProcessId(&pid, &data));
    testfiles::writeFile(path_, "not a pid");
    Filelock unlocked(path_);
    EXPECT_EQ(RC_READ_PID_FAILED, unlocked.readProcessId(&pid, &data));
    EXPECT_EQ(RC_WRITE_FAILED, unlocked.writeProcessId("data"));
    EXPECT_EQ(RC_UNLOCK_FAILED, unlocked.unlockFile());
    EXPECT_EQ("not a pid", testfiles::readFile(path_));  // a file we do not hold is never deleted
}

TEST(ParsePidFileTextTest, NumberThenOptionalData) {
    const struct {
        std::string text;
        int32_t pid;
        std::string data;
    } good[] = {{"123", 123, ""}, {"123 abc def", 123, "abc def"}, {"7 ", 7, ""}, {"42\n", 42, ""},
                {"42 data\r\n", 42, "data"}, {"2147483647", 2147483647, ""}};
    for (const auto& c : good) {
        int32_t pid = 0;
        std::string data = "stale";
        ASSERT_TRUE(parsePidFileText(c.text, &pid, &data)) << c.text;
        EXPECT_EQ(c.pid, pid) << c.text;
        EXPECT_EQ(c.data, data) << c.text;
    }
    for (const char* bad : {"", " 12", "-", "abc", "12x", "99999999999", "2147483648"}) {
        int32_t pid = 0;
        std::string data;
        EXPECT_FALSE(parsePidFileText(bad, &pid, &data)) << bad;
    }
}

TEST_F(FilelockTest, PidFileOfProcessCreatedAndRemoved) {
    ASSERT_EQ(RC_OK, createPidFile("\"" + path_ + "\""));
    EXPECT_EQ(std::to_string(getpid()), readElsewhere(path_));
    EXPECT_EQ(1, inChild([&] { return Filelock(path_).isLocked() ? 1 : 0; }));
    EXPECT_EQ(RC_OK, removePidFile());
    EXPECT_FALSE(testfiles::fileExists(path_));
    EXPECT_EQ(RC_UNLOCK_FAILED, removePidFile());
    EXPECT_NE(RC_OK, createPidFile(dir_.file("missing/agent.pid")));
}

TEST(SendAgentStartStatusTest, WritesOneCharacterToStatusPipe) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    EXPECT_EQ(RC_OK, sendAgentStartStatus(fds[1], '1'));
    EXPECT_EQ(RC_OK, sendAgentStartStatus(-1, '2'));  // no agent listening: nothing sent
    close(fds[1]);
    char got[4] = "";
    EXPECT_EQ(1, read(fds[0], got, sizeof(got)));
    EXPECT_EQ('1', got[0]);
    close(fds[0]);
    EXPECT_EQ(RC_WRITE_FAILED, sendAgentStartStatus(fds[1], '3'));
}

}  // namespace
