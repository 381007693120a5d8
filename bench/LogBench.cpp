// Cost of one activity-log line (open, write, close through the log file record)
// against a bare open-append-close of the same line, and of an entry in a wrapping log
// against an entry appended to a plain log that stays open.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include "BKVlib/common/ut/logutils.h"
#include "Common/LogManager.h"

namespace {

const char* const kMessage = "AGT0429I PathPlanner 5.2.8.0 started: -multipath 2;mpatha;mpathb\n";

class BenchDir {
public:
    BenchDir() {
        char tmpl[] = "/tmp/logbenchXXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~BenchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string file(const char* name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void BM_ActivityLogLine(benchmark::State& state) {
    BenchDir dir;
    LogManager log(dir.file("multipath.log"));
    for (auto _ : state) benchmark::DoNotOptimize(log.LogActivityLog(kMessage));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ActivityLogLine);

void BM_BareOpenAppendClose(benchmark::State& state) {
    BenchDir dir;
    std::string path = dir.file("bare.log");
    std::string line = std::string("2024-03-15 12:00:00.000 ") + kMessage;
    for (auto _ : state) {
        int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
        close(fd);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareOpenAppendClose);

// Both logs stay open; the entry has the activity log's length.
void appendEntries(benchmark::State& state, uint32_t maxBytes) {
    BenchDir dir;
    LogFile log;
    utSetLogSettings(&log, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    if (utWrapFile(&log, dir.file("entries.log").c_str(), 1) != 0) {
        state.SkipWithError("cannot open the log");
        return;
    }
    std::string line = std::string("2024-03-15 12:00:00.000 ") + kMessage;
    for (auto _ : state) benchmark::DoNotOptimize(utLogWrite(&log, line.data(), line.size()));
    utCloseLog(&log);
    state.SetItemsProcessed(state.iterations());
}

void BM_PlainLogAppend(benchmark::State& state) {
    appendEntries(state, 0);
}
BENCHMARK(BM_PlainLogAppend);

void BM_WrappingLogAppend(benchmark::State& state) {
    appendEntries(state, 1024 * 1024);
}
BENCHMARK(BM_WrappingLogAppend);

}  // namespace

BENCHMARK_MAIN();
