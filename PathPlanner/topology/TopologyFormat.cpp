#include "PathPlanner/topology/TopologyFormat.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"

namespace {

// Length of the valid UTF-8 sequence at text[i], or 0 when it is not one.
size_t utf8Length(const std::string& text, size_t i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80 ? 1 : c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
    if (length == 0 || i + length > text.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        if ((static_cast<unsigned char>(text[i + k]) & 0xc0) != 0x80) return 0;
    }
    unsigned char next = static_cast<unsigned char>(text[i + 1 < text.size() ? i + 1 : i]);
    // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
    if ((c == 0xe0 && next < 0xa0) || (c == 0xed && next > 0x9f) || (c == 0xf0 && next < 0x90) ||
        (c == 0xf4 && next > 0x8f)) {
        return 0;
    }
    return length;
}

std::string escapeControl(unsigned char c) {
    switch (c) {
        case '"': return "\\\"";
        case '\\': return "\\\\";
        case '\b': return "\\b";
        case '\f': return "\\f";
        case '\n': return "\\n";
        case '\r': return "\\r";
        case '\t': return "\\t";
        default: break;
    }
    char buf[8];
    snprintf(buf, sizeof(buf), "\\u%04x", c);
    return buf;
}

void addField(std::string* out, const char* key, const std::string& value, bool quoted) {
    if (out->back() != '{') *out += ",";
    *out += "\"";
    *out += key;
    *out += "\":";
    *out += quoted ? topologyJsonString(value) : value;
}

std::string recordToJson(const PathRecord& r) {
    std::string out = "{";
    addField(&out, "kind", std::to_string(r.kind), false);
    addField(&out, "id", r.id, true);
    addField(&out, "host", std::to_string(r.host), false);
    addField(&out, "channel", std::to_string(r.channel), false);
    addField(&out, "target", std::to_string(r.target), false);
    addField(&out, "lun", std::to_string(r.lun), false);
    addField(&out, "state", r.state, true);
    addField(&out, "mode", r.mode, true);
    addField(&out, "preferred", r.preferred ? "true" : "false", false);
    addField(&out, "policy", r.policy, true);
    addField(&out, "disk", r.disk, true);
    addField(&out, "device", r.device, true);
    addField(&out, "group", std::to_string(r.group), false);
    addField(&out, "driverVersion", r.driverVersion, true);
    addField(&out, "spare", r.spare, true);
    return out + "}";
}

// Known warnings the tools print on every run on some hosts; they never explain a failure.
constexpr const char* kNoise[] = {"can't set open fds limit", "open fds limit"};

bool isNoise(const std::string& line) {
    for (const char* noise : kNoise) {
        if (line.find(noise) != std::string::npos) return true;
    }
    return false;
}

std::string messageText(const std::string& catalogued, const std::string& fallback) {
    return catalogued.empty() ? fallback : catalogued;
}

std::string alignedTable(const std::vector<std::vector<std::string>>& rows);

void addOptional(std::string* out, const char* key, const std::optional<std::string>& value) {
    addField(out, key, value ? topologyJsonString(*value) : "null", false);
}

std::string pathToJson(const DmViewPath& p) {
    std::string out = "{";
    addField(&out, "device", p.device, true);
    addField(&out, "devt", p.devt, true);
    addField(&out, "host", std::to_string(p.host), false);
    addField(&out, "channel", std::to_string(p.channel), false);
    addField(&out, "target", std::to_string(p.target), false);
    addField(&out, "lun", std::to_string(p.lun), false);
    addOptional(&out, "dmState", p.dmState);
    addOptional(&out, "checkerState", p.checkerState);
    addOptional(&out, "deviceState", p.deviceState);
    addOptional(&out, "adapterWwpn", p.adapterWwpn);
    return out + "}";
}

std::string groupToJson(const DmViewGroup& g) {
    std::string out = "{";
    addField(&out, "number", std::to_string(g.number), false);
    addOptional(&out, "policy", g.policy);
    addField(&out, "priority", g.priority ? std::to_string(*g.priority) : "null", false);
    addOptional(&out, "status", g.status);
    addField(&out, "preferred", g.preferred ? "true" : "false", false);
    out += ",\"paths\":[";
    for (const DmViewPath& p : g.paths) out += (out.back() == '[' ? "" : ",") + pathToJson(p);
    return out + "]}";
}

std::string mapToJson(const DmViewMap& m) {
    std::string out = "{";
    addField(&out, "name", m.name, true);
    addOptional(&out, "wwid", m.wwid);
    addOptional(&out, "dm", m.dm);
    addOptional(&out, "vendor", m.vendor);
    addOptional(&out, "product", m.product);
    addOptional(&out, "size", m.size);
    addOptional(&out, "features", m.features);
    addField(&out, "queueing", m.queueing ? (*m.queueing ? "true" : "false") : "null", false);
    addOptional(&out, "hwhandler", m.hwhandler);
    out += ",\"groups\":[";
    for (const DmViewGroup& g : m.groups) out += (out.back() == '[' ? "" : ",") + groupToJson(g);
    return out + "]}";
}

std::string outcomeToJson(const PathOutcome& o) {
    std::string out = "{";
    addField(&out, "map", o.map, true);
    if (!o.device.empty()) addField(&out, "device", o.device, true);
    if (!o.dmState.empty()) addField(&out, "dmState", o.dmState, true);
    if (!o.reason.empty()) addField(&out, "reason", o.reason, true);
    return out + "}";
}

std::vector<std::string> tableRow(const PathRecord& r) {
    std::string hctl = std::to_string(r.host) + ":" + std::to_string(r.channel) + ":" + std::to_string(r.target) + ":" +
                       std::to_string(r.lun);
    return {r.device, hctl, r.disk, std::to_string(r.group), r.policy, r.mode, r.state, r.preferred ? "yes" : "no"};
}

}  // namespace

std::string topologyJsonString(const std::string& text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t length = utf8Length(text, i);
        if (c < 0x20 || c == '"' || c == '\\') {
            out += escapeControl(c);
        } else if (length == 0) {
            out += "\\ufffd";
        } else {
            out.append(text, i, length);
        }
        i += length == 0 ? 1 : length;
    }
    return out + "\"";
}

std::string topologyToJson(const Topology& topology) {
    std::string out = "[";
    for (const auto& entry : topology) {
        out += out.size() > 1 ? ",\n" : "\n";
        out += recordToJson(*entry.second);
    }
    return out + (out.size() > 1 ? "\n]\n" : "]\n");
}

std::string topologyToTable(const Topology& topology) {
    std::vector<std::vector<std::string>> rows = {{"DEVICE", "H:C:T:L", "DISK", "GROUP", "POLICY", "MODE", "STATE", "PREFERRED"}};
    for (const auto& entry : topology) rows.push_back(tableRow(*entry.second));
    return alignedTable(rows);
}

std::string mapViewToJson(const std::vector<DmViewMap>& maps, const std::string& driverText) {
    std::string out = "{\"version\":2,\"driver\":" + topologyJsonString(driverText) + ",\"maps\":[";
    for (const DmViewMap& map : maps) {
        out += out.back() == '[' ? "\n" : ",\n";
        out += mapToJson(map);
    }
    return out + (maps.empty() ? "]}\n" : "\n]}\n");
}

std::string switchResultToJson(const PathSwitchResult& result) {
    std::string out = "{";
    if (result.dryRun) out += "\"dryRun\":true";
    const std::pair<const char*, const std::vector<PathOutcome>*> lists[] = {
        {"changed", &result.changed}, {"unchanged", &result.unchanged},
        {"refused", &result.refused}, {"failed", &result.failed}};
    for (const auto& list : lists) {
        out += std::string(out.back() == '{' ? "" : ",") + "\"" + list.first + "\":[";
        for (const PathOutcome& one : *list.second) out += (out.back() == '[' ? "" : ",") + outcomeToJson(one);
        out += "]";
    }
    return out + "}\n";
}

std::string switchResultToTable(const PathSwitchResult& result) {
    std::vector<std::vector<std::string>> rows = {{"MAP", "DEVICE", "RESULT", "DM-STATE", "REASON"}};
    const std::pair<const char*, const std::vector<PathOutcome>*> lists[] = {
        {result.dryRun ? "would-change" : "changed", &result.changed}, {"unchanged", &result.unchanged},
        {"refused", &result.refused}, {"failed", &result.failed}};
    for (const auto& list : lists) {
        for (const PathOutcome& one : *list.second) {
            rows.push_back({one.map, one.device.empty() ? "-" : one.device, list.first,
                            one.dmState.empty() ? "-" : one.dmState, one.reason});
        }
    }
    return alignedTable(rows);
}

std::string topologyExplainingLine(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? text.size() : end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") != std::string::npos && !isNoise(line)) return line;
    }
    return std::string();
}

std::string topologyListingError(const DmListingResult& result) {
    std::string command = result.command.substr(0, result.command.find(" >>"));
    std::string explained = topologyExplainingLine(result.sysErr);
    std::string said = explained.empty() ? "" : " (" + explained + ")";
    switch (result.status) {
        case DmListingStatus::kNotRun:
            return messageText(getMsg(STA0356E, NA_STR(command)), "the command " + command + " could not be run");
        case DmListingStatus::kNotLoaded:
            return messageText(getMsg(AGT0463I), "the device-mapper multipath driver is not loaded");
        case DmListingStatus::kNoConfigFile:
            return messageText(getMsg(AGT0464I), "multipath.conf does not exist");
        default:
            return messageText(getMsg(STA0523E, NA_STR(command)), "the command " + command + " failed") + said;
    }
}

namespace {

std::string alignedTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (size_t col = 0; col < row.size(); ++col) widths[col] = std::max(widths[col], row[col].size());
    }
    std::string out;
    for (const auto& row : rows) {
        for (size_t col = 0; col < row.size(); ++col) {
            out += row[col];
            if (col + 1 < row.size()) out += std::string(widths[col] - row[col].size() + 2, ' ');
        }
        out += "\n";
    }
    return out;
}

}  // namespace
