// Plain trace files: header, record prefixes, names, and records of any length.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>
#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::MatchesRegex;

namespace {

class TraceFileTest : public TraceTestBase {
protected:
    // Begins a bare plain trace (no stamp, no prefix) plus extra flags, for client type.
    void begin(const char* flags, int32_t clientType = 9) {
        resetTrace(clientType, [](char* banner, size_t bannerSize, char* tag, size_t tagSize) {
            trFormatThreadTag(1, banner, bannerSize, tag, tagSize);
        });
        trSetLibFlags(flags, 0);
        ASSERT_EQ(0, trBegin(path_.c_str(), 0));
    }
    std::string body() { return readFile(path_).substr(header().size()); }
    static std::string header() {
        return std::string("QLX Trace   ZOR Quillon 5.2.8.0  \nBuild Date: ") + PP_BUILD_DATE +
               "\nBEGINNING NEW TRACE\n\n";
    }
    std::string path_ = dir_.file("plain.trc");
};

// A source place is padded to twenty characters and four digits, or kept whole when longer.
TEST_F(TraceFileTest, PrefixPiecesComeInFixedOrderAndSourcePlaceIsPadded) {
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    const std::string pid = "\\[[0-9]{6,}\\] ";
    const std::string place = "src/file\\.cpp        \\(  42\\): value 7\n";
    const char* const file = "src/file.cpp";
    const struct { const char* flags; int32_t clientType; const char* file; uint32_t line; std::string pattern; } cases[] = {
        {"-TIMESTAMP", 9, file, 42, place},
        {"-PREFIX", 9, file, 42, stamp + ": value 7\n"},
        {"PID TID CLIENTTYPE", 9, file, 42, stamp + pid + "\\[1\\] \\[ctUtlAppl   \\]: " + place},
        {"-TIMESTAMP", 9, "a/longer/path/than/twenty.cpp", 4294967295u,
         "a/longer/path/than/twenty\\.cpp\\(4294967295\\): value 7\n"},
        {"-TIMESTAMP", 9, nullptr, 9, " {20}\\(   9\\): value 7\n"},
    };
    for (const auto& c : cases) {
        begin(c.flags, c.clientType);
        trPrintf(c.file, c.line, "value %d", 7);
        EXPECT_THAT(body(), MatchesRegex(c.pattern)) << c.flags << " " << (c.file ? c.file : "(null)") << c.line;
        unlink(path_.c_str());
    }
}

TEST_F(TraceFileTest, PlainFileAppendsAfterHeaderAndSaysWhenItBegan) {
    writeFile(path_, "earlier run\n");
    trSetLibFlags("-TIMESTAMP", 0);
    ASSERT_EQ(0, trBegin(("\"" + path_ + "\"").c_str(), 1));
    EXPECT_EQ(1, trIsActive());
    trEnd(1);
    std::string text = readFile(path_);
    EXPECT_EQ(0u, text.find("earlier run\n" + header()));
    EXPECT_THAT(text, MatchesRegex("(.|\n)*-{64}\n[-0-9]{10} [:0-9]{8} - Trace begun\\.\n$"));
    EXPECT_EQ(0, trIsActive());
}

TEST_F(TraceFileTest, LongRecordIsWrittenWholeAndKeepsErrno) {
    EXPECT_EQ(0, trPrintf("f", 1, "inactive"));
    begin("-TIMESTAMP -PREFIX");
    const std::string longText(10000, 'q');
    errno = 1234;
    EXPECT_EQ(10001, trPrintf("f", 1, "%s", longText.c_str()));
    EXPECT_EQ(1234, errno);
    EXPECT_EQ(longText + "\n", body());
}

// Records larger than a stdio buffer, from two processes at once, each land whole.
TEST_F(TraceFileTest, TwoProcessesAppendWholeRecords) {
    constexpr int kRecords = 200;
    const std::string ours(6000, 'p');
    const std::string theirs(6000, 'c');
    begin("-TIMESTAMP -PREFIX");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        resetTrace();
        trSetLibFlags("-TIMESTAMP -PREFIX", 0);
        trBegin(path_.c_str(), 0);
        for (int i = 0; i < kRecords; ++i) trPrintf("f", 1, "%s", theirs.c_str());
        _exit(0);
    }
    for (int i = 0; i < kRecords; ++i) trPrintf("f", 1, "%s", ours.c_str());
    EXPECT_EQ(0, testfiles::exitCodeOf(child));
    std::map<std::string, int> counts;
    for (const std::string& line : testfiles::splitLines(readFile(path_))) {
        if (line.size() > 100) ++counts[line];
    }
    EXPECT_EQ((std::map<std::string, int>{{ours, kRecords}, {theirs, kRecords}}), counts);
}

// The calls that reach a file or standard output, on a wrapping file where every
// record write clears errno on its way.
TEST_F(TraceFileTest, EntryPointsOnAWrappingFileKeepErrno) {
    const struct { const char* name; std::function<void()> call; } calls[] = {
        {"trLogEnabledClasses", [] { trLogEnabledClasses(); }},
        {"trQuery to stdout", [] { trQuery(TR_QUERY_ALL, nullptr); }},
        {"trRawPrintf", [] { trRawPrintf("raw %d\n", 1); }},
        {"trEnd", [] { trEnd(1); }},
    };
    trSetMaxMB(1);
    trSetLibFlags("PID", 0);
    ASSERT_EQ(0, trBegin(dir_.file("wrap.trc").c_str(), 0));
    testing::internal::CaptureStdout();
    for (const auto& c : calls) {
        errno = 4321;
        c.call();
        EXPECT_EQ(4321, errno) << c.name;
    }
    testing::internal::GetCapturedStdout();
}

TEST_F(TraceFileTest, BadNamesAndUnopenableFilesAreRefused) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, trBegin("", 0));
    EXPECT_EQ(RC_TRACE_OPEN_FAILED, trBegin(dir_.file("no/t.trc").c_str(), 0));
    EXPECT_EQ("Invalid trace file nameUnable to open trace output file " + dir_.file("no/t.trc") + "\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, trIsActive());
}

}  // namespace
