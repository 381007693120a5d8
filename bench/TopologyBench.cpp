// Parsing time of "multipath -ll -v2" listings of 10k, 100k and 1M paths: four paths
// per map in two groups of two, the shape of a dual-fabric SAN.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Multipath/linux/DMTopologyParser.h"

namespace {

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

void BM_ParseTopology(benchmark::State& state) {
    std::string listing = makeListing(state.range(0));
    for (auto _ : state) {
        Topology topology;
        dmParseTopology(listing, "Device Mapper Multipath Version 0.9.4-3", &topology);
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
void BM_RecordsAlone(benchmark::State& state) {
    std::vector<std::string> devices;
    for (int64_t path = 0; path < state.range(0); ++path) devices.push_back("sd" + std::to_string(path));
    const std::string driverText = "Device Mapper Multipath Version 0.9.4-3";
    for (auto _ : state) {
        Topology topology;
        auto next = topology.end();
        for (const std::string& device : devices) {
            auto rec = std::make_unique<PathRecord>();
            rec->device = device;
            rec->mode = "running";
            rec->state = "ready";
            rec->policy = "service-time";
            rec->disk = "mpath12345";
            rec->driverVersion = driverText;
            auto slot = topology.try_emplace(next, device);
            slot->second = std::move(rec);
            next = std::next(slot);
        }
        benchmark::DoNotOptimize(topology.size());
        state.PauseTiming();
        topology.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RecordsAlone)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
