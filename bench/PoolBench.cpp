// The memory pool beside the C library's allocator, in the same run and pattern.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "BKVlib/common/mem/kfwem.h"
#include "BKVlib/common/unx/psthread.h"

namespace {

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
void BM_AllocFreePair(benchmark::State& state) {
    size_t size = static_cast<size_t>(state.range(0));
    void* resident = Calls::alloc(64);
    for (auto _ : state) {
        void* p = Calls::alloc(size);
        benchmark::DoNotOptimize(p);
        Calls::release(p);
    }
    Calls::release(resident);
}

// The pair in a process declared single-threaded, where the pool takes no lock
// (the path planner's own case).
template <typename Calls>
void BM_AllocFreePairSingleThreaded(benchmark::State& state) {
    psSetMultiThreaded(0);
    BM_AllocFreePair<Calls>(state);
    psSetMultiThreaded(1);
}

// The same with nothing else allocated: the pool hands its segment back every time.
template <typename Calls>
void BM_AllocFreeEmpty(benchmark::State& state) {
    size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = Calls::alloc(size);
        benchmark::DoNotOptimize(p);
        Calls::release(p);
    }
}

// 1000 blocks of 8 to 256 bytes, then freed in a shuffled order.
template <typename Calls>
void BM_Batch(benchmark::State& state) {
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

BENCHMARK_TEMPLATE(BM_AllocFreePair, PoolCalls)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK_TEMPLATE(BM_AllocFreePair, SystemCalls)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK_TEMPLATE(BM_AllocFreePairSingleThreaded, PoolCalls)->Arg(64);
BENCHMARK_TEMPLATE(BM_AllocFreePairSingleThreaded, SystemCalls)->Arg(64);
BENCHMARK_TEMPLATE(BM_AllocFreeEmpty, PoolCalls)->Arg(64);
BENCHMARK_TEMPLATE(BM_AllocFreeEmpty, SystemCalls)->Arg(64);
BENCHMARK_TEMPLATE(BM_Batch, PoolCalls);
BENCHMARK_TEMPLATE(BM_Batch, SystemCalls);

}  // namespace
