#include "Common/CmdExecer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
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

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// The two capture files named at the end of a command line built with temporary files.
void captureNames(const std::string& cmdLine, std::string* out, std::string* err) {
    std::string::size_type o = cmdLine.rfind(" >>");
    std::string::size_type e = cmdLine.rfind(" 2>>");
    *out = cmdLine.substr(o + 3, e - o - 3);
    *err = cmdLine.substr(e + 4);
}

TEST(CmdExecerTest, BuildsQuotedProgramAndAppendingRedirections) {
    CmdExecer exec({"/bin/echo", "a", "b c"}, "/tmp/out", "/tmp/err");
    EXPECT_EQ("\"/bin/echo\" a b c >>/tmp/out 2>>/tmp/err", exec.getCommand());
}

TEST(CmdExecerTest, NoQuoteLeavesProgramBare) {
    CmdExecer exec({"/bin/true"}, "/tmp/o", "/tmp/e", true);
    EXPECT_EQ("/bin/true >>/tmp/o 2>>/tmp/e", exec.getCommand());
}

TEST(CmdExecerTest, EmptyArgumentsRefuseToRun) {
    CmdExecer exec({});
    EXPECT_EQ("", exec.getCommand());
    EXPECT_EQ(RC_NOT_RUN, exec.runCommand());
    EXPECT_EQ("", exec.sysOut);
    EXPECT_EQ("", exec.sysErr);
}

TEST(CmdExecerTest, TemporaryCaptureFilesAreDistinctAndDeleted) {
    std::string out, err;
    {
        CmdExecer exec({"/bin/true"});
        captureNames(exec.getCommand(), &out, &err);
        EXPECT_EQ(0u, out.find("/tmp/hka"));
        EXPECT_EQ(0u, err.find("/tmp/hka"));
        EXPECT_NE(out, err);
        EXPECT_TRUE(exists(out));
        EXPECT_TRUE(exists(err));
    }
    EXPECT_FALSE(exists(out));
    EXPECT_FALSE(exists(err));
}

TEST(CmdExecerTest, ExitCodesAndCapturedStreams) {
    struct Case {
        const char* script;
        int32_t result;
        const char* out;
        const char* err;
    } cases[] = {
        {"exit 0", 0, "", ""},
        {"echo hello; exit 3", 3, "hello\n", ""},
        {"echo oops >&2; exit 255", 255, "", "oops\n"},
        {"exec /nonexistent/program", 127, "", nullptr},  // the shell's own 127, not the raw one
    };
    for (const Case& c : cases) {
        CmdExecer exec({"/bin/sh", "-c", std::string("'") + c.script + "'"});
        EXPECT_EQ(c.result, exec.runCommand()) << c.script;
        EXPECT_EQ(c.out, exec.sysOut) << c.script;
        if (c.err) {
            EXPECT_EQ(c.err, exec.sysErr) << c.script;
        }
    }
}

TEST(CmdExecerTest, KilledShellReturnsRawStatus) {
    // The command kills the shell that system() started, not just itself.
    CmdExecer exec({"/bin/sh", "-c", "'kill -9 $PPID'"});
    EXPECT_EQ(SIGKILL, exec.runCommand());
}

TEST(CmdExecerTest, LongOutputArrivesWholeAndInOrder) {
    CmdExecer exec({"/bin/sh", "-c", "'i=0; while [ $i -lt 300 ]; do printf \"%04d,\" $i; i=$((i+1)); done'"});
    ASSERT_EQ(0, exec.runCommand());
    ASSERT_EQ(1500u, exec.sysOut.size());
    EXPECT_EQ("0000,0001,", exec.sysOut.substr(0, 10));
    EXPECT_EQ("0298,0299,", exec.sysOut.substr(1490));
}

TEST(CmdExecerTest, CallerFileWithBlankIsQuotedAppendedAndKept) {
    char dir[] = "/tmp/cmdexecXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    std::string out = std::string(dir) + "/my out.txt";
    std::ofstream(out) << "old line\n";
    {
        CmdExecer exec({"/bin/echo", "new line"}, out, "");
        EXPECT_NE(std::string::npos, exec.getCommand().find(">>\"" + out + "\""));
        ASSERT_EQ(0, exec.runCommand());
        EXPECT_EQ("old line\nnew line\n", exec.sysOut);
    }
    EXPECT_EQ("old line\nnew line\n", readFile(out));
    unlink(out.c_str());
    rmdir(dir);
}

TEST(CmdExecerTest, AlreadyQuotedCallerFileIsUsedAsItStands) {
    CmdExecer exec({"/bin/true"}, "\"/tmp/a b\"", "/tmp/plain");
    EXPECT_EQ("\"/bin/true\" >>\"/tmp/a b\" 2>>/tmp/plain", exec.getCommand());
}

}  // namespace
