// Cost of trace records: a disabled class, and records with the full prefix to a
// plain and to a wrapping file (alone, and shared with a second process writing to
// it all the time), beside fprintf plus fflush of the same text.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/trace.h"

namespace {

const std::string kDir = "/tmp";

void tagThisThread(char* banner, size_t bannerSize, char* tag, size_t tagSize) {
    trFormatThreadTag(static_cast<unsigned long>(psThreadNumber()), banner, bannerSize, tag, tagSize);
}

// Opens path as another process would, continuing what is there.
void joinTrace(const std::string& path, uint32_t maxMB) {
    trEnd(1);
    trTerminate();
    trInit(9, static_cast<unsigned long>(psThreadNumber()), tagThisThread);
    if (maxMB) trSetMaxMB(maxMB);
    trSetLibFlags("PID TID NLS", 1);
    trBegin(path.c_str(), 0);
}

void startTrace(const std::string& path, uint32_t maxMB) {
    trEnd(1);
    unlink(path.c_str());
    joinTrace(path, maxMB);
}

void stopTrace(const std::string& path) {
    trEnd(1);
    trTerminate();
    unlink(path.c_str());
}

void BM_DisabledClass(benchmark::State& state) {
    trFlags[TR_DEBUG] = 0;
    for (auto _ : state) {
        TR_PRINTF(TR_DEBUG, "value %d of %s\n", 42, "bench");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_DisabledClass);

void BM_PlainFileRecord(benchmark::State& state) {
    std::string path = kDir + "/trbench-plain.trc";
    startTrace(path, 0);
    for (auto _ : state) TR_PRINTF(TR_NLS, "value %d of %s\n", 42, "bench");
    state.SetItemsProcessed(state.iterations());
    stopTrace(path);
}
BENCHMARK(BM_PlainFileRecord);

void BM_WrappingFileRecord(benchmark::State& state) {
    std::string path = kDir + "/trbench-wrap.trc";
    startTrace(path, 64);
    for (auto _ : state) TR_PRINTF(TR_NLS, "value %d of %s\n", 42, "bench");
    state.SetItemsProcessed(state.iterations());
    stopTrace(path);
}
BENCHMARK(BM_WrappingFileRecord);

// A second process keeps writing records to the same wrapping file meanwhile.
void BM_WrappingFileRecordShared(benchmark::State& state) {
    std::string path = kDir + "/trbench-shared.trc";
    startTrace(path, 64);
    pid_t other = fork();
    if (other == 0) {
        // Its own opening of the file, as a separately started process has.
        joinTrace(path, 64);
        for (;;) TR_PRINTF(TR_NLS, "other %d of %s\n", 42, "bench");
    }
    for (auto _ : state) TR_PRINTF(TR_NLS, "value %d of %s\n", 42, "bench");
    state.SetItemsProcessed(state.iterations());
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    stopTrace(path);
}
BENCHMARK(BM_WrappingFileRecordShared);

// The same bytes as one plain-file record, written by hand with stdio.
void BM_FprintfFflush(benchmark::State& state) {
    std::string path = kDir + "/trbench-stdio.trc";
    FILE* file = fopen(path.c_str(), "ae");
    unsigned pid = static_cast<unsigned>(getpid());
    unsigned tid = static_cast<unsigned>(psThreadNumber());
    for (auto _ : state) {
        fprintf(file, "%s %s.%03lu [%.6u] [%u] : %-20s(%4u): value %d of %s\n", "2026-11-21", "21:23:14", 123UL, pid,
                tid, __FILE__, static_cast<unsigned>(__LINE__), 42, "bench");
        fflush(file);
    }
    state.SetItemsProcessed(state.iterations());
    fclose(file);
    unlink(path.c_str());
}
BENCHMARK(BM_FprintfFflush);

}  // namespace

BENCHMARK_MAIN();
