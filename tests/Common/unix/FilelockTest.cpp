#include "Common/unix/Filelock.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The content as another process reads it. Opening and closing the file here would
// drop a lock this process holds on it.
std::string readElsewhere(const std::string& path) {
    int fds[2];
    if (pipe(fds) != 0) return "<pipe failed>";
    pid_t pid = fork();
    if (pid == 0) {
        std::string text = readFile(path);
        _exit(write(fds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string text;
    char buf[256];
    for (ssize_t got; (got = read(fds[0], buf, sizeof(buf))) > 0;) text.append(buf, static_cast<size_t>(got));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return text;
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

int exitCodeOf(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Runs body in a forked child and returns its exit code (body's result).
template <typename Body>
int inChild(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return exitCodeOf(pid);
}

class FilelockTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/filelockXXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        dir_ = dir;
        path_ = dir_ + "/agent.pid";
    }
    void TearDown() override {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    std::string dir_;
    std::string path_;
};

// What a second process sees of the lock held by the test process, as exit-code bits.
int secondProcessView(const std::string& path, int32_t holder) {
    Filelock other(path);
    int32_t pid = 0;
    std::string data;
    int bits = 0;
    if (other.lockFile() == RC_ALREADY_LOCKED) bits |= 1;
    if (other.isLocked()) bits |= 2;
    if (other.readProcessId(&pid, &data) == RC_OK && pid == holder) bits |= 4;
    if (data == "agent data") bits |= 8;
    return bits;
}

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
    Filelock again(path_);
    EXPECT_FALSE(again.isLocked());  // the holder's own lock never conflicts
    EXPECT_EQ(15, inChild([&] { return secondProcessView(path_, self); }));

    EXPECT_EQ(RC_OK, lock.unlockFile());
    EXPECT_FALSE(exists(path_));
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
    EXPECT_EQ(std::to_string(holder), readFile(path_));

    kill(holder, SIGKILL);
    EXPECT_EQ(1000 + SIGKILL, exitCodeOf(holder));
    EXPECT_TRUE(exists(path_));  // left behind, no longer locked
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(RC_OK, lock.lockFile());
    EXPECT_EQ(RC_OK, lock.writeProcessId(std::string()));
    EXPECT_EQ(std::to_string(getpid()), readElsewhere(path_));
    EXPECT_TRUE(inChild([&] { return Filelock(path_).isLocked() ? 1 : 0; }));
    EXPECT_EQ(RC_OK, lock.unlockFile());
}

TEST_F(FilelockTest, WriteProcessIdReplacesLongerContent) {
    std::ofstream(path_) << "123456789 an old and much longer text than the new one";
    Filelock lock(path_);
    ASSERT_EQ(RC_OK, lock.lockFile());
    EXPECT_EQ(RC_OK, lock.writeProcessId("x"));
    EXPECT_EQ(std::to_string(getpid()) + " x", readElsewhere(path_));
    EXPECT_EQ(RC_OK, lock.writeProcessId(std::string()));
    EXPECT_EQ(std::to_string(getpid()), readElsewhere(path_));
    EXPECT_EQ(RC_OK, lock.unlockFile());
}

TEST_F(FilelockTest, FailuresReturnTheirCodes) {
    Filelock unnamed("");
    EXPECT_EQ(RC_LOCK_FAILED, unnamed.lockFile());
    Filelock nowhere("/nonexistent-dir/agent.pid");
    EXPECT_EQ(RC_LOCK_FAILED, nowhere.lockFile());
    int32_t pid = 0;
    std::string data;
    EXPECT_EQ(RC_READ_PID_FAILED, nowhere.readProcessId(&pid, &data));
    EXPECT_FALSE(nowhere.isLocked());

    std::ofstream(path_) << "not a pid";
    Filelock unlocked(path_);
    EXPECT_EQ(RC_READ_PID_FAILED, unlocked.readProcessId(&pid, &data));
    EXPECT_EQ(RC_WRITE_FAILED, unlocked.writeProcessId("data"));
    EXPECT_EQ(RC_UNLOCK_FAILED, unlocked.unlockFile());
    EXPECT_EQ("not a pid", readFile(path_));  // a file we do not hold is never deleted
}

TEST(ParsePidFileTextTest, NumberThenOptionalData) {
    const struct {
        std::string text;
        int32_t pid;
        std::string data;
    } good[] = {
        {"123", 123, ""},
        {"123 abc def", 123, "abc def"},
        {"7 ", 7, ""},
        {"42\n", 42, ""},
        {"42 data\r\n", 42, "data"},
        {"2147483647", 2147483647, ""},
    };
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
    EXPECT_FALSE(exists(path_));
    EXPECT_EQ(RC_UNLOCK_FAILED, removePidFile());
    EXPECT_NE(RC_OK, createPidFile(dir_ + "/missing/agent.pid"));
    EXPECT_EQ(RC_UNLOCK_FAILED, removePidFile());
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
