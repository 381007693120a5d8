// Several threads writing one wrapping trace file: every record must come out
// whole, in each thread's own order, however the writes and wraps interleave.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/trace.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

namespace {

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
    std::string path = dir.file("shared.trc");
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
