// Wrapping trace files: header, wrap point, reuse of an earlier file, tracing
// switched off when the disk is full, and several threads writing one file: every
// record whole, in each thread's own order.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/trace.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr size_t kMiB = 1048576;
// What a record leaves free under the limit: room for the longest closing line.
constexpr size_t kSlack = 48;
const std::string kEnd = "\nEND OF DATA\n\n";

class TraceWrapTest : public TraceTestBase {
protected:
    // Begins a wrapping trace whose records carry no prefix, so their sizes are exact.
    void beginBare(uint32_t maxMB) {
        trSetMaxMB(maxMB);
        ASSERT_EQ(0, trBegin(path_.c_str(), 0));
        trSetLibFlags("-TIMESTAMP -PREFIX", 0);
    }
    static void put(const std::string& line) { trPrintf("f", 1, "%s\n", line.c_str()); }
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

// The record before the wrap ends at every offset from well inside the slack to
// well before it; whatever is written after it, the file stays within its limit
// and the next start continues it with its history. A record ending exactly at the
// limit still fits; one byte more wraps it to the start of the data.
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
        std::string text = readFile(path_);
        if (before == 60) { EXPECT_EQ(kMiB - kSlack, recordedOffset(text)); }
        if (before == 59) {
            EXPECT_EQ("\nContinued at beginning of file\n\n", text.substr(kMiB - kSlack - 59, 33));
            EXPECT_EQ(last + "\n" + kEnd, text.substr(text.find('\n') + 2, 60 + kEnd.size()));
        }
        trEnd(1);
        ASSERT_LE(readFile(path_).size(), kMiB) << "ended " << before << " bytes before the slack";

        resetTrace();
        beginBare(1);
        put("next start");
        trEnd(1);
        text = readFile(path_);
        EXPECT_LE(text.size(), kMiB) << before;
        EXPECT_EQ(1u, countOf(text, "\nhistory\n")) << "ended " << before << " bytes before the slack";
        EXPECT_EQ(1u, countOf(text, last + "\n")) << before;
        EXPECT_EQ(1u, countOf(text, "next start\n\nEND OF DATA - close\n\n")) << before;
    }
}

TEST_F(TraceWrapTest, EarlierFileIsContinuedOnlyWhenItFits) {
    // A file past its maximum is TraceReopenFuzz's: whatever a start finds, it stays within the maximum.
    const struct { const char* name; uint32_t firstMax, secondMax; bool foreign, continued; } cases[] = {
        {"larger maximum", 2, 3, false, true},
        {"smaller maximum", 2, 1, false, false},
        {"foreign first line", 2, 2, true, false},
    };
    for (const auto& c : cases) {
        unlink(path_.c_str());
        for (const char* run : {"one", "two"}) {
            resetTrace();
            beginBare(*run == 'o' ? c.firstMax : c.secondMax);
            put(std::string("run ") + run + " record");
            trEnd(1);
            if (*run == 'o' && c.foreign) writeFile(path_, "some other program's log\n" + readFile(path_));
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

// The offset field is kept through a mapping of the file's first page. A file cut
// to nothing without the lock makes that page fault: the trace goes on through
// pread and pwrite, exactly as it would have without the mapping, while a fault
// anywhere else still ends the process.
TEST_F(TraceWrapTest, FileCutToNothingUnderTheTraceIsWrittenOnButOtherBusErrorsStillKill) {
    int rc = runInChild([&] {
        beginBare(1);
        put("before");
        size_t next = recordedOffset(readFile(path_));
        if (truncate(path_.c_str(), 0) != 0) return 3;
        put("after");
        put("again");
        std::string text = readFile(path_);
        if (recordedOffset(text) != next + 12) return 4;
        return text.substr(next) == "after\nagain\n" + kEnd ? 0 : 5;
    });
    EXPECT_EQ(0, rc);

    std::string other = dir_.file("other");
    rc = runInChild([&] {
        beginBare(1);
        put("mapped");
        writeFile(other, std::string(4096, 'o'));
        int fd = open(other.c_str(), O_RDWR);
        auto* page = static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
        if (page == MAP_FAILED || ftruncate(fd, 0) != 0) return 3;
        return page[0] == 'o' ? 42 : 43;  // faults
    });
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizer's handler was there first: it reports the fault and exits.
    EXPECT_TRUE(rc != 42 && rc != 43 && rc != 3) << rc;
#else
    EXPECT_EQ(1000 + SIGBUS, rc);
#endif
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

constexpr int kRecordsEach = 2500;

void writeRecords(int writer) {
    for (int seq = 0; seq < kRecordsEach; ++seq) {
        int length = (seq * 37 + writer * 11) % 180;
        trPrintf("Conc.cpp", 7, "T%d R%05d L%03d %s\n", writer, seq, length, std::string(length, 'x').c_str());
    }
}

// Checks every line of one region: a record must carry exactly its length and
// follow its writer's previous record. Returns the records seen.
int parseRegion(const std::string& region, std::map<int, int>* lastSeq, std::vector<std::string>* broken) {
    static const std::regex record(
        "[0-9-]{10} [0-9:]{8}\\.[0-9]{3} \\[[0-9]{6,}\\] \\[[0-9]+\\] : Conc\\.cpp {12}\\(   7\\): "
        "T([0-9]) R([0-9]{5}) L([0-9]{3}) (x*)");
    static const std::regex other(" {29}New thread {9}0================>|BEGINNING NEW TRACE|");
    int records = 0;
    for (const std::string& line : testfiles::splitLines(region)) {
        std::smatch m;
        if (std::regex_match(line, m, record) && std::stoi(m[3]) == static_cast<int>(m[4].length())) {
            int writer = std::stoi(m[1]), seq = std::stoi(m[2]);
            if (lastSeq->count(writer) && (*lastSeq)[writer] >= seq) broken->push_back("order: " + line);
            (*lastSeq)[writer] = seq;
            ++records;
        } else if (!std::regex_match(line, other)) {
            broken->push_back(line);
        }
    }
    return records;
}

TEST(TraceConcurrencyTest, WrappingFileRecordsNeverInterleave) {
    TempDir dir;
    const std::string path = dir.file("shared.trc");
    resetTrace(9, [](char* banner, size_t bannerSize, char* tag, size_t tagSize) {
        trFormatThreadTag(static_cast<unsigned long>(psThreadNumber()), banner, bannerSize, tag, tagSize);
    });
    trSetMaxMB(1);
    trSetLibFlags("PID TID", 0);
    ASSERT_EQ(0, trBegin(path.c_str(), 0));
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) writers.emplace_back(writeRecords, w);
    for (std::thread& t : writers) t.join();
    trEnd(1);

    std::string text = readFile(path);
    size_t dataStart = text.find('\n') + 2, offset = recordedOffset(text);
    ASSERT_EQ("\nEND OF DATA - close\n\n", text.substr(offset, 22));
    size_t wrapLine = text.find("\nContinued at beginning of file\n\n", offset);
    ASSERT_NE(std::string::npos, wrapLine) << "the writers should have wrapped the file";
    std::string older = text.substr(offset + 22, wrapLine - offset - 22);
    older = older.substr(older.find('\n') + 1);  // the first line was cut by newer records

    std::map<int, int> lastSeq;
    std::vector<std::string> broken;
    int records = parseRegion(older, &lastSeq, &broken);
    records += parseRegion(text.substr(dataStart, offset - dataStart), &lastSeq, &broken);
    EXPECT_TRUE(broken.empty()) << broken.size() << " bad lines, first: " << broken.front();
    EXPECT_GT(records, 2000);
    // A writer that finished early may have had its last records wrapped over; the
    // writer that finished last cannot.
    int finished = 0;
    for (const auto& entry : lastSeq) finished += entry.second == kRecordsEach - 1;
    EXPECT_GE(finished, 1);
    EXPECT_LE(text.size(), 1048576u + 33);
    resetTrace();
}

}  // namespace
