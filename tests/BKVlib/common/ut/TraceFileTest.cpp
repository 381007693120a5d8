// Plain trace files, record prefixes, standard streams, the console sink, names,
// reports and dumps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace {

class TraceFileTest : public ::testing::Test {
protected:
    void SetUp() override { resetTrace(); }
    void TearDown() override { resetTrace(); }
    // Begins a plain file trace with flags and returns what one record became.
    std::string recordWith(const char* flags) {
        resetTrace(9, tagForThread);
        trSetLibFlags(flags, 0);
        EXPECT_EQ(0, trBegin(path_.c_str(), 0));
        tagThread = 1;
        trPrintf("src/file.cpp", 42, "value %d", 7);
        trEnd(1);
        std::string text = readFile(path_);
        unlink(path_.c_str());
        return text.substr(header().size());
    }
    static std::string header() {
        return std::string("QLX Trace   ZOR Quillon 5.2.8.0  \nBuild Date: ") + PP_BUILD_DATE +
               "\nBEGINNING NEW TRACE\n\n";
    }
    static void tagForThread(char* banner, size_t bannerSize, char* tag, size_t tagSize) {
        trFormatThreadTag(tagThread, banner, bannerSize, tag, tagSize);
    }
    static unsigned long tagThread;
    TempDir dir_;
    std::string path_ = dir_.file("plain.trc");
};
unsigned long TraceFileTest::tagThread = 1;

TEST_F(TraceFileTest, PrefixPartsComeInFixedOrder) {
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    const std::string pid = "\\[[0-9]{6,}\\] ";
    const std::string place = "src/file\\.cpp        \\(  42\\): value 7\n";
    const struct {
        const char* flags;
        std::string pattern;
    } cases[] = {
        {"-TIMESTAMP", place},
        {"-TIMESTAMP -PREFIX", "value 7\n"},
        {"-PREFIX", stamp + ": value 7\n"},
        {"-TIMESTAMP PID", pid + ": " + place},
        {"-TIMESTAMP -PREFIX TID", "\\[1\\] : value 7\n"},
        {"-TIMESTAMP -PREFIX CLIENTTYPE", "\\[ctUtlAppl   \\]value 7\n"},
        {"PID TID CLIENTTYPE", stamp + pid + "\\[1\\] \\[ctUtlAppl   \\]: " + place},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(recordWith(c.flags), MatchesRegex(c.pattern)) << c.flags;
    }
}

TEST_F(TraceFileTest, ThreadChangeWritesBannerOnce) {
    resetTrace(9, tagForThread);
    trSetLibFlags("-TIMESTAMP -PREFIX TID", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    const unsigned long writers[] = {1, 77, 77, 1};
    for (unsigned long id : writers) {
        tagThread = id;
        trPrintf("f", 1, "from %lu\n", id);
    }
    std::string banner = "\n" + std::string(29, ' ') + "New thread" + std::string(9, ' ') + "0================>\n";
    EXPECT_EQ(68u, banner.size());
    EXPECT_EQ("[1] : from 1\n" + banner + "[77] : from 77\n[77] : from 77\n" + banner + "[1] : from 1\n",
              readFile(path_).substr(header().size()));
}

TEST_F(TraceFileTest, ClientTypesOutsideTheTableAreUnknown) {
    resetTrace(99);
    trSetLibFlags("-TIMESTAMP -PREFIX CLIENTTYPE", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    trPrintf("f", 1, "x\n");
    EXPECT_EQ(header() + "[ctUnkown    ]x\n", readFile(path_));
}

TEST_F(TraceFileTest, PlainFileAppendsAfterHeaderAndAnnounces) {
    writeFile(path_, "earlier run\n");
    trSetLibFlags("-TIMESTAMP", 0);
    ASSERT_EQ(0, trBegin(("\"" + path_ + "\"").c_str(), 1));
    EXPECT_EQ(1, trIsActive());
    trEnd(1);
    std::string text = readFile(path_);
    EXPECT_EQ(0u, text.find("earlier run\n" + header()));
    EXPECT_THAT(text, HasSubstr("Tracing to file: " + path_ + "\n"));
    EXPECT_THAT(text, HasSubstr("Tracefile maximum length set to 0 MB.\n"));
    EXPECT_THAT(text, MatchesRegex("(.|\n)*-{64}\n[-0-9]{10} [:0-9]{8} - Trace begun\\.\n$"));
    EXPECT_EQ(0, trIsActive());
}

TEST_F(TraceFileTest, LongRecordGrowsTheBufferAndKeepsErrno) {
    trSetLibFlags("-TIMESTAMP -PREFIX", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    std::string longText(10000, 'q');
    errno = 1234;
    EXPECT_EQ(10001, trPrintf("f", 1, "%s", longText.c_str()));
    EXPECT_EQ(1234, errno);
    EXPECT_EQ(header() + longText + "\n", readFile(path_));
}

TEST_F(TraceFileTest, BadNamesAndUnopenableFiles) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, trBegin("", 0));
    EXPECT_EQ(-1, trBegin(std::string(1024, 'n').c_str(), 0));
    std::string missing = dir_.file("no/such/dir/t.trc");
    EXPECT_EQ(RC_TRACE_OPEN_FAILED, trBegin(missing.c_str(), 0));
    EXPECT_EQ("Invalid trace file nameInvalid trace file nameUnable to open trace output file " + missing + "\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, trIsActive());
}

TEST_F(TraceFileTest, SetFileNameChecksTheDirectory) {
    writeFile(dir_.file("plainfile"), "x");
    const struct {
        std::string name;
        int32_t rc;
    } cases[] = {
        {"", -1},
        {std::string(1024, 'n'), -1},
        {dir_.file("missing/t.trc"), RC_TRACE_DIR_UNUSABLE},
        {dir_.file("plainfile/t.trc"), RC_TRACE_DIR_UNUSABLE},
        {"STDERR", 0},
        {dir_.file("t.trc"), 0},
    };
    for (const auto& c : cases) {
        resetTrace();
        EXPECT_EQ(c.rc, trSetFileName(c.name.c_str())) << c.name;
    }
    char status[TR_QUERY_BUFFER_SIZE];
    trQuery(0, status);
    EXPECT_THAT(std::string(status), HasSubstr("  TRACEFILE:    " + dir_.file("t.trc") + "\n"));
}

TEST_F(TraceFileTest, StandardOutputGetsRecordsWhileEchoAllowed) {
    trSetLibFlags("-TIMESTAMP -PREFIX", 0);
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, trBegin("STDOUT", 1));
    trPrintf("f", 1, "to stdout");
    trRawPrintf("raw %d|", 5);
    trEnd(1);
    EXPECT_EQ("Tracing to stdout\nto stdout\nraw 5|", testing::internal::GetCapturedStdout());
}

std::vector<std::string> gSinkCalls;
int32_t gSinkOpenResult = 0;
int32_t recordingSink(int32_t op, const char* text, void* context) {
    gSinkCalls.push_back(std::to_string(op) + ":" + (text ? text : "") + (context ? "+ctx" : ""));
    return op == 0 ? gSinkOpenResult : 0;
}

TEST_F(TraceFileTest, ConsoleSinkOpensWritesAndCloses) {
    int context = 0;
    const int32_t openResults[] = {0, 1};
    for (int32_t openResult : openResults) {
        resetTrace();
        gSinkCalls.clear();
        gSinkOpenResult = openResult;
        trSetConsoleSink(recordingSink, &context);
        trSetLibFlags("-TIMESTAMP -PREFIX", 0);
        EXPECT_EQ(0, trBegin("CONSOLE", 0));
        trPrintf("f", 1, "hello");
        trEnd(1);
        std::vector<std::string> expected = {"0:+ctx"};
        if (openResult == 0) expected = {"0:+ctx", "1:Tracing to stderr\n+ctx", "1:hello\n+ctx", "2:+ctx"};
        EXPECT_EQ(expected, gSinkCalls) << "open result " << openResult;
    }
}

TEST_F(TraceFileTest, QueryReportsStatusAndClasses) {
    trSetLibFlags("ERROR PID", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    char report[TR_QUERY_BUFFER_SIZE];
    trQuery(TR_QUERY_ENABLED, report);
    EXPECT_EQ("  TRACEFILE:    " + path_ + "\n  TRACEMAX :    0\n  TRACESEGSIZE: 0\n  TRACE STATUS: Enabled\n\n"
              "  ERROR\n  TIMESTAMP\n  PREFIX\n  PID\n",
              std::string(report));
    trQuery(TR_QUERY_ALL, report);
    EXPECT_THAT(std::string(report), HasSubstr("\n  ERROR                  ON        ADMIN                  OFF\n"));
    EXPECT_THAT(std::string(report), HasSubstr("  HARBOR_DETAIL          OFF       HARBOR_COMM            OFF\n\n"));
    trQuery(TR_QUERY_DISABLED, report);
    EXPECT_THAT(std::string(report), HasSubstr("\n  ADMIN\n"));
    EXPECT_THAT(std::string(report), ::testing::Not(HasSubstr("  PID\n")));
}

TEST_F(TraceFileTest, LogEnabledClassesNamesTheDestination) {
    trSetLibFlags("-TIMESTAMP -PREFIX PID NLS", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    trLogEnabledClasses();
    trEnd(0);
    trLogEnabledClasses();
    EXPECT_EQ(header() + "Current trace classes enabled:  NLS,PID\n\nTracing is active to file '" + path_ +
                  "'.\nCurrent trace classes enabled: \nNone\n\nTracing not active.\n",
              readFile(path_));
}

TEST_F(TraceFileTest, DumpsShowBytesAndCharacters) {
    trSetLibFlags("-TIMESTAMP -PREFIX", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    const char bytes[] = "ABCDEFGHIJ\tKLMNOPQRS";  // dumped without its terminator
    trDumpMemory(bytes, 20, 16);
    unsigned char counting[40];
    for (int i = 0; i < 40; ++i) counting[i] = static_cast<unsigned char>(i);
    trDumpHex(counting, 40, 3);
    trDumpHex(counting, 4, 3);
    std::string text = readFile(path_).substr(header().size());
    EXPECT_THAT(text, MatchesRegex("\nDumping Memory Range 0x[0-9a-f]+ - 0x[0-9a-f]+ \\(20 Bytes\\)\n\n\n\n"
                                   "0x[0-9a-f]+: 41 42 43 44 45 46 47 48 49 4A 09 4B 4C 4D 4E 4F     ABCDEFGHIJ.KLMNO"
                                   "\n[0-9A-F]{8,}: 50 51 52 53 {41}PQRS\n\n(.|\n)*"));
    EXPECT_THAT(text, HasSubstr("00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D1E1F \n"
                                "20212223 24252627\n00010203\n"));
}

TEST_F(TraceFileTest, InactiveTraceWritesNothing) {
    EXPECT_EQ(0, trPrintf("f", 1, "nothing"));
    EXPECT_EQ(0, trRawPrintf("nothing"));
    EXPECT_EQ(0, trWPrintf("f", 1, L"nothing"));
    trSetLibFlags("-TIMESTAMP -PREFIX", 0);
    ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    EXPECT_EQ(8, trWPrintf("f", 1, L"wide %d", 42));
    EXPECT_EQ(header() + "wide 42\n", readFile(path_));
}

}  // namespace
