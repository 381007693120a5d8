#include "PathPlanner/topology/TopologyFormat.h"

#include <algorithm>
#include <cstdio>
#include <vector>

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
