// Runs the rescan script in a private mount namespace with fake /proc, /sys/class
// and /tmp trees, a sleep that does not wait, and fakes that play the kernel.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "PathPlanner/linux/WalkTheBusLinux.h"
#include "tests/fakes/FakeTools.h"

namespace {

// Three 2.6 hosts: host2 and host3 scan through the FIFO kernel, host4 is a plain
// file; host2 has a Fibre Channel LIP file, host3's is not a regular file.
const char kSysfsHosts[] = R"(
mkdir -p proc/scsi sysclass/scsi_host/host2 sysclass/scsi_host/host3 sysclass/scsi_host/host4 \
    sysclass/fc_host/host2 sysclass/fc_host/host3/issue_lip
mkfifo sysclass/scsi_host/host2/scan sysclass/scsi_host/host3/scan
: > sysclass/scsi_host/host4/scan; : > sysclass/fc_host/host2/issue_lip
printf 'Attached devices:\nHost: scsi2 Channel: 00 Id: 00 Lun: 00\n' > proc/scsi/scsi
)";
// Two 2.4 hosts: qla2300's entry "2" by name, lpfc's entry by its status file (5).
const char kProcHosts[] = R"(
mkdir -p proc/scsi/sg proc/scsi/qla2300 proc/scsi/lpfc/0 sysclass/block
: > proc/scsi/sg/devices; : > proc/scsi/qla2300/add_map; echo 'QLogic driver' > proc/scsi/qla2300/2
printf 'Emulex LightPulse\nSCSI host number: 5\n' > proc/scsi/lpfc/0/status
echo 'Host: scsi2 Channel: 00 Id: 00 Lun: 00' > table
{ echo 'Attached devices:'; cat table; } > proc/scsi/scsi
)";

size_t countLines(const std::string& text, const std::string& line) {
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
    return count;
}

// The stage lives in the build tree; /tmp is replaced inside the namespace.
class RescanScriptTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (system("unshare -m true >/dev/null 2>&1") != 0) GTEST_SKIP() << "private mount namespaces are refused here";
        std::string pattern = PP_BINARY_DIR "/rescanXXXXXX";
        stage_ = mkdtemp(&pattern[0]) ? pattern : "";
        testfiles::writeFile(stage_ + "/rescan.sh", kRescanScript);
    }
    void TearDown() override {
        std::error_code ignored;
        if (!stage_.empty()) std::filesystem::remove_all(stage_, ignored);
    }
    // Builds the stage with setup, then runs the script with the stage's proc, sysclass and tmp as
    // /proc, /sys/class and /tmp. lunPass >= 0 starts the FIFO kernel, adding a LUN on that pass (0: never).
    int run(const std::string& setup, int lunPass = -1) {
        std::string kernel = lunPass < 0 ? "" : "NEW_LUN_PASS=" + std::to_string(lunPass) + " bash $F/fifo-kernel &";
        // The checkout itself may live under /tmp, so the stage and its fakes are reached
        // through /mnt once the stage's tmp has replaced /tmp.
        testfiles::writeFile(stage_ + "/run.sh", "cd " + stage_ + " && mkdir -p proc sysclass tmp fakes\n"
                             "cp " PP_SOURCE_DIR "/tests/fakes/rescan/* fakes/\n" + setup + "\n"
                             "mount --bind " + stage_ + " /mnt && cd / || exit 99\nS=/mnt F=/mnt/fakes\n"
                             "mount --bind $S/proc /proc && mount --bind $S/sysclass /sys/class && "
                             "mount --bind $S/tmp /tmp || exit 99\nexport RESCAN_STAGE=$S PATH=$F:$PATH\n" + kernel +
                             "\nbash $S/rescan.sh >$S/out 2>$S/err; rc=$?; kill $! 2>/dev/null; exit $rc\n");
        int status = system(("unshare -m --propagation private bash " + stage_ + "/run.sh").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string read(const std::string& rel) const { return testfiles::readFile(stage_ + "/" + rel); }
    bool empty(const std::string& rel) const { return std::filesystem::is_empty(stage_ + "/" + rel); }

    std::string stage_;
};

TEST_F(RescanScriptTest, MissingSubsystemOrHostsExitOne) {
    EXPECT_EQ(1, run("mkdir sysclass/scsi_host"));
    EXPECT_EQ("Error: SCSI subsystem not active\n", read("out"));
    EXPECT_EQ(1, run("mkdir -p proc/scsi sysclass/scsi_host"));
    EXPECT_EQ("No SCSI host adapters found in /sys\n", read("out"));
}

TEST_F(RescanScriptTest, SysfsNewLunOnSecondPassEndsTheLoop) {
    EXPECT_EQ(0, run(kSysfsHosts, 2));
    EXPECT_EQ("host2 - - -\nhost3 - - -\nhost2 - - -\nhost3 - - -\n", read("scans.log"));
    EXPECT_EQ("10\n", read("sleep.log"));
    EXPECT_EQ("- - -\n", read("sysclass/scsi_host/host4/scan"));
    EXPECT_EQ("1\n", read("sysclass/fc_host/host2/issue_lip"));
    EXPECT_TRUE(empty("sysclass/fc_host/host3/issue_lip"));
    EXPECT_EQ("", read("err"));
    EXPECT_TRUE(empty("tmp"));  // the /proc/scsi/scsi snapshots are removed
}

TEST_F(RescanScriptTest, ProcScsiFindsHostsAndAddsEachAddress) {
    EXPECT_EQ(0, run(std::string(kProcHosts) + "printf '2 0 1 0\\n2 0 1 1\\n' > present"));
    std::string adds = read("adds.log");
    // Host 5 (from lpfc's status file) first: LUN 0 of each target only, as nothing answers.
    EXPECT_EQ(0u, adds.find("5 0 0 0\n5 0 1 0\n5 0 2 0\n"));
    // Host 2: LUN 0 of target 0 is listed already, so its higher LUNs are tried;
    // target 1 answers at LUNs 0 and 1 and the LUNs above are still tried.
    EXPECT_EQ(0u, countLines(adds, "2 0 0 0\n"));
    EXPECT_NE(std::string::npos, adds.find("2 0 0 7\n2 0 1 0\n2 0 1 1\n2 0 1 2\n"));
    EXPECT_EQ(77u, countLines(adds, "\n"));
    EXPECT_EQ("Found new device: Host: scsi2 Channel: 00 Id: 01 Lun: 00\n"
              "Found new device: Host: scsi2 Channel: 00 Id: 01 Lun: 01\nFound 2 device(s).\n",
              read("out"));
    EXPECT_EQ("", read("sleep.log"));
}

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

}  // namespace
