#include "PathPlanner/linux/WalkTheBusLinux.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/fakes/zpl/FakeTools.h"

namespace {

using zpltest::readFile;
using zpltest::writeFile;

// Counts what the vehicle asks of its driver; the counters outlive the driver.
struct DriverLog {
    int reconfigurations = 0;
};

class FakeDriver : public MultipathDriver {
public:
    FakeDriver(DriverLog* log, int32_t rc) : log_(log), rc_(rc) {}
    int32_t setPolicy(int32_t, const std::vector<std::string>&) override { return RC_OK; }
    int32_t setState(int32_t, const std::string&, const std::vector<std::string>&) override { return RC_OK; }
    std::vector<std::string> getErrorDevices() override { return {}; }
    std::vector<std::string> getErrorWWPNs() override { return {}; }
    std::string getVersion() override { return "fake-1.0"; }
    int32_t performDynamicReconfiguration() override {
        ++log_->reconfigurations;
        return rc_;
    }

private:
    DriverLog* log_;
    int32_t rc_;
};

class WalkTheBusLinuxTest : public ::testing::Test {
protected:
    void TearDown() override { unlink(path_.c_str()); }
    std::unique_ptr<WalkTheBusLinux> vehicle(const std::string& script, bool withDriver = false, int32_t driverRc = 0) {
        std::unique_ptr<MultipathDriver> driver;
        if (withDriver) driver.reset(new FakeDriver(&driverLog_, driverRc));
        return std::unique_ptr<WalkTheBusLinux>(
            new WalkTheBusLinux(std::move(driver), [this](uint32_t s) { sleeps_.push_back(s); }, script));
    }
    const std::string path_ = "/tmp/rescanScript" + std::to_string(getpid());
    DriverLog driverLog_;
    std::vector<uint32_t> sleeps_;
};

TEST_F(WalkTheBusLinuxTest, ScriptPathCarriesProcessId) {
    EXPECT_EQ(path_, vehicle("")->scriptPath());
}

TEST_F(WalkTheBusLinuxTest, WritesWholeScriptWithDecimalMode) {
    writeFile(path_, std::string(10000, 'x'));  // a longer leftover is truncated
    WalkTheBusLinux product(nullptr);
    EXPECT_EQ(RC_OK, product.writeScript());
    EXPECT_EQ(kRescanScript, readFile(path_));
    struct stat info;
    ASSERT_EQ(0, stat(path_.c_str(), &info));
    EXPECT_EQ(01363u, info.st_mode & 07777);
}

TEST_F(WalkTheBusLinuxTest, RefusesLinkPlantedAtScriptPath) {
    std::string dir = zpltest::makeTempDir();
    std::string target = dir + "/victim";
    writeFile(target, "precious\n");
    ASSERT_EQ(0, symlink(target.c_str(), path_.c_str()));
    zpltest::TraceCapture trace;
    std::unique_ptr<WalkTheBusLinux> walker = vehicle("echo must not run", true);
    EXPECT_EQ(RC_CANCELLED, walker->walkTheBus());
    EXPECT_EQ("precious\n", readFile(target));
    EXPECT_TRUE(trace.has("writeScript() Unable to create rescan script.\n"));
    EXPECT_TRUE(sleeps_.empty());
    EXPECT_EQ(0, driverLog_.reconfigurations);
    unlink(target.c_str());
    rmdir(dir.c_str());
}

TEST_F(WalkTheBusLinuxTest, FailedWriteRemovesScript) {
    // A file-size limit below the script's length makes the write fail part-way;
    // the limit is set in the death test's child only.
    auto writeUnderLimit = [this]() {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit;
        limit.rlim_cur = limit.rlim_max = 100;
        setrlimit(RLIMIT_FSIZE, &limit);
        int32_t rc = vehicle(std::string(4096, '#'))->writeScript();
        return rc == RC_CANCELLED && access(path_.c_str(), F_OK) != 0 ? 0 : 1;
    };
    EXPECT_EXIT(_exit(writeUnderLimit()), ::testing::ExitedWithCode(0), "");
}

TEST_F(WalkTheBusLinuxTest, WalkResults) {
    struct Case {
        const char* script;
        bool withDriver;
        int32_t driverRc;
        int32_t rc;
        size_t sleeps;
        const char* trace;
    } cases[] = {
        {"echo scanned", true, RC_OK, RC_OK, 1, "Rescan output: scanned\n"},
        {"echo scanned", true, RC_DRIVER_CMD_FAILED, RC_DRIVER_CMD_FAILED, 1, "Waiting 60 seconds for system refresh...\n"},
        {"echo scanned", false, RC_OK, RC_OK, 0, "Exit: walkTheBus(), rc = 0\n"},
        {"echo partial; exit 1", true, RC_OK, 1, 0, "walkTheBus() Rescan output: partial\n"},
    };
    for (const Case& c : cases) {
        zpltest::TraceCapture trace;
        sleeps_.clear();
        driverLog_.reconfigurations = 0;
        std::string script = std::string("#!/bin/bash\n") + c.script + "\n";
        EXPECT_EQ(c.rc, vehicle(script, c.withDriver, c.driverRc)->walkTheBus()) << c.script;
        EXPECT_EQ(c.sleeps, sleeps_.size()) << c.script;
        if (c.sleeps > 0) {
            EXPECT_EQ(60u, sleeps_[0]);
        }
        EXPECT_EQ(static_cast<int>(c.sleeps), driverLog_.reconfigurations) << c.script;
        EXPECT_TRUE(trace.has(c.trace)) << c.trace;
        EXPECT_EQ(script, readFile(path_)) << "the script stays in /tmp";
    }
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
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    waitThrough(std::chrono::milliseconds(400));
    clock_gettime(CLOCK_MONOTONIC, &end);
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_EQ(1, alarms);
    double elapsed = (end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
    EXPECT_GE(elapsed, 0.4);
}

}  // namespace
