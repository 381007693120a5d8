// Runs the rescan script in a private mount namespace with fake /proc, /sys/class
// and /tmp trees, a sleep that does not wait, and fakes that play the kernel.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "PathPlanner/linux/WalkTheBusLinux.h"
#include "gtest/gtest.h"
#include "tests/fakes/zpl/FakeTools.h"

namespace {

using zpltest::readFile;
using zpltest::writeFile;

const std::string kFakes = PP_SOURCE_DIR "/tests/fakes/zpl/rescan";

bool namespacesAllowed() { return system("unshare -m true >/dev/null 2>&1") == 0; }

size_t countLines(const std::string& text, const std::string& line) {
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
    return count;
}

class RescanSandbox {
public:
    // The stage lives in the build tree: /tmp is replaced inside the namespace.
    RescanSandbox() : stage_(zpltest::makeTempDir(PP_BINARY_DIR)) {
        for (const char* dir : {"/proc", "/sysclass", "/tmp"}) mkdir((stage_ + dir).c_str(), 0755);
        writeFile(stage_ + "/rescan.sh", kRescanScript);
    }
    ~RescanSandbox() {
        std::error_code ignored;
        std::filesystem::remove_all(stage_, ignored);
    }
    void dir(const std::string& rel) { std::filesystem::create_directories(stage_ + "/" + rel); }
    void file(const std::string& rel, const std::string& text) {
        dir(std::filesystem::path(rel).parent_path());
        writeFile(stage_ + "/" + rel, text);
    }
    void fifo(const std::string& rel) {
        dir(std::filesystem::path(rel).parent_path());
        mkfifo((stage_ + "/" + rel).c_str(), 0600);
    }
    // Runs the script; newLunPass > 0 starts the FIFO kernel (0: it never adds a LUN).
    int run(int newLunPass = -1) {
        std::string s = stage_;
        std::string kernel = newLunPass < 0 ? "" : "NEW_LUN_PASS=" + std::to_string(newLunPass) + " bash " +
                                                       kFakes + "/fifo-kernel & kernel=$!; ";
        std::string inner = "mount --bind " + s + "/proc /proc && mount --bind " + s +
                            "/sysclass /sys/class && mount --bind " + s + "/tmp /tmp || exit 99; export RESCAN_STAGE=" +
                            s + " PATH=" + kFakes + ":$PATH; " + kernel + "bash " + s + "/rescan.sh >" + s +
                            "/out 2>" + s + "/err; rc=$?; [ -n \"$kernel\" ] && kill $kernel; exit $rc";
        std::string command = "unshare -m --propagation private bash -c '" + inner + "'";
        int status = system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string read(const std::string& rel) const { return readFile(stage_ + "/" + rel); }
    bool empty(const std::string& rel) const { return std::filesystem::is_empty(stage_ + "/" + rel); }

private:
    std::string stage_;
};

// Three 2.6 hosts: host2 and host3 scan through the FIFO kernel, host4 is a plain
// file; host2 has a Fibre Channel LIP file, host3's is not a regular file.
void buildSysfsHosts(RescanSandbox* box) {
    box->file("proc/scsi/scsi", "Attached devices:\nHost: scsi2 Channel: 00 Id: 00 Lun: 00\n");
    box->fifo("sysclass/scsi_host/host2/scan");
    box->fifo("sysclass/scsi_host/host3/scan");
    box->file("sysclass/scsi_host/host4/scan", "");
    box->file("sysclass/scsi_host/host2/proc_name", "qla2xxx\n");
    box->file("sysclass/fc_host/host2/issue_lip", "");
    box->dir("sysclass/fc_host/host3/issue_lip");
}

// Two 2.4 hosts: qla2300's entry "2" by name, lpfc's entry by its status file (5).
void buildProcHosts(RescanSandbox* box, const std::string& present) {
    box->file("proc/scsi/sg/devices", "");
    box->file("proc/scsi/device_info", "");
    box->file("proc/scsi/dummy", "");
    box->file("proc/scsi/qla2300/2", "QLogic driver\n");
    box->file("proc/scsi/qla2300/add_map", "");
    box->file("proc/scsi/lpfc/0/status", "Emulex LightPulse\nSCSI host number: 5\n");
    box->file("table", "Host: scsi2 Channel: 00 Id: 00 Lun: 00\n");
    box->file("proc/scsi/scsi", "Attached devices:\n" + box->read("table"));
    box->file("present", present);
    box->dir("sysclass/block");
}

class RescanScriptTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!namespacesAllowed()) GTEST_SKIP() << "private mount namespaces are refused here (unshare -m)";
    }
};

TEST_F(RescanScriptTest, MissingSubsystemOrHostsExitOne) {
    struct Case {
        bool procScsi;
        const char* out;
    } cases[] = {{false, "Error: SCSI subsystem not active\n"}, {true, "No SCSI host adapters found in /sys\n"}};
    for (const Case& c : cases) {
        RescanSandbox box;
        if (c.procScsi) box.file("proc/scsi/scsi", "Attached devices:\n");
        box.dir("sysclass/scsi_host");
        EXPECT_EQ(1, box.run()) << c.out;
        EXPECT_EQ(c.out, box.read("out"));
    }
}

TEST_F(RescanScriptTest, SysfsNewLunOnSecondPassEndsTheLoop) {
    RescanSandbox box;
    buildSysfsHosts(&box);
    EXPECT_EQ(0, box.run(2));
    EXPECT_EQ("host2 - - -\nhost3 - - -\nhost2 - - -\nhost3 - - -\n", box.read("scans.log"));
    EXPECT_EQ("10\n", box.read("sleep.log"));
    EXPECT_EQ("- - -\n", box.read("sysclass/scsi_host/host4/scan"));
    EXPECT_EQ("1\n", box.read("sysclass/fc_host/host2/issue_lip"));
    EXPECT_TRUE(box.empty("sysclass/fc_host/host3/issue_lip"));
    EXPECT_EQ("", box.read("err"));
    EXPECT_TRUE(box.empty("tmp"));  // the /proc/scsi/scsi snapshots are removed
}

TEST_F(RescanScriptTest, SysfsNothingNewRunsFourPasses) {
    RescanSandbox box;
    buildSysfsHosts(&box);
    EXPECT_EQ(0, box.run(0));
    EXPECT_EQ(4u, countLines(box.read("scans.log"), "host2 - - -\n"));
    EXPECT_EQ(4u, countLines(box.read("scans.log"), "host3 - - -\n"));
    EXPECT_EQ("10\n10\n10\n", box.read("sleep.log"));
    EXPECT_EQ("", box.read("out"));
    EXPECT_TRUE(box.empty("tmp"));
}

TEST_F(RescanScriptTest, ProcScsiFindsHostsAndAddsEachAddress) {
    RescanSandbox box;
    buildProcHosts(&box, "2 0 1 0\n2 0 1 1\n");
    EXPECT_EQ(0, box.run());
    std::string adds = box.read("adds.log");
    // Host 5 (from lpfc's status file) first: LUN 0 of each target only, as nothing answers.
    EXPECT_EQ(0u, adds.find("5 0 0 0\n5 0 1 0\n5 0 2 0\n"));
    // Host 2: LUN 0 of target 0 is listed already, so its higher LUNs are tried;
    // target 1 answers at LUNs 0 and 1 and the LUNs above are still tried.
    EXPECT_EQ(0u, countLines(adds, "2 0 0 0\n"));
    EXPECT_NE(std::string::npos, adds.find("2 0 0 7\n2 0 1 0\n2 0 1 1\n2 0 1 2\n"));
    EXPECT_EQ(77u, countLines(adds, "\n"));
    EXPECT_EQ("Found new device: Host: scsi2 Channel: 00 Id: 01 Lun: 00\n"
              "Found new device: Host: scsi2 Channel: 00 Id: 01 Lun: 01\n"
              "Found 2 device(s).\n",
              box.read("out"));
    EXPECT_EQ("", box.read("sleep.log"));
}

TEST_F(RescanScriptTest, ProcScsiNothingNewRunsFourPasses) {
    RescanSandbox box;
    buildProcHosts(&box, "");
    EXPECT_EQ(0, box.run());
    EXPECT_EQ(4u, countLines(box.read("out"), "Found 0 device(s).\n"));
    EXPECT_EQ("10\n10\n10\n", box.read("sleep.log"));
    EXPECT_EQ(4u * 70u, countLines(box.read("adds.log"), "\n"));
}

}  // namespace
