#include "Multipath/linux/MultipathDMLinux.h"

#include <algorithm>

#include "tests/fakes/FakeTools.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::HasSubstr;

std::string fixture(const std::string& name) { return testfiles::testData("Multipath/linux/data/" + name); }

// A driver whose commands holding a chosen word cannot be run.
class FailingDriver : public MultipathDMLinux {
public:
    FailingDriver(const std::string& dir, std::string word) : MultipathDMLinux(dir), word_(std::move(word)) {}

protected:
    CommandResult runTool(const std::vector<std::string>& args) override {
        if (std::find(args.begin(), args.end(), word_) == args.end()) return MultipathDMLinux::runTool(args);
        CommandResult run;
        run.created = true;
        run.cmdLine = args[0] + " " + word_;
        return run;
    }

private:
    std::string word_;
};

// Fake rpm, dmsetup and multipathd. The topology listing and its failures are
// TopologyE2eTest's.
class MultipathDMLinuxTest : public ::testing::Test {
protected:
    fakes::FakeTools tools{"rpm", "dmsetup", "multipathd"};
};

// The package list goes through the real awk, so its filter is exercised too.
TEST_F(MultipathDMLinuxTest, VersionFromPackageQuery) {
    const char* cases[][5] = {  // packages listed, what "rpm -q" says and on stderr, version, trace
        {"bash\nmultipath-tools-0.9.4-3\n", "multipath-tools-0.9.4-3\nsecond\n", "", "multipath-tools-0.9.4-3",
         "multipath driver version: multipath-tools-0.9.4-3\n"},
        {"multipath-tools\n", "package multipath-tools is not installed\n", "", "",
         "No multipath tools version installed.\n"},
        {"multipath-tools-0.9.4-3\n", "multipath-tools-0.9.4-3\n", "warning: rpmdb is locked\n", "",
         "Error getting Multipath version: warning: rpmdb is locked\\n\n"},  // the line feed escaped
    };
    for (const auto& c : cases) {
        fakes::TraceCapture trace;
        tools.answer("rpm.-qa", c[0]);
        tools.answer("rpm", c[1], 0, c[2]);
        MultipathDMLinux driver(tools.dir());
        EXPECT_EQ(driver.getVersion(), c[3]) << c[0];
        EXPECT_THAT(trace.text(), HasSubstr(c[4])) << c[0];
    }
}

// A table that cannot be read stops the switch rather than count the map as not queueing.
TEST_F(MultipathDMLinuxTest, SwitchStopsAtACommandThatCannotRun) {
    tools.answer("dmsetup.ls", fixture("dmsetup-ls.two-maps.stdout"));
    fakes::LogCapture log;
    DmQueueingSwitchResult result;
    EXPECT_EQ(FailingDriver(tools.dir(), "table").setFailIfNoPath(&result), RC_OK);
    EXPECT_TRUE(result.stopped);
    EXPECT_TRUE(result.notQueueing.empty());
    EXPECT_EQ(result.failedCommand, tools.dir() + "dmsetup table");
    EXPECT_EQ(tools.calls("dmsetup"), Lines{"ls"});
    EXPECT_THAT(log.text(), HasSubstr("STA0356E"));
}

// The command is made of fixed words and the device; a name that could be read as
// an option or shell text never reaches multipathd.
TEST_F(MultipathDMLinuxTest, PathStateThroughMultipathd) {
    const struct { const char* device; bool fail; const char* out; int status; int32_t rc; } cases[] = {
        {"sda", true, "ok\n", 0, RC_OK},
        {"sdb", false, "ok\n", 0, RC_OK},
        {"sdc", true, "fail\n", 1, RC_DRIVER_CMD_FAILED},
        {"sdd", true, "fail\n", 0, RC_DRIVER_CMD_FAILED},
        {"-v3", true, "ok\n", 0, RC_BAD_ARGS},
        {"sde;reboot", true, "ok\n", 0, RC_BAD_ARGS},
    };
    Lines expected;
    for (const auto& c : cases) {
        std::string call = std::string(c.fail ? "fail" : "reinstate") + " path " + c.device;
        tools.answer("multipathd." + std::string(c.fail ? "fail" : "reinstate") + ".path." + c.device, c.out, c.status);
        CommandResult run;
        EXPECT_EQ(MultipathDMLinux(tools.dir()).changePathState(c.device, c.fail, &run), c.rc) << c.device;
        if (c.rc != RC_BAD_ARGS) expected.push_back(call);
    }
    EXPECT_EQ(tools.calls("multipathd"), expected);
}

}  // namespace
