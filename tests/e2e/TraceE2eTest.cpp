// The trace file the installed tool writes with -debug: a wrapping trace whose header
// records where the next record goes, and records with the full prefix, from one run
// or from ten at once. Continuing and wrapping the file are TraceWrapTest's.
#include <map>
#include <regex>
#include <string>

#include "gmock/gmock.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::HasSubstr;

namespace {

const char kTrace[] = "log/multipath.trace";
// A trace closed at the end of the run ends with the close marker at the next-write offset.
const std::string kEndOfData = "\nEND OF DATA - close\n\n";

class TraceE2eTest : public E2eTest {
protected:
    RunResult traceRun() { return host_.run({"-debug", "MAX", "-multipath", "7;dev1"}); }
    NamespaceHarness host_;
};

TEST_F(TraceE2eTest, HeaderRecordsAndEndMarkerOfTheInstalledTool) {
    ASSERT_EQ(5, traceRun().exitStatus);
    const std::string trace = host_.readAgentFile(kTrace);
    ASSERT_GT(trace.size(), 100u);
    // The header's layout is TraceWrapTest's; the maximum and the product are the tool's.
    EXPECT_EQ("1          ZOR Quillon 5.2.8.0   Build date: ", trace.substr(24, 45));
    EXPECT_EQ(kEndOfData, trace.substr(std::stoul(trace.substr(12, 12)), kEndOfData.size()));
    // date time.ms [pid] [tid] : file(line): text
    const std::regex record(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d{6}\] \[\d+\] : )"
                            R"(PathPlanner/ExecPathPlanner\.cpp *\( *\d+\): Unknown multipathSetting: 7)");
    std::smatch found;
    EXPECT_TRUE(std::regex_search(trace, found, record));
    EXPECT_THAT(trace, HasSubstr("Tracing to file: /opt/ZOR/QLX/agent/log/multipath.trace\n"));
    EXPECT_THAT(trace, HasSubstr("Tracefile maximum length set to 1 MB.\n"));
}

// The records of one run, keyed by the process number in their prefix.
std::map<std::string, size_t> recordsByProcess(const std::string& trace) {
    std::map<std::string, size_t> counts;
    const std::regex prefix(R"(\d\d:\d\d:\d\d\.\d{3} \[(\d{6,})\] \[\d+\] : )");
    for (std::sregex_iterator it(trace.begin(), trace.end(), prefix), end; it != end; ++it) ++counts[(*it)[1]];
    return counts;
}

// Ten runs started at once share the trace file: each keeps as many records as a run
// on its own writes, and each says that its trace began.
TEST_F(TraceE2eTest, TenConcurrentRunsKeepEveryRecord) {
    ASSERT_EQ(5, traceRun().exitStatus);
    const std::map<std::string, size_t> alone = recordsByProcess(host_.readAgentFile(kTrace));
    ASSERT_EQ(1u, alone.size());
    const size_t perRun = alone.begin()->second;

    NamespaceHarness shared;
    const std::string runs =
        "for i in 1 2 3 4 5 6 7 8 9 10; do /opt/ZOR/QLX/agent/bin/PathPlanner -debug MAX -multipath '7;dev1' & done; "
        "wait";
    ASSERT_EQ(0, shared.run({"-c", runs}, "/bin/sh").exitStatus);
    const std::string trace = shared.readAgentFile(kTrace);
    const std::map<std::string, size_t> counts = recordsByProcess(trace);
    EXPECT_EQ(10u, counts.size());
    for (const auto& [pid, records] : counts) EXPECT_EQ(perRun, records) << "process " << pid;
    size_t begun = 0;
    for (size_t at = trace.find("Trace begun."); at != std::string::npos; at = trace.find("Trace begun.", at + 1)) ++begun;
    EXPECT_EQ(10u, begun);
}

}  // namespace
