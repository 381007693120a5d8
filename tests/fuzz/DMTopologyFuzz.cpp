// libFuzzer target for the readers of the device-mapper tools' text: any bytes as a
// "multipath -ll -v2" listing (records then printed as JSON and as a table), as a
// "dmsetup ls" answer and as a "dmsetup table" answer.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Common/AgentTrace.h"
#include "Multipath/linux/DMTopologyParser.h"
#include "PathPlanner/topology/TopologyFormat.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every trace record is formatted too, so a bad format argument shows up here.
    initTrace("/dev/null", "MAX", 1024);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Topology topology;
    dmParseTopology(text, "Device Mapper Multipath Version 0.9.4-3", &topology);
    for (const auto& entry : topology) {
        if (!entry.second || entry.first != entry.second->device) __builtin_trap();
    }
    std::string json = topologyToJson(topology);
    if (json.empty() || json[0] != '[') __builtin_trap();
    topologyToTable(topology);
    for (const std::string& name : dmMapNames(text)) {
        if (name.empty() || name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789") != std::string::npos) {
            __builtin_trap();
        }
    }
    dmTableQueues(text);
    dmClassifyListing(size % 3 == 0 ? -1 : static_cast<int32_t>(size % 2), text);
    return 0;
}
