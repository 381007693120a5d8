// Wrapping and segmented trace files: header, wrap point, reuse of an earlier
// file, segment switches, and tracing switched off when the disk is full.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <vector>
#include <string>

#include "BKVlib/common/ut/trace.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr size_t kMiB = 1048576;
// What a record leaves free under the limit: room for the longest closing line.
constexpr size_t kSlack = 48;
const std::string kEnd = "\nEND OF DATA\n\n";

class TraceWrapTest : public ::testing::Test {
protected:
    void SetUp() override { resetTrace(); }
    void TearDown() override { resetTrace(); }
    // Begins a wrapping trace whose records carry no prefix, so their sizes are exact.
    void beginBare(uint32_t maxMB, uint32_t segMB = 0) {
        trSetMaxMB(maxMB);
        if (segMB) trSetSegSizeMB(segMB);
        ASSERT_EQ(0, trBegin(path_.c_str(), 0));
        trSetLibFlags("-TIMESTAMP -PREFIX", 0);
    }
    static void put(const std::string& line) { trPrintf("f", 1, "%s\n", line.c_str()); }
    TempDir dir_;
    std::string path_ = dir_.file("wrap.trc");
};

TEST_F(TraceWrapTest, NewFileHeaderAndOffsetPointAtEndMarker) {
    beginBare(7);
    put("first");
    std::string text = readFile(path_);
    std::string offset = std::to_string(recordedOffset(text));
    EXPECT_EQ("QLX Trace   " + offset + std::string(12 - offset.size(), ' ') + "7          ZOR Quillon 5.2.8.0   " +
                  "Build date: " + PP_BUILD_DATE + "\n\nBEGINNING NEW TRACE\n\nfirst\n" + kEnd,
              text);
    EXPECT_EQ(text.size() - kEnd.size(), recordedOffset(text));
}

TEST_F(TraceWrapTest, RecordExactlyAtTheLimitFitsAndTheNextOneWraps) {
    beginBare(1);
    std::string text = readFile(path_);
    size_t dataStart = text.find('\n') + 2;
    put(std::string(kMiB - kSlack - 100 - recordedOffset(text) - 1, 'f'));
    put(std::string(99, 'R'));  // 100 bytes with its newline, ending exactly at the limit
    text = readFile(path_);
    EXPECT_EQ(kMiB - kSlack, recordedOffset(text));
    EXPECT_EQ(kMiB - kSlack + kEnd.size(), text.size());

    put(std::string(99, 'B'));
    text = readFile(path_);
    EXPECT_EQ("\nContinued at beginning of file\n\n", text.substr(kMiB - kSlack, 33));
    EXPECT_EQ(std::string(99, 'B') + "\n" + kEnd, text.substr(dataStart, 100 + kEnd.size()));
    EXPECT_EQ(dataStart + 100, recordedOffset(text));
}

// The record before the wrap ends at every offset from well inside the slack to
// well before it; whatever is written after it, the file stays within its limit
// and the next start continues it with its history.
TEST_F(TraceWrapTest, WrapPointWalkedByteByByteKeepsHistoryAcrossTheNextStart) {
    const std::string last(59, 'L');  // 60 bytes with its newline
    for (size_t before = 0; before <= 2 * kSlack + 60; ++before) {
        unlink(path_.c_str());
        resetTrace();
        beginBare(1);
        put(std::string(199, 'p'));  // what the later runs' first records overwrite
        put("history");
        size_t offset = recordedOffset(readFile(path_));
        put(std::string(kMiB - kSlack - before - offset - 1, 'f'));
        ASSERT_EQ(kMiB - kSlack - before, recordedOffset(readFile(path_))) << before;
        put(last);
        trEnd(1);
        ASSERT_LE(readFile(path_).size(), kMiB) << "ended " << before << " bytes before the slack";

        resetTrace();
        beginBare(1);
        put("next start");
        trEnd(1);
        std::string text = readFile(path_);
        EXPECT_LE(text.size(), kMiB) << before;
        EXPECT_EQ(1u, countOf(text, "\nhistory\n")) << "ended " << before << " bytes before the slack";
        EXPECT_EQ(1u, countOf(text, last + "\n")) << before;
        EXPECT_EQ(1u, countOf(text, "next start\n\nEND OF DATA - close\n\n")) << before;
    }
}

TEST_F(TraceWrapTest, EarlierFileIsContinuedOnlyWhenItFits) {
    auto foreignFirstLine = [](const std::string& path) {
        std::string text = readFile(path);
        writeFile(path, "some other program's log\n" + text.substr(text.find('\n') + 1));
    };
    auto growPastOneMiB = [](const std::string& path) { writeFile(path, readFile(path) + std::string(kMiB, 'x')); };
    using Change = std::function<void(const std::string&)>;
    const struct { const char* name; uint32_t firstMax, secondMax; Change change; bool continued; } cases[] = {
        {"equal maximum", 2, 2, nullptr, true},
        {"larger maximum", 2, 3, nullptr, true},
        {"smaller maximum", 2, 1, nullptr, false},
        {"foreign first line", 2, 2, foreignFirstLine, false},
        {"file larger than maximum", 1, 1, growPastOneMiB, false},
    };
    for (const auto& c : cases) {
        unlink(path_.c_str());
        for (const char* run : {"one", "two"}) {
            resetTrace();
            beginBare(*run == 'o' ? c.firstMax : c.secondMax);
            put(std::string("run ") + run + " record");
            trEnd(1);
            if (*run == 'o' && c.change) c.change(path_);
        }
        std::string text = readFile(path_);
        EXPECT_EQ(std::to_string(c.secondMax) + " ", text.substr(24, 2)) << c.name;
        EXPECT_EQ(1u, countOf(text, "run two record\n\nEND OF DATA - close\n\n")) << c.name;
        EXPECT_EQ(1u, countOf(text, "END OF DATA - close")) << c.name;
        if (c.continued) {
            EXPECT_THAT(text, HasSubstr("run one record\nBEGINNING NEW TRACE\n\nrun two record\n")) << c.name;
        } else {
            EXPECT_THAT(text, Not(HasSubstr("run one record"))) << c.name;
            EXPECT_EQ(1u, countOf(text, "BEGINNING NEW TRACE")) << c.name;
        }
    }
}

TEST_F(TraceWrapTest, SegmentsFillInTurnAndRestartEachFileAnew) {
    beginBare(3, 2);  // two segments: 2 MB, then the 1 MB remainder
    const std::string record(999, 's');
    const std::string one = path_ + ".1", two = path_ + ".2";
    for (int i = 0; i < 2100; ++i) put(record);
    std::string first = readFile(one), second = readFile(two);
    EXPECT_THAT(first, HasSubstr("\nContinued at beginning of segment 2\n\n"));
    EXPECT_LE(first.size(), 2 * kMiB);
    EXPECT_EQ("Continued from end of segment 1\n\n", second.substr(second.find('\n') + 2, 33));
    EXPECT_THAT(second, HasSubstr("Tracing to file: " + two + "\n"));
    EXPECT_EQ("3          ZOR", second.substr(24, 14));

    for (int i = 0; i < 1100; ++i) put(record);
    first = readFile(one);
    second = readFile(two);
    EXPECT_THAT(second, HasSubstr("\nContinued at beginning of segment 1\n\n"));
    EXPECT_LE(second.size(), kMiB);
    EXPECT_EQ("Continued from end of segment 2\n\n", first.substr(first.find('\n') + 2, 33));
    EXPECT_THAT(first, Not(HasSubstr("Continued at beginning of segment 2")));
    EXPECT_NE(0, access(path_.c_str(), F_OK));
}

// Writers in separate processes share one wrapping file, each starting, writing and
// closing it at the same time as the others: no record of any of them is lost.
TEST_F(TraceWrapTest, ProcessesSharingTheFileKeepEveryRecord) {
    constexpr int kWriters = 6;
    constexpr int kRecords = 300;
    unlink(path_.c_str());
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        pid_t child = fork();
        if (child == 0) {
            resetTrace();
            trSetMaxMB(1);
            if (trBegin(path_.c_str(), 0) != 0) _exit(1);
            trSetLibFlags("-TIMESTAMP -PREFIX", 0);
            for (int i = 0; i < kRecords; ++i) trPrintf("f", 1, "writer %d record %d %s\n", w, i, std::string(80, 'r').c_str());
            trEnd(1);
            _exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::string text = readFile(path_);
    EXPECT_EQ(static_cast<size_t>(kWriters), countOf(text, "BEGINNING NEW TRACE\n"));
    for (int w = 0; w < kWriters; ++w) {
        for (int i = 0; i < kRecords; ++i) {
            std::string record = "writer " + std::to_string(w) + " record " + std::to_string(i) + " ";
            ASSERT_EQ(1u, countOf(text, record)) << record;
        }
    }
    EXPECT_EQ(1u, countOf(text, "END OF DATA - close"));
    EXPECT_EQ("\nEND OF DATA - close\n\n", text.substr(recordedOffset(text), 22));
}

// Runs in a child with a 64 KB tmpfs at mountPoint; 0 when every kind of trace
// was switched off by the full disk and errno stayed as it was.
int fillTinyDisk(const std::string& mountPoint) {
    const struct { const char* name; uint32_t maxMB; bool raw; } kinds[] = {
        {"plain.trc", 0, false}, {"wrap.trc", 1, false}, {"raw.trc", 0, true}};
    const std::string chunk(1000, 'd');
    int failures = 0;
    for (const auto& kind : kinds) {
        resetTrace();
        trSetMaxMB(kind.maxMB);
        std::string file = mountPoint + "/" + kind.name;
        trSetLibFlags("ERROR", 0);
        if (trBegin(file.c_str(), 0) != 0) return 3;
        for (int i = 0; i < 200 && trIsActive(); ++i) {
            errno = 4321;
            kind.raw ? trRawPrintf("%s\n", chunk.c_str()) : trPrintf("f", 1, "%s", chunk.c_str());
            failures += errno != 4321;
        }
        if (trIsActive()) return 1;
        unlink(file.c_str());
    }
    return failures ? 2 : 0;
}

TEST_F(TraceWrapTest, FullDiskSwitchesTracingOff) {
    std::string mountPoint = dir_.file("mnt"), output = dir_.file("stdout.txt");
    mkdir(mountPoint.c_str(), 0700);
    int rc = runInChild([&] {
        dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        return fillTinyDisk(mountPoint);
    }, mountPoint, "size=64k");
    if (rc == 77) GTEST_SKIP() << "a private mount namespace with a tmpfs was refused";
    EXPECT_EQ(0, rc);
    std::string said = readFile(output), prefix = "Unable to write to trace file " + mountPoint;
    EXPECT_THAT(said, HasSubstr(prefix + "/plain.trc. Tracing disabled.\n"));
    EXPECT_THAT(said, HasSubstr(prefix + "/wrap.trc. Tracing disabled.\n"));
    EXPECT_THAT(said, HasSubstr(prefix + "/raw.trc error is (28) No space left on device. Tracing disabled.\n"));
}

}  // namespace
