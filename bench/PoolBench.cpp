// The memory pool beside the C library's allocator, in the same run and pattern.
// The names are read by bench/ratios.sh: BM_PoolPair and BM_PoolPairLocked are each
// divided by BM_MallocPair.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "BKVlib/common/mem/kfwem.h"
#include "BKVlib/common/unx/psthread.h"

namespace {

constexpr size_t kPairSize = 64;

struct PoolCalls {
    static void* alloc(size_t size) { return kfMalloc(size, __FILE__, __LINE__); }
    static void release(void* p) { kfFree(p, __FILE__, __LINE__); }
};

struct SystemCalls {
    static void* alloc(size_t size) { return malloc(size); }
    static void release(void* p) { free(p); }
};

// One block allocated and freed again, with another block keeping its segment alive
// as a running program's other allocations would.
template <typename Calls>
void allocFreePairs(benchmark::State& state) {
    void* resident = Calls::alloc(kPairSize);
    for (auto _ : state) {
        void* p = Calls::alloc(kPairSize);
        benchmark::DoNotOptimize(p);
        Calls::release(p);
    }
    Calls::release(resident);
}

// A process declared single-threaded, where the pool takes no lock.
void BM_PoolPair(benchmark::State& state) {
    psSetMultiThreaded(0);
    allocFreePairs<PoolCalls>(state);
    psSetMultiThreaded(1);
}

void BM_PoolPairLocked(benchmark::State& state) {
    psSetMultiThreaded(1);
    allocFreePairs<PoolCalls>(state);
}

void BM_MallocPair(benchmark::State& state) { allocFreePairs<SystemCalls>(state); }

// With nothing else allocated the pool hands its segment back on every free.
void BM_PoolPairEmpty(benchmark::State& state) {
    for (auto _ : state) {
        void* p = PoolCalls::alloc(kPairSize);
        benchmark::DoNotOptimize(p);
        PoolCalls::release(p);
    }
}

// 1000 blocks of 8 to 256 bytes, then freed in a shuffled order: free-list walks and
// merging rather than the one hot block.
template <typename Calls>
void shuffledBatches(benchmark::State& state) {
    std::mt19937 random(7);
    std::vector<size_t> sizes(1000);
    for (auto& s : sizes) s = 8 + random() % 249;
    std::vector<size_t> order(sizes.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), random);
    std::vector<void*> blocks(sizes.size());
    for (auto _ : state) {
        for (size_t i = 0; i < sizes.size(); ++i) blocks[i] = Calls::alloc(sizes[i]);
        for (size_t i : order) Calls::release(blocks[i]);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(sizes.size()));
}

void BM_PoolBatch(benchmark::State& state) { shuffledBatches<PoolCalls>(state); }
void BM_MallocBatch(benchmark::State& state) { shuffledBatches<SystemCalls>(state); }

BENCHMARK(BM_PoolPair);
BENCHMARK(BM_PoolPairLocked);
BENCHMARK(BM_MallocPair);
BENCHMARK(BM_PoolPairEmpty);
BENCHMARK(BM_PoolBatch);
BENCHMARK(BM_MallocBatch);

}  // namespace
