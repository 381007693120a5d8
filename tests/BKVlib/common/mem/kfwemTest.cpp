#include "BKVlib/common/mem/kfwem.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

int gSystemAllocs = 0;
int gSystemReleases = 0;
bool gSystemFails = false;

const KfwSystemAllocator kCounting = {
    [](size_t size) -> void* { return gSystemFails ? nullptr : (++gSystemAllocs, malloc(size)); },
    [](void* block) {
        ++gSystemReleases;
        free(block);
    }};

CBlkHead* head(void* p) { return static_cast<CBlkHead*>(p) - 1; }

KfwStats stats() {
    KfwStats s;
    KfwGetStats(&s);
    return s;
}

// Runs call with standard error captured and returns what the pool reported.
std::string reported(const std::function<void()>& call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

std::string addr(const void* p) {
    char text[32];
    snprintf(text, sizeof(text), "%p", p);
    return text;
}

// Every test starts and must end with an empty pool; the counters watch the system.
class KfwemTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, stats().segments);
        gSystemAllocs = gSystemReleases = 0;
        gSystemFails = false;
        KfwSetSystemAllocator(&kCounting);
    }
    void TearDown() override {
        KfwStats s = stats();
        EXPECT_EQ(0, s.allocated + s.segments + s.directBlocks);
        EXPECT_EQ(gSystemAllocs, gSystemReleases);
        KfwSetOutOfMemoryHandler(nullptr);
        KfwSetSystemAllocator(nullptr);
    }
};

TEST_F(KfwemTest, RequestsRoundUpToEightWithHeaderAndSmallRemaindersGoWithTheBlock) {
    const struct {
        size_t request;
        int32_t block;
        long leftFree;  // -1: not checked
    } cases[] = {
        {1, 16, -1},   {8, 16, -1},   {9, 24, -1}, {17, 32, -1}, {1000, 1008, -1},
        {KF_SEG_SIZE, KF_SEG_SIZE + 8, 0},         // exact fit
        {KF_SEG_SIZE - 16, KF_SEG_SIZE + 8, 0},    // 16 left over goes with the block
        {KF_SEG_SIZE - 24, KF_SEG_SIZE - 16, 24},  // 24 left over is split off
    };
    for (const auto& c : cases) {
        void* p = KF_MALLOC(c.request);
        ASSERT_NE(nullptr, p) << c.request;
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % 8) << c.request;
        EXPECT_EQ(KF_MAGIC_BUSY, head(p)->magic) << c.request;
        EXPECT_EQ(-c.block, head(p)->bSize) << c.request;
        EXPECT_EQ(c.block, stats().allocated) << c.request;
        EXPECT_EQ(c.leftFree, c.leftFree < 0 ? -1 : stats().freeBytes) << c.request;
        EXPECT_EQ(0, stats().directBlocks) << c.request;
        memset(p, 0xA5, c.request);
        KF_FREE(p);
    }
}

TEST_F(KfwemTest, FreeingLastBlockReturnsSegmentInAnyOrder) {
    for (const auto& order : std::vector<std::vector<int>>{{0, 1, 2}, {2, 1, 0}, {1, 0, 2}}) {
        void* blocks[3] = {KF_MALLOC(40), KF_MALLOC(100), KF_MALLOC(7)};
        int releasesBefore = gSystemReleases;
        for (size_t i = 0; i < order.size(); ++i) {
            KF_FREE(blocks[order[i]]);
            EXPECT_EQ(i + 1 < order.size() ? 1 : 0, stats().segments) << "after free " << i;
            EXPECT_EQ(RC_OK, KfwPoolCheck());
        }
        EXPECT_EQ(releasesBefore + 1, gSystemReleases);
    }
}

TEST_F(KfwemTest, MergedNeighboursServeLargerRequestInSameSegment) {
    void* b[4];
    for (auto& p : b) p = KF_MALLOC(16336);  // fills the segment; the last takes the 16-byte remainder
    EXPECT_EQ(-16360, head(b[3])->bSize);
    KF_FREE(b[1]);
    KF_FREE(b[2]);
    EXPECT_EQ(2 * 16344, stats().freeBytes);
    void* big = KF_MALLOC(32000);
    EXPECT_EQ(1, gSystemAllocs);  // no second segment was needed
    EXPECT_EQ(RC_OK, KfwPoolCheck());
    for (void* p : {big, b[0], b[3]}) KF_FREE(p);
}

TEST_F(KfwemTest, ReallocGrowsInPlaceOrMovesKeepingContentsAndCallocZeroes) {
    const char text[] = "0123456789abcdefghijklm";
    void* above = KF_MALLOC(64);
    void* p = KF_MALLOC(sizeof(text));  // cut just below "above"
    memcpy(p, text, sizeof(text));
    KF_FREE(above);
    void* grown = KF_REALLOC(p, 80);
    EXPECT_EQ(p, grown);
    EXPECT_EQ(-104, head(grown)->bSize);  // 32 + 72, no remainder worth splitting
    void* moved = KF_REALLOC(grown, 5000);  // the end sentinel follows now
    EXPECT_NE(grown, moved);
    EXPECT_STREQ(text, static_cast<char*>(moved));
    void* direct = KF_REALLOC(moved, KF_SEG_SIZE + 100);
    EXPECT_STREQ(text, static_cast<char*>(direct));
    EXPECT_EQ(1, stats().directBlocks);
    EXPECT_EQ(direct, KF_REALLOC(direct, 10));  // shrinking keeps the block
    KF_FREE(direct);
    memset(p = KF_MALLOC(200), 0xEE, 200);
    KF_FREE(p);
    unsigned char* z = static_cast<unsigned char*>(KF_CALLOC(50, 4));
    EXPECT_EQ(std::string(200, '\0'), std::string(reinterpret_cast<char*>(z), 200));
    KF_FREE(z);
}

TEST_F(KfwemTest, MisuseIsReportedWithCallerFileAndLine) {
    // Blocks are cut from the end of the free space: keep > a > c > the rest.
    void* keep = KF_MALLOC(32);
    void* a = KF_MALLOC(32);
    void* c = KF_MALLOC(32);
    kfFree(a, "a.cpp", 1);  // free on its own
    kfFree(c, "a.cpp", 1);  // taken in by the free space below it
    void* direct = KF_MALLOC(KF_SEG_SIZE * 2);
    kfFree(direct, "a.cpp", 1);
    char* foreign = static_cast<char*>(malloc(64));
    char* inside = static_cast<char*>(keep) + 4;
    void* fresh = nullptr;
    const struct {
        std::function<void()> call;
        std::string message;
    } cases[] = {
        {[&] { kfFree(a, "f.cpp", 10); }, "Attempt to free pointer to a free block. Addr " + addr(a) + ", File f.cpp, Line 10\n"},
        {[&] { kfFree(c, "f.cpp", 12); }, "Attempt to free pointer to a free block. Addr " + addr(c) + ", File f.cpp, Line 12\n"},
        {[&] { kfFree(direct, "f.cpp", 13); }, "Attempt to free unknown pointer. Addr " + addr(direct) + ", File f.cpp, Line 13\n"},
        {[&] { kfFree(foreign, "f.cpp", 14); }, "Attempt to free unknown pointer. Addr " + addr(foreign) + ", File f.cpp, Line 14\n"},
        {[&] { kfFree(inside, "f.cpp", 16); }, "Attempt to free unknown pointer. Addr " + addr(inside) + ", File f.cpp, Line 16\n"},
        {[&] { kfFree(nullptr, "f.cpp", 17); }, "Attempt to free NULL pointer. File f.cpp Line 17\n"},
        {[&] { EXPECT_EQ(nullptr, kfRealloc(a, 64, "f.cpp", 18)); },
         "Attempt to realloc free pointer. Addr " + addr(a) + ", File f.cpp, Line 18\n"},
        {[&] { EXPECT_EQ(nullptr, kfRealloc(foreign, 64, "f.cpp", 19)); },
         "Attempt to realloc unknown pointer. Addr " + addr(foreign) + ", File f.cpp, Line 19\n"},
        {[&] { EXPECT_EQ(nullptr, kfRealloc(keep, 0, "f.cpp", 20)); }, "Wrong Realloc call: Size 0 File f.cpp Line 20\n"},
        {[&] { EXPECT_EQ(nullptr, kfMalloc(static_cast<size_t>(-1), "f.cpp", 22)); },
         "Wrong Alloc call: Size -1 File f.cpp Line 22\n"},
        {[&] { EXPECT_EQ(nullptr, kfCalloc(SIZE_MAX / 8, 16, "f.cpp", 24)); },
         "Wrong Calloc call: Size 16 Count " + std::to_string(static_cast<long>(SIZE_MAX / 8)) + " File f.cpp Line 24\n"},
        {[&] { fresh = kfRealloc(nullptr, 10, "r.cpp", 5); },
         "kfRealloc() called with NULL pointer. File r.cpp Line 5. Initial allocation assumed, using kfMalloc().\n"},
    };
    for (const auto& misuse : cases) {
        EXPECT_EQ(misuse.message, reported(misuse.call));
        EXPECT_EQ(RC_OK, KfwPoolCheck()) << misuse.message;
    }
    EXPECT_EQ(-40, head(keep)->bSize);  // the block next to all of that is untouched
    EXPECT_EQ(-24, head(fresh)->bSize);
    free(foreign);
    KF_FREE(keep);
    KF_FREE(fresh);
}

TEST_F(KfwemTest, OutOfMemoryFailsOrRetriesThroughHandler) {
    gSystemFails = true;
    EXPECT_EQ("Alloc failed: Size 70000 File o.cpp Line 2\n", reported([] { EXPECT_EQ(nullptr, kfMalloc(70000, "o.cpp", 2)); }));
    EXPECT_EQ("Calloc failed: Size 8 File o.cpp Line 3\n", reported([] { EXPECT_EQ(nullptr, kfCalloc(2, 8, "o.cpp", 3)); }));
    static int handlerCalls = 0;
    KfwSetOutOfMemoryHandler([](size_t) {
        ++handlerCalls;
        gSystemFails = false;
        return 1;
    });
    void* p = KF_MALLOC(10);
    EXPECT_NE(nullptr, p);
    EXPECT_EQ(1, handlerCalls);
    gSystemFails = true;
    void* same = p;
    EXPECT_EQ("Realloc failed: Old addr " + addr(p) + " New Size 100000 File o.cpp Line 4\n",
              reported([&] { same = kfRealloc(p, 100000, "o.cpp", 4); }));
    EXPECT_EQ(nullptr, same);
    EXPECT_EQ(-24, head(p)->bSize);  // the old block is left as it was
    gSystemFails = false;
    KF_FREE(p);
}

TEST_F(KfwemTest, PoolCheckTracesBlocksAndFindsDamage) {
    testfiles::TempDir dir;
    std::string path = dir.file("memory.trc");
    trInit(0, 0, nullptr);
    trSetLibFlags("MEMORY", 0);
    ASSERT_EQ(0, trBegin(path.c_str(), 0));
    void* small = kfMalloc(1, "t.cpp", 3);
    EXPECT_EQ(RC_OK, KfwPoolCheck());
    std::string text = testfiles::readFile(path);
    for (const std::string& line : {"KFWEM(+) Addr " + addr(small) + " Size 1 File t.cpp Line 3\n",
                                    "\t\tBusy block at " + addr(head(small)) + "(" + addr(small) + "): size     16 bytes.\n",
                                    std::string("KFWEM(v) Pool validation finished. RC = 0\n")}) {
        EXPECT_NE(std::string::npos, text.find(line)) << line;
    }
    CBlkHead saved = *head(small);
    head(small)->magic = 0x1234;
    EXPECT_EQ(RC_POOL_DAMAGED, KfwPoolCheck());
    EXPECT_NE(std::string::npos, testfiles::readFile(path).find("(Magic value overwritten)\n"));
    *head(small) = saved;

    void* hole = KF_MALLOC(40);
    void* guard = KF_MALLOC(40);
    KF_FREE(hole);  // a second free block, reached only through the list
    uint32_t* links = static_cast<uint32_t*>(hole);  // segment number << 16 | offset
    uint32_t savedNext = links[0];
    links[0] = 0xFFFE0000u | 64;
    EXPECT_EQ(RC_POOL_DAMAGED, KfwPoolCheck());
    EXPECT_NE(std::string::npos, testfiles::readFile(path).find("bytes.(Bad free list links)\n"));
    links[0] = savedNext;
    EXPECT_EQ(RC_OK, KfwPoolCheck());
    KF_FREE(guard);
    KF_FREE(small);
    trEnd(1);
}

TEST(KfwFormatBytesTest, SixteenBytesPerLineWithFoldedRepeats) {
    const std::string zeroLine = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00    ................\n";
    const struct {
        std::vector<unsigned char> data;
        std::string text;
    } cases[] = {
        {{}, ""},
        {{'A', 'b', ' ', 0x00, 0x7f, 0xff, '~', '9'}, "41 62 20 00 7F FF 7E 39                            Ab....~9\n"},
        {std::vector<unsigned char>(64, 0), zeroLine + "(3 lines [48 bytes] identical to above line skipped)\n"},
        {std::vector<unsigned char>(40, 0), zeroLine + "(1 lines [16 bytes] identical to above line skipped)\n" +
                                                "00 00 00 00 00 00 00 00                            ........\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.text, KfwFormatBytes(c.data.data(), c.data.size())) << c.data.size();
}

TEST_F(KfwemTest, ThreadsShareThePoolWithoutDamage) {
    auto worker = [](unsigned seed) {
        std::mt19937 random(seed);
        std::vector<std::pair<unsigned char*, size_t>> live;
        for (int i = 0; i < 4000; ++i) {
            if (live.size() < 64 && random() % 3 != 0) {
                size_t size = 1 + random() % (random() % 50 == 0 ? 70000 : 300);
                unsigned char* p = static_cast<unsigned char*>(KF_MALLOC(size));
                ASSERT_NE(nullptr, p);
                memset(p, static_cast<int>(seed), size);
                live.push_back({p, size});
            } else if (!live.empty()) {
                size_t at = random() % live.size();
                ASSERT_EQ(static_cast<unsigned char>(seed), live[at].first[live[at].second - 1]);
                KF_FREE(live[at].first);
                live.erase(live.begin() + static_cast<long>(at));
            }
        }
        for (auto& block : live) KF_FREE(block.first);
    };
    std::vector<std::thread> threads;
    for (unsigned t = 1; t <= 4; ++t) threads.emplace_back(worker, t);
    for (auto& t : threads) t.join();
    EXPECT_EQ(RC_OK, KfwPoolCheck());
}

}  // namespace
