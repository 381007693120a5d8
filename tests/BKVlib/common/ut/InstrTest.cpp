#include "BKVlib/common/ut/instr.h"

#include <unistd.h>

#include <chrono>
#include <functional>
#include <regex>
#include <string>
#include <thread>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// One section line of the report: seconds and uses; both -1 when absent.
struct Section { double seconds = -1; long uses = -1; };
Section section(const std::string& text, const std::string& name) {
    std::smatch m;
    const std::regex line("\n" + name + std::string(25 - name.size(), ' ') +
                          R"(\s*([0-9.]+)\t\s*([0-9.]+)\t\t\t\s*([0-9]+)\n)");
    if (!std::regex_search(text, m, line)) return {};
    return {std::stod(m[1]), std::stol(m[3])};
}

// Runs calls between the start and stop of the client-detail class; returns the report.
std::string report(const std::function<void()>& calls, int32_t classes = INSTR_CLIENT_DETAIL) {
    testfiles::TempDir dir;
    const std::string log = dir.file("agent.log");
    if (instrInit(log.c_str(), classes, 0) != RC_OK) return "instrInit failed";
    instrStart(INSTR_CLIENT_DETAIL);
    calls();
    instrStop(INSTR_CLIENT_DETAIL);
    instrTerminate();
    return testfiles::readFile(instrReportFileName(log.c_str(), static_cast<int32_t>(getpid())));
}

TEST(InstrTest, ReportChargesTimeToCategoryOnTop) {
    const std::string text = report([] {
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
    }, INSTR_CLIENT_DETAIL | INSTR_DB_OPS);
    const std::string bar(23, '='), banner = bar + "> C O M M E N C E  N E W  R E P O R T <" + bar + "\n";
    EXPECT_EQ(0u, text.find("\n\n" + banner + banner + "\n"));
    for (const char* line :
         {"\ncheckpoint reached\n", "\nCompletion status: Success\n", "\nInstrumentation class: Client detail\n"}) {
        EXPECT_NE(text.npos, text.find(line)) << line << text;
    }
    const struct { const char* name; double seconds; long uses; } expected[] = {
        {"File I/O", 0.080, 1}, {"Compression", 0.060, 2}, {"CRC", 0.010, 1}, {"Other", 0, 1}, {"DB Query", -1, -1}};
    for (const auto& e : expected) {
        const Section s = section(text, e.name);
        EXPECT_EQ(e.uses, s.uses) << e.name << "\n" << text;
        EXPECT_GE(s.seconds, e.seconds - 0.0005) << e.name;
        EXPECT_LT(s.seconds, e.seconds + 0.25) << e.name;
    }
}

}  // namespace
