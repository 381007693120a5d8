// The command executor and the stop signals: the tool's dealings with other processes.
#include "Common/CmdExecer.h"

#include <unistd.h>

#include <csignal>
#include <regex>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/unix/pssignal.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

TEST(CmdExecerTest, CommandQuotesProgramAndAppendsToCaptureFiles) {
    const struct { std::vector<std::string> args; std::string out, err; bool noQuote; std::string command; } cases[] = {
        {{"/bin/echo", "a", "b c"}, "/tmp/out", "/tmp/err", false, "\"/bin/echo\" a b c >>/tmp/out 2>>/tmp/err"},
        {{"/bin/true"}, "/tmp/o", "/tmp/e", true, "/bin/true >>/tmp/o 2>>/tmp/e"},
        {{"/bin/true"}, "\"/tmp/a b\"", "/tmp/plain", false, "\"/bin/true\" >>\"/tmp/a b\" 2>>/tmp/plain"},
        {{}, "", "", false, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(c.command, CmdExecer(c.args, c.out, c.err, c.noQuote).getCommand());
    EXPECT_EQ(RC_NOT_RUN, CmdExecer({}).runCommand());
}

// A command given no capture files gets two of its own in /tmp, removed with the command.
TEST(CmdExecerTest, TemporaryCaptureFilesAreDeleted) {
    const std::string command = CmdExecer({"/bin/true"}).getCommand();
    std::smatch names;
    ASSERT_TRUE(std::regex_search(command, names, std::regex(" >>(/tmp/hka\\S+) 2>>(/tmp/hka\\S+)$"))) << command;
    EXPECT_FALSE(testfiles::fileExists(names[1]) || testfiles::fileExists(names[2])) << command;
}

TEST(CmdExecerTest, ExitCodesAndCapturedStreams) {
    const struct { std::string script; int32_t result; std::string out; const char* err; } cases[] = {
        {"echo oops >&2; exit 255", 255, "", "oops\n"},
        {"exec /nonexistent/program", 127, "", nullptr},  // the shell's own 127, not the raw one
        // The command kills the shell that system() started: the raw status comes back.
        {"kill -9 $PPID", SIGKILL, "", nullptr},
    };
    for (const auto& c : cases) {
        CmdExecer exec({"/bin/sh", "-c", "'" + c.script + "'"});
        EXPECT_EQ(c.result, exec.runCommand()) << c.script;
        EXPECT_EQ(c.out, exec.sysOut) << c.script;
        if (c.err) {
            EXPECT_EQ(c.err, exec.sysErr) << c.script;
        }
    }
}

// The stop signals of the agent's Unix layer, tried in a forked child, so this process
// keeps its own signal set-up and process group.
using testfiles::inChild;

TEST(PsSignalTest, TermAndInterruptSetStopFlagOthersDoNothing) {
    EXPECT_EQ(0, inChild([] {
        if (installSignalHandlers() != 0 || getpgrp() != getpid()) return 1;
        raise(SIGHUP);
        raise(SIGPIPE);
        unxInterruptHandler(SIGUSR2);
        if (agentStopRequested) return 2;
        raise(SIGTERM);
        raise(SIGTERM);  // a second request changes nothing
        if (agentStopRequested != 1) return 3;
        agentStopRequested = 0;
        unxInterruptHandler(SIGINT);
        return agentStopRequested == 1 ? 0 : 4;
    }));
}

}  // namespace
