// Helpers of the agent's Unix layer the tool runs: file names and signals. Signals are
// tried in a forked child, so this process keeps its own signal set-up and process group.
#include <unistd.h>

#include <csignal>

#include "Common/unix/psnautil.h"
#include "Common/unix/pssignal.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::inChild;

// Capture file names may come in one pair of double quotes.
TEST(PsnautilTest, QuotedNamesAreUnquotedOnce) {
    const std::pair<std::string, std::string> cases[] = {
        {"\"a\"", "a"}, {"\"\"\"", "\""}, {"\"\"", "\"\""}, {"\"a b", "\"a b"}};
    for (const auto& c : cases) EXPECT_EQ(c.second, psUnquote(c.first)) << c.first;
}

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
