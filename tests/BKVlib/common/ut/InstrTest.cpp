#include "BKVlib/common/ut/instr.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <regex>
#include <string>
#include <thread>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
int tid() { return static_cast<int>(syscall(SYS_gettid)); }

struct Section { double seconds, averageMs; unsigned uses; };
// One thread's block of a report: its heading values and its section lines.
struct ThreadReport { std::string status, instrClass; double elapsed; std::map<std::string, Section> sections; };

// Reads the report back into the blocks of each thread, keyed by thread id.
std::map<int, ThreadReport> parseReport(const std::string& text) {
    static const std::regex section(R"(^(.{25})\s*([0-9.]+)\t\s*([0-9.]+)\t\t\t\s*([0-9]+)$)");
    static const std::regex thread(R"(^Thread: ([0-9]+)  Elapsed time = \s*([0-9.]+) sec$)");
    std::map<int, ThreadReport> reports;
    std::string status, instrClass;
    ThreadReport* current = nullptr;
    std::smatch m;
    for (const std::string& line : testfiles::splitLines(text)) {
        if (line.rfind("------", 0) == 0) {
            current = nullptr;
        } else if (line.rfind("Completion status: ", 0) == 0) {
            status = line.substr(19);
        } else if (line.rfind("Instrumentation class: ", 0) == 0) {
            instrClass = line.substr(23);
        } else if (std::regex_match(line, m, thread)) {
            current = &reports[std::stoi(m[1])];
            *current = {status, instrClass, std::stod(m[2]), {}};
        } else if (current && std::regex_match(line, m, section)) {
            std::string name = m[1].str();
            name.erase(name.find_last_not_of(' ') + 1);
            current->sections[name] = {std::stod(m[2]), std::stod(m[3]), static_cast<unsigned>(std::stoul(m[4]))};
        }
    }
    return reports;
}

class InstrTest : public ::testing::Test {
protected:
    void SetUp() override {
        report_ = instrReportFileName(log_.c_str(), static_cast<int32_t>(getpid()));
        ASSERT_EQ(RC_OK, instrInit(log_.c_str(), INSTR_CLIENT_DETAIL | INSTR_DB_OPS, 0));
    }
    void TearDown() override { instrTerminate(); }
    std::string reportText() { return testfiles::readFile(report_); }
    testfiles::TempDir dir_;
    std::string log_ = dir_.file("agent.log");
    std::string report_;
};

TEST_F(InstrTest, ReportChargesTimeToCategoryOnTop) {
    instrStart(INSTR_CLIENT_DETAIL);
    instrBegin(INSTR_FILE_IO);
    sleepMs(60);
    instrBegin(INSTR_COMPRESSION);  // suspends File I/O
    sleepMs(30);
    instrEnd(INSTR_COMPRESSION);
    sleepMs(20);
    instrEnd(INSTR_FILE_IO);
    instrBegin(INSTR_COMPRESSION);
    sleepMs(30);
    instrReplace(INSTR_CRC);
    sleepMs(10);
    instrEnd(INSTR_CRC);
    instrBegin(INSTR_DB_QUERY);  // its class was never started
    instrEnd(INSTR_DB_QUERY);
    instrComment("checkpoint reached");
    instrStop(INSTR_CLIENT_DETAIL);

    std::string text = reportText();
    const std::string bar(23, '='), banner = bar + "> C O M M E N C E  N E W  R E P O R T <" + bar + "\n";
    EXPECT_EQ(0u, text.find("\n\n" + banner + banner + "\n"));
    EXPECT_NE(text.npos, text.find("\nSection                  Actual(sec)\t\tAverage(msec)\tFrequency used\n"));
    EXPECT_NE(text.npos, text.find("\ncheckpoint reached\n"));
    const ThreadReport r = parseReport(text)[tid()];
    EXPECT_EQ("Success Client detail", r.status + " " + r.instrClass) << text;
    const struct { const char* name; double seconds; unsigned uses; } expected[] = {
        {"File I/O", 0.080, 1}, {"Compression", 0.060, 2}, {"CRC", 0.010, 1}, {"Other", 0, 1}};
    for (const auto& e : expected) {
        ASSERT_EQ(1u, r.sections.count(e.name)) << e.name << "\n" << text;
        const Section& s = r.sections.at(e.name);
        EXPECT_GE(s.seconds, e.seconds - 0.0005) << e.name;
        EXPECT_LT(s.seconds, e.seconds + 0.25) << e.name;
        EXPECT_EQ(e.uses, s.uses) << e.name;
        EXPECT_NEAR(s.seconds * 1000 / s.uses, s.averageMs, 0.6) << e.name;  // printed rounded
    }
    EXPECT_EQ(0u, r.sections.count("DB Query"));
    EXPECT_GE(r.elapsed, 0.150);
}

TEST_F(InstrTest, MisuseSuspendsEngineWithReport) {
    const std::string outOfOrder = "ERROR: Invalid category detected, Thread: %d, category being ended: File I/O\n";
    const std::string suspends = "Instrumentation engine suspends operation.\n";
    // begins: File I/O, CRC, then Compression repeated.
    const struct { int begins; InstrCategory ended; std::string error, status; } cases[] = {
        {INSTR_STACK_DEPTH, INSTR_OTHER,
         "ERROR: Stack overflow detected, Thread: %d, category being entered: Compression\n" + suspends,
         "Stack overflow"},
        {2, INSTR_FILE_IO, outOfOrder + "Current category is: CRC\n" + suspends, "Invalid category end call"},
    };
    for (const auto& c : cases) {
        std::remove(report_.c_str());
        ASSERT_EQ(RC_OK, instrInit(log_.c_str(), INSTR_CLIENT_DETAIL, 0));
        instrStart(INSTR_CLIENT_DETAIL);
        for (int i = 0; i < c.begins; ++i) instrBegin(i == 0 ? INSTR_FILE_IO : i == 1 ? INSTR_CRC : INSTR_COMPRESSION);
        if (c.ended != INSTR_OTHER) instrEnd(c.ended);
        instrBegin(INSTR_SLEEP);  // ignored once suspended
        instrEnd(INSTR_SLEEP);
        instrStop(INSTR_CLIENT_DETAIL);
        std::string error = c.error;
        error.replace(error.find("%d"), 2, std::to_string(tid()));
        std::string text = reportText();
        EXPECT_NE(std::string::npos, text.find(error)) << text;
        auto reports = parseReport(text);
        EXPECT_EQ(c.status, reports[tid()].status) << text;
        EXPECT_EQ(0u, reports[tid()].sections.count("Sleep")) << text;
    }
}

}  // namespace
