#include "PathPlanner/linux/WalkTheBusLinux.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "tests/fakes/FakeTools.h"

namespace {

using ::testing::HasSubstr;

class WalkTheBusLinuxTest : public ::testing::Test {
protected:
    void TearDown() override { unlink(path_.c_str()); }
    // A vehicle without a driver whose pauses are only recorded.
    std::unique_ptr<WalkTheBusLinux> vehicle(const std::string& script) {
        Sleeper sleeper = [this](uint32_t seconds) { sleeps_.push_back(seconds); };
        return std::make_unique<WalkTheBusLinux>(nullptr, sleeper, script);
    }
    const std::string path_ = "/tmp/rescanScript" + std::to_string(getpid());
    std::vector<uint32_t> sleeps_;
};

TEST_F(WalkTheBusLinuxTest, NameThatCannotBeFreedEndsTheWalk) {
    ASSERT_EQ(0, mkdir(path_.c_str(), 0777));  // unlink cannot remove a directory
    fakes::TraceCapture trace;
    EXPECT_EQ(RC_CANCELLED, vehicle("echo must not run")->walkTheBus());
    rmdir(path_.c_str());
    EXPECT_THAT(trace.text(), HasSubstr("writeScript() Unable to create rescan script.\n"));
    EXPECT_TRUE(sleeps_.empty());
}

TEST_F(WalkTheBusLinuxTest, FailedWriteRemovesScript) {
    // A file-size limit below the script's length makes the write fail part-way;
    // the limit is set in the death test's child only.
    auto writeUnderLimit = [this]() {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit;
        limit.rlim_cur = limit.rlim_max = 100;
        setrlimit(RLIMIT_FSIZE, &limit);
        std::unique_ptr<WalkTheBusLinux> walker = vehicle(std::string(4096, '#'));  // named after the child's id
        return walker->writeScript() == RC_CANCELLED && access(walker->scriptPath().c_str(), F_OK) != 0 ? 0 : 1;
    };
    EXPECT_EXIT(_exit(writeUnderLimit()), ::testing::ExitedWithCode(0), "");
}

volatile sig_atomic_t alarms = 0;
void countAlarm(int) { alarms = alarms + 1; }

TEST(WaitThroughTest, SignalDoesNotShortenTheWait) {
    struct sigaction action = {};
    action.sa_handler = countAlarm;  // no SA_RESTART: the sleep is interrupted
    struct sigaction previous;
    sigaction(SIGALRM, &action, &previous);
    struct itimerval timer = {{0, 0}, {0, 100000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    auto start = std::chrono::steady_clock::now();
    waitThrough(std::chrono::milliseconds(400));
    auto elapsed = std::chrono::steady_clock::now() - start;
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_EQ(1, alarms);
    EXPECT_GE(elapsed, std::chrono::milliseconds(400));
}

}  // namespace
