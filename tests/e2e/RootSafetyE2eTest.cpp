// The installed tool, run as root, against a hostile local user (nobody, through
// setpriv): names planted in /tmp before the rescan, a writer racing the script,
// a request that forges log lines, an open umask, device names that would pick
// the wrong LUN, and a log left cut off in the middle of an entry.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

#include "PathPlanner/linux/WalkTheBusLinux.h"
#include "gmock/gmock.h"
#include "tests/e2e/E2eHosts.h"

using ::testing::HasSubstr;
using ::testing::Not;
using testfiles::readFile;

namespace {

class RootSafetyE2eTest : public E2eTest {};

const char kAsAttacker[] = "setpriv --reuid=65534 --regid=65534 --clear-groups bash -c ";
const std::regex kEntryStart(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [A-Z]{3}\d{4}[IWE] )");

// A rescan on a host without a multipath driver. The package query runs before the
// rescan, so its fake starts the attack once, as the attacker, with the tool's pid
// as $1; "/tmp/pp<Name>$1" names are the attacker's files, removed at the end. The
// attacker cannot see the tool's process (the harness's /proc is private to root), so a
// looping attack runs for a fixed time that outlasts the run, then touches ppDone.
class AttackedRescan {
public:
    explicit AttackedRescan(const std::string& attack) {
        host.addFakeTool("sleep", "");
        host.addFakeTool("rpm", "[ -s " + pidFile_ + " ] || {\n" + kFindPlanner + "echo $p > " + pidFile_ + "\n" +
                                    kAsAttacker + shellQuote(attack) + " attacker $p\n}\necho 'package is not installed'\nexit 1");
        host.hideSbinTool("multipath");
    }
    ~AttackedRescan() {
        for (const char* name : {"rescanScript", "/tmp/ppKept", "/tmp/ppStolen", "/tmp/ppOwned", "/tmp/ppDone"}) {
            unlink((name[0] == '/' ? name : "/tmp/" + std::string(name)).append(pid()).c_str());
        }
    }
    RunResult run() {
        RunResult r = host.run({"-multipath", "5"});
        EXPECT_EQ(0, r.exitStatus) << r.describe();
        EXPECT_EQ("- - -\n", readFile(scan_)) << "the scan ran";
        return r;
    }
    std::string pid() const {
        std::string text = readFile(pidFile_);
        return text.substr(0, text.find('\n'));
    }
    std::string attackerFile(const std::string& name) const { return readFile("/tmp/pp" + name + pid()); }
    // The script is root's own file, holding exactly the script text.
    void expectOwnScript() const {
        const std::string path = "/tmp/rescanScript" + pid();
        struct stat info;
        ASSERT_EQ(0, lstat(path.c_str(), &info)) << path;
        ASSERT_TRUE(S_ISREG(info.st_mode)) << "a FIFO would block the read";
        EXPECT_EQ(0u, info.st_uid);
        EXPECT_EQ(kRescanScriptMode, info.st_mode & 07777);
        EXPECT_EQ(kRescanScript, readFile(path));
    }
    // Waits until a looping attack wrote /tmp/ppDone<pid>.
    void awaitAttackEnd() const {
        for (int i = 0; i < 150 && !testfiles::fileExists("/tmp/ppDone" + pid()); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    NamespaceHarness host;

private:
    std::string scan_ = placeScsi(&host);
    std::string pidFile_ = host.makeHostDir("planner") + "/pid";
};

// Whatever the attacker plants at the script's name or at the snapshot names, the run
// neither blocks nor writes through the plant, runs only its own script, and leaks
// nothing of it.
TEST_F(RootSafetyE2eTest, PlantedNamesNeitherBlockNorLeakNorRunTheirs) {
    const std::string victim = "/tmp/ppVictim" + std::to_string(getpid());
    // Two loops keep a link at this second's snapshot name, recreated as fast as they
    // can, so that one also lands between a removal and a copy.
    const std::string snapshotLoop = "(end=$((EPOCHSECONDS + 6)); while [ $EPOCHSECONDS -lt $end ];"
                                     " do ln -sf " + victim + " /tmp/scsi$EPOCHSECONDS 2>/dev/null; done;"
                                     " touch /tmp/ppDone$1) &\n";
    const struct {
        const char* name;
        std::string attack;
        bool privateScriptOnly;  // the default mode (decimal 755) lets any user rewrite the script
    } attacks[] = {
        {"FIFO at the script name", "mkfifo /tmp/rescanScript$1\n"
         "(timeout 20 cat /tmp/rescanScript$1 > /tmp/ppStolen$1 2>/dev/null &)\ntouch /tmp/ppDone$1", false},
        // The attacker keeps a second name for the planted file and keeps rewriting it.
        {"attacker's file at the script name", "f=/tmp/rescanScript$1\necho theirs > $f; chmod 666 $f; ln $f /tmp/ppKept$1\n"
         "(for i in $(seq 300); do printf '#!/bin/sh\\ntouch /tmp/ppOwned%s\\n' $1 > /tmp/ppKept$1;"
         " done; touch /tmp/ppDone$1) &", false},
        {"links at the snapshot names", snapshotLoop + snapshotLoop, false},
        // Rewrites the script whenever it exists, from before its creation until after the run.
        {"writer racing the script", "(f=/tmp/rescanScript$1; end=$((EPOCHSECONDS + 6)); while [ $EPOCHSECONDS -lt $end ];"
         " do [ -f $f ] && printf '#!/bin/sh\\ntouch /tmp/ppOwned%s\\n' $1 2>/dev/null > $f; done;"
         " touch /tmp/ppDone$1) &", true},
    };
    for (const auto& a : attacks) {
#ifndef PP_PRIVATE_RESCAN_SCRIPT
        if (a.privateScriptOnly) continue;  // closed only by -DPP_PRIVATE_RESCAN_SCRIPT=ON
#endif
        testfiles::writeFile(victim, "precious\n");
        AttackedRescan rescan(a.attack);
        const auto start = std::chrono::steady_clock::now();
        rescan.run();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << a.name;
        rescan.awaitAttackEnd();
        rescan.expectOwnScript();
        EXPECT_EQ("", rescan.attackerFile("Stolen")) << a.name;
        EXPECT_THAT(rescan.attackerFile("Kept"), Not(HasSubstr("Rescan"))) << a.name;
        EXPECT_FALSE(testfiles::fileExists("/tmp/ppOwned" + rescan.pid())) << a.name;
        EXPECT_EQ("precious\n", readFile(victim)) << a.name;
    }
    EXPECT_EQ(0, system(("find /tmp -maxdepth 1 -lname " + shellQuote(victim) + " -delete").c_str()));
    unlink(victim.c_str());
}

// After a run cut off in the middle of an entry, a request carrying a line feed and a
// forged entry: every entry starts on its own line with the tool's own stamp. An open
// umask still leaves the log and the trace unwritable by others.
TEST_F(RootSafetyE2eTest, NoEntryIsForgedOrJoinedToAnotherNorWritableByOthers) {
    NamespaceHarness host;
    installDrivers(&host, false, false);
    host.useUmask("000");
    const char cut[] = "2024-03-15 10:00:00.000 AGT0430I PathPlanner ended with";
    testfiles::writeFile(host.agentDir() + "/log/multipath.log", cut);
    const char forged[] = "2099-01-01 00:00:00.000 AGT0430I PathPlanner ended with 0";
    RunResult r = host.run({"-debug", "MAX", "-multipath", std::string("3;a\n") + forged});
    EXPECT_EQ(169, r.exitStatus) << r.describe();
    const std::string log = host.readAgentFile("log/multipath.log");
    EXPECT_THAT(log, HasSubstr(std::string("a\\n") + forged));
    const std::vector<std::string> lines = testfiles::splitLines(log);
    ASSERT_LE(3u, lines.size());
    EXPECT_EQ(cut, lines[0]);
    EXPECT_THAT(lines[1], HasSubstr("AGT0429I"));
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::regex_search(line, kEntryStart)) << line;
        EXPECT_NE(0u, line.rfind("2099", 0)) << line;
    }
    for (const std::string& line : testfiles::splitLines(host.readAgentFile("log/multipath.trace"))) {
        EXPECT_NE(0u, line.rfind("2099", 0)) << line;
    }
    for (const char* name : {"log/multipath.log", "log/multipath.trace"}) {
        struct stat info;
        ASSERT_EQ(0, stat((host.agentDir() + "/" + name).c_str(), &info)) << name;
        EXPECT_EQ(0644u, info.st_mode & 07777) << name;
    }
}

TEST_F(RootSafetyE2eTest, DeviceAndPathLookupsNeverPickAnotherLun) {
    const std::string devices = testfiles::testData("Multipath/data/lunctl-query-device.txt");
    const size_t one = devices.find("DEV#:   1"), two = devices.find("DEV#:   2"), twelve = devices.find("DEV#:  12");
    const size_t first = devices.find("DEV#");
    const std::string only12 = devices.substr(0, one) + devices.substr(two);
    const std::string twelveFirst = devices.substr(twelve) + devices.substr(first, twelve - first);
    const struct {
        std::string listing;
        std::string request;
        int exitStatus;
        std::vector<std::string> lunctlCalls;
    } cases[] = {
        {only12, "2;lundev1", 170, {"query device"}},
        {devices, "2;OPEN", 170, {"query device"}},
        {devices, "2;0768018101BF28", 170, {"query device"}},
        {devices, "0;lundev0;20000000c9ffffff", 170, {"query device", "query wwpn"}},
        // lundev12's paths are all host2's (...3b10); the host3 paths listed after its block are not its.
        {twelveFirst, "0;lundev12;10000000c95a3b11", 170, {"query device", "query wwpn"}},
        {twelveFirst, "0;lundev12;10000000c95a3b10", 0,
         {"query device", "query wwpn", "set device 12 path 0 offline"}},
    };
    for (const auto& c : cases) {
        // The vendor driver, its device query answered with the case's listing.
        NamespaceHarness host;
        installDrivers(&host, true, false);
        const std::string dir = host.makeHostDir("lunctl");
        testfiles::writeFile(dir + "/query-device", c.listing);
        testfiles::writeFile(dir + "/query-wwpn", testfiles::testData("Multipath/data/lunctl-query-wwpn.txt"));
        host.addFakeTool("lunctl", "[ \"$1\" = query ] && cat " + dir + "/query-$2\nexit 0");
        RunResult r = host.run({"-multipath", c.request});
        EXPECT_EQ(c.exitStatus, r.exitStatus) << c.request << ": " << r.describe();
        EXPECT_EQ(c.lunctlCalls, host.toolCalls("lunctl")) << c.request;
    }
}

}  // namespace
