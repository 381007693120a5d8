// A cached catalogue lookup with formatting, beside snprintf of the same text.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"

namespace {

const char* const kEcho = "/opt/ZOR/QLX/agent/bin/PathPlanner -multipath 2;mpatha;mpathb";

void startCatalogue(const char* language) {
    endMessages();
    nlSetLanguage("");
    initMessages(std::string(PP_BINARY_DIR) + "/nls", "", "qlxna.cat", language);
}

void BM_Snprintf(benchmark::State& state) {
    char buffer[512];
    for (auto _ : state) {
        int n = snprintf(buffer, sizeof(buffer), "AGT0429I %s started with the command line: %s", "PathPlanner", kEcho);
        std::string text(buffer, static_cast<size_t>(n));
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_Snprintf);

// Fast path: the English message keeps its inserts in argument order.
void BM_CachedLookupFastPath(benchmark::State& state) {
    startCatalogue("en_US");
    std::string text;
    for (auto _ : state) {
        nlGetText(&text, 1804, "PathPlanner", kEcho);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_CachedLookupFastPath);

// Ordered inserts: the German message places its inserts in reverse order.
void BM_CachedLookupOrdered(benchmark::State& state) {
    startCatalogue("de_DE");
    std::string text;
    for (auto _ : state) {
        nlGetText(&text, 1804, "PathPlanner", kEcho);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_CachedLookupOrdered);

// The agent's whole path: lookup, formatting, global return code, identifier.
void BM_AgentGetMsg(benchmark::State& state) {
    startCatalogue("en_US");
    for (auto _ : state) {
        std::string text = getMsg(AGT0429I, "PathPlanner", kEcho);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_AgentGetMsg);

}  // namespace

BENCHMARK_MAIN();
