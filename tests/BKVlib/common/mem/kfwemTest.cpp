#include "BKVlib/common/mem/kfwcheck.h"
#include "BKVlib/common/mem/kfwem.h"

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
    [](void* block) { ++gSystemReleases; free(block); }};

CBlkHead* head(void* p) { return static_cast<CBlkHead*>(p) - 1; }

KfwStats stats() {
    KfwStats s;
    KfwGetStats(&s);
    return s;
}

std::string addr(const void* p) {
    char text[32];
    snprintf(text, sizeof(text), "%p", p);
    return text;
}

// Every test starts and must end with an empty pool, every segment given back to the
// system; the counters watch the system.
class KfwemTest : public ::testing::Test {
protected:
    void SetUp() override {
        gSystemAllocs = gSystemReleases = 0;
        gSystemFails = false;
        KfwSetSystemAllocator(&kCounting);
    }
    void TearDown() override {
        KfwStats s = stats();
        EXPECT_EQ(0, s.allocated + s.segments + s.directBlocks);
        EXPECT_EQ(gSystemAllocs, gSystemReleases);
        KfwSetSystemAllocator(nullptr);
    }
};

TEST_F(KfwemTest, RequestsRoundUpToEightWithHeaderAndSmallRemaindersGoWithTheBlock) {
    const struct { size_t request; int32_t block; } cases[] = {
        {1, 16}, {9, 24}, {KF_SEG_SIZE, KF_SEG_SIZE + 8}, {KF_SEG_SIZE - 16, KF_SEG_SIZE + 8},  // exact fit; 16 left go with it
        {KF_SEG_SIZE - 24, KF_SEG_SIZE - 16},  // 24 left over is split off
    };
    for (const auto& c : cases) {
        void* p = KF_MALLOC(c.request);
        ASSERT_NE(nullptr, p) << c.request;
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % 8) << c.request;
        EXPECT_EQ(-c.block, head(p)->bSize) << c.request;
        EXPECT_EQ(c.block, stats().allocated) << c.request;
        EXPECT_EQ(KF_SEG_SIZE + 8 - c.block, stats().freeBytes) << c.request;
        KF_FREE(p);
    }
}

TEST_F(KfwemTest, WrongAndFailedCallsAreReportedWithCallerFileAndLine) {
    void* keep = KF_MALLOC(32);
    void* a = KF_MALLOC(32);
    KF_FREE(a);  // merged into the free space around it
    void* gone = KF_MALLOC(KF_SEG_SIZE + 1);  // a direct block already given back, the last one looked up
    KF_FREE(gone);
    char* inside = static_cast<char*>(keep) + 4;
    const std::string freeBlock = "Attempt to free pointer to a free block. Addr ";
    const std::string unknown = "Attempt to free unknown pointer. Addr ";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { kfFree(gone, "f.cpp", 15); }, unknown + addr(gone) + ", File f.cpp, Line 15\n"},
        {[&] { kfFree(a, "f.cpp", 10); }, freeBlock + addr(a) + ", File f.cpp, Line 10\n"},
        {[&] { kfFree(inside, "f.cpp", 16); }, unknown + addr(inside) + ", File f.cpp, Line 16\n"},
        {[&] { kfFree(nullptr, "f.cpp", 17); }, "Attempt to free NULL pointer. File f.cpp Line 17\n"},
        {[&] { EXPECT_EQ(nullptr, kfCalloc(SIZE_MAX / 8, 16, "f.cpp", 24)); },  // count * size overflows
         "Wrong Calloc call: Size 16 Count " + std::to_string(SIZE_MAX / 8) + " File f.cpp Line 24\n"},
        // The system refuses from here on: a direct block, and a move.
        {[&] { EXPECT_EQ(nullptr, kfMalloc(70000, "o.cpp", 2)); }, "Alloc failed: Size 70000 File o.cpp Line 2\n"},
        {[&] { EXPECT_EQ(nullptr, kfRealloc(keep, 100000, "o.cpp", 4)); },
         "Realloc failed: Old addr " + addr(keep) + " New Size 100000 File o.cpp Line 4\n"},
    };
    for (const auto& call : cases) {
        gSystemFails = call.second.find("failed:") != std::string::npos;
        testing::internal::CaptureStderr();
        call.first();
        EXPECT_EQ(call.second, testing::internal::GetCapturedStderr());
        EXPECT_EQ(RC_OK, KfwPoolCheck()) << call.second;
    }
    gSystemFails = false;
    EXPECT_EQ(-40, head(keep)->bSize);  // the block next to all of that is untouched
    KF_FREE(keep);
}

TEST_F(KfwemTest, ThreadsShareThePoolWithoutDamage) {
    auto worker = [](unsigned char seed) {
        std::mt19937 random(seed);
        std::vector<std::pair<unsigned char*, size_t>> live(64, {nullptr, 0});
        for (int i = 0; i < 4000; ++i) {
            auto& slot = live[random() % live.size()];
            if (slot.first) {
                ASSERT_EQ(seed, slot.first[slot.second - 1]);  // no other thread was given these bytes
                KF_FREE(slot.first);
            }
            slot.second = 1 + random() % (random() % 50 == 0 ? 70000 : 300);
            slot.first = static_cast<unsigned char*>(KF_MALLOC(slot.second));
            memset(slot.first, seed, slot.second);
        }
        for (auto& slot : live) KF_FREE(slot.first);
    };
    std::vector<std::thread> threads;
    for (unsigned char t = 1; t <= 4; ++t) threads.emplace_back(worker, t);
    for (auto& t : threads) t.join();
    EXPECT_EQ(RC_OK, KfwPoolCheck());
}

TEST_F(KfwemTest, PoolCheckFindsDamage) {
    testfiles::TempDir dir;
    trInit(0, 0, nullptr);
    trSetLibFlags("MEMORY", 0);
    ASSERT_EQ(0, trBegin(dir.file("trace").c_str(), 0));
    void* small = kfMalloc(1, "t.cpp", 3);
    EXPECT_EQ(RC_OK, KfwPoolCheck());
    const std::string record = "KFWEM(+) Addr " + addr(small) + " Size 1 File t.cpp Line 3\n";
    EXPECT_NE(std::string::npos, testfiles::readFile(dir.file("trace")).find(record));
    CBlkHead saved = *head(small);
    head(small)->magic = 0x1234;
    EXPECT_EQ(RC_POOL_DAMAGED, KfwPoolCheck());
    EXPECT_NE(std::string::npos, testfiles::readFile(dir.file("trace")).find("(Magic value overwritten)\n"));
    *head(small) = saved;
    trEnd(1);
    KF_FREE(small);
}

}  // namespace
