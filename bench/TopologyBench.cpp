// Parsing time of "multipath -ll -v2" listings of 10k, 100k and 1M paths: four paths
// per map in two groups of two, the shape of a dual-fabric SAN.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ownedfile.h"
#include "Multipath/linux/DMTopologyParser.h"

namespace {

const std::string kDriverText = "Device Mapper Multipath Version 0.9.4-3";

std::string makeListing(int64_t paths) {
    std::string listing;
    for (int64_t map = 0; map * 4 < paths; ++map) {
        std::string id = std::to_string(map);
        listing += "mpath" + id + " (3600a0b80" + std::to_string(10000000 + map) + ") dm-" + id + " IBM,2145\n";
        listing += "size=16G features='1 queue_if_no_path' hwhandler='1 alua' wp=rw\n";
        for (int group = 0; group < 2; ++group) {
            listing += group == 0 ? "|-+- policy='service-time 0' prio=50 status=active\n"
                                  : "`-+- policy='service-time 0' prio=10 status=enabled\n";
            for (int path = 0; path < 2; ++path) {
                std::string lead = group == 0 ? "| " : "  ";
                std::string branch = path == 0 ? "|- " : "`- ";
                listing += lead + branch + std::to_string(group * 2 + path) + ":0:" + std::to_string(map % 256) + ":" +
                           std::to_string(map % 4096) + " sd" + std::to_string(map * 4 + group * 2 + path) +
                           " 8:16 active ready running\n";
            }
        }
    }
    return listing;
}

double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The tool parses once per run, into a heap nothing has used yet, so every page the
// records take is new to the process and the kernel clears it first; in a loop the
// pages come back from the previous round instead. Here each round runs in a child
// of its own, which reports its CPU time (its own and the kernel's on its behalf).
template <typename Work>
void roundsInFreshProcesses(benchmark::State& state, Work work) {
    for (auto _ : state) {
        int ends[2];
        if (pipe(ends) != 0) {
            state.SkipWithError("no pipe");
            break;
        }
        ScopedFd readEnd(ends[0]);
        ScopedFd writeEnd(ends[1]);
        pid_t child = fork();
        if (child == 0) {
            // The parent's free memory comes along with the fork; handing it back
            // first makes the child's heap as new as the tool's.
            malloc_trim(0);
            const double start = processCpuSeconds();
            work();
            const double seconds = processCpuSeconds() - start;
            _exit(write(writeEnd.get(), &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
        }
        writeEnd.close();
        double seconds = 0;
        const bool got = child > 0 && read(readEnd.get(), &seconds, sizeof seconds) == sizeof seconds;
        if (child > 0) waitpid(child, nullptr, 0);
        if (!got) {
            state.SkipWithError("the child reported no time");
            break;
        }
        state.SetIterationTime(seconds);
    }
}

void BM_ParseTopology(benchmark::State& state) {
    std::string listing = makeListing(state.range(0));
    for (auto _ : state) {
        Topology topology;
        dmParseTopology(listing, kDriverText, &topology);
        benchmark::DoNotOptimize(topology.size());
        // Freeing the records is the caller's business, not the parser's.
        state.PauseTiming();
        topology.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(listing.size()));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ParseTopology)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

// The floor under any parser of this listing: making the records with their strings
// and putting them into the map in listing order, with nothing read from text.
void makeRecords(const std::vector<std::string>& devices, Topology* topology) {
    auto next = topology->end();
    for (const std::string& device : devices) {
        auto rec = std::make_unique<PathRecord>();
        rec->device = device;
        rec->mode = "running";
        rec->state = "ready";
        rec->policy = "service-time";
        rec->disk = "mpath12345";
        rec->driverVersion = kDriverText;
        auto slot = topology->try_emplace(next, device);
        slot->second = std::move(rec);
        next = std::next(slot);
    }
}

std::vector<std::string> deviceNames(int64_t paths) {
    std::vector<std::string> devices;
    for (int64_t path = 0; path < paths; ++path) devices.push_back("sd" + std::to_string(path));
    return devices;
}

void BM_RecordsAlone(benchmark::State& state) {
    const std::vector<std::string> devices = deviceNames(state.range(0));
    for (auto _ : state) {
        Topology topology;
        makeRecords(devices, &topology);
        benchmark::DoNotOptimize(topology.size());
        state.PauseTiming();
        topology.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RecordsAlone)->Arg(100000)->Unit(benchmark::kMillisecond);

// The same two figures as the tool meets them: once, in a fresh process.
void BM_ParseTopologyFreshProcess(benchmark::State& state) {
    const std::string listing = makeListing(state.range(0));
    roundsInFreshProcesses(state, [&listing] {
        Topology topology;
        dmParseTopology(listing, kDriverText, &topology);
        benchmark::DoNotOptimize(topology.size());
    });
}
BENCHMARK(BM_ParseTopologyFreshProcess)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_RecordsAloneFreshProcess(benchmark::State& state) {
    const std::vector<std::string> devices = deviceNames(state.range(0));
    roundsInFreshProcesses(state, [&devices] {
        Topology topology;
        makeRecords(devices, &topology);
        benchmark::DoNotOptimize(topology.size());
    });
}
BENCHMARK(BM_RecordsAloneFreshProcess)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
