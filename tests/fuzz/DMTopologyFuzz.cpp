// libFuzzer target for the readers of the device-mapper tools' text: any bytes as a
// "multipath -ll -v2" listing (read as records, printed as JSON and as a table, and
// read as the nested map view, printed as JSON version 2), as a "dmsetup ls" answer,
// a "dmsetup table" answer, a sysfs port name and a tool's standard error.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Multipath/linux/DMMapView.h"
#include "Multipath/linux/DMTopologyParser.h"
#include "PathPlanner/topology/TopologyFormat.h"
#include "tests/fuzz/FuzzTrace.h"

namespace {

// Groups count from 1 in order, each map has one preferred group, and every path
// has a device that is not the listing's "-".
void checkMapView(const std::string& text) {
    std::vector<DmViewMap> maps = dmParseMapView(text);
    for (const DmViewMap& map : maps) {
        if (map.name.empty()) __builtin_trap();
        int preferred = 0;
        for (size_t i = 0; i < map.groups.size(); ++i) {
            const DmViewGroup& group = map.groups[i];
            if (group.number != static_cast<int32_t>(i + 1)) __builtin_trap();
            preferred += group.preferred ? 1 : 0;
            for (const DmViewPath& path : group.paths) {
                if (path.device.empty() || path.device == "-") __builtin_trap();
            }
        }
        if (preferred != (map.groups.empty() ? 0 : 1)) __builtin_trap();
    }
    std::string json = mapViewToJson(maps, "Device Mapper Multipath Version 0.9.4-3");
    if (json.rfind("{\"version\":2,", 0) != 0 || json.back() != '\n') __builtin_trap();
}

void checkWords(const std::string& text) {
    std::string wwpn;
    if (dmNormalizeWwpn(text, &wwpn) &&
        (wwpn.size() != 16 || wwpn.find_first_not_of("0123456789abcdef") != std::string::npos)) {
        __builtin_trap();
    }
    if (dmSafeName(text) && (text[0] == '-' || text.find_first_of(" ;'\"$`\\/\n") != std::string::npos)) {
        __builtin_trap();
    }
    if (topologyExplainingLine(text).find('\n') != std::string::npos) __builtin_trap();
}

}  // namespace

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
    checkMapView(text);
    checkWords(text);
    dmClassifyListing(size % 3 == 0 ? -1 : static_cast<int32_t>(size % 2), text);
    return 0;
}
