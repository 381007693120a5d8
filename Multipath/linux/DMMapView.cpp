#include "Multipath/linux/DMMapView.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "Common/AgentTrace.h"

namespace {

// Characters that draw the tree (and the bracketed layout's "\_") in front of a
// group or path line.
constexpr char kTreeChars[] = " \t|`-+\\_";
constexpr char kBlanks[] = " \t";
constexpr char kNameChars[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.:-";
constexpr char kQueueingFeature[] = "queue_if_no_path";
constexpr size_t kWwpnDigits = 16;
constexpr size_t kMinWwidDigits = 10;

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

std::string_view trimmed(std::string_view text) {
    size_t start = text.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) return {};
    size_t end = text.find_last_not_of(kBlanks);
    return text.substr(start, end - start + 1);
}

std::string_view firstWord(std::string_view text) {
    text = trimmed(text);
    return text.substr(0, text.find_first_of(kBlanks));
}

std::string_view afterFirstWord(std::string_view text) {
    text = trimmed(text);
    size_t blank = text.find_first_of(kBlanks);
    return blank == std::string_view::npos ? std::string_view() : trimmed(text.substr(blank));
}

// Whole decimal number, checked for overflow; false for anything else.
bool readDecimal(std::string_view text, uint64_t limit, uint64_t* value) {
    if (text.empty() || text.size() > 20) return false;
    uint64_t result = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (result > (limit - digit) / 10) return false;
        result = result * 10 + digit;
    }
    *value = result;
    return true;
}

// The value after key in "key='a b'", "key=\"a b\"", "[key=a b]" or "key=a".
std::optional<std::string> valueOf(std::string_view line, std::string_view key) {
    size_t at = line.find(key);
    while (at != std::string_view::npos && at > 0 && std::isalnum(static_cast<unsigned char>(line[at - 1]))) {
        at = line.find(key, at + 1);
    }
    if (at == std::string_view::npos) return std::nullopt;
    bool bracketed = at > 0 && line[at - 1] == '[';
    std::string_view rest = line.substr(at + key.size());
    std::string_view value;
    if (!rest.empty() && (rest[0] == '\'' || rest[0] == '"')) {
        size_t close = rest.find(rest[0], 1);
        value = rest.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1);
    } else {
        value = rest.substr(0, rest.find_first_of(bracketed ? "]" : " \t]"));
    }
    return std::string(trimmed(value));
}

// A map header: "name (wwid) dm-N vendor,product", "wwid dm-N vendor,product" or,
// in the oldest layout, "name (wwid)" alone.
DmViewMap readMapHeader(std::string_view line) {
    DmViewMap map;
    map.name = std::string(firstWord(line));
    std::string_view rest = afterFirstWord(line);
    if (!rest.empty() && rest[0] == '(') {
        size_t close = rest.find(')');
        map.wwid = std::string(rest.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1));
        rest = close == std::string_view::npos ? std::string_view() : trimmed(rest.substr(close + 1));
    } else {
        map.wwid = map.name;  // without an alias the map is named by its WWID
    }
    if (startsWith(firstWord(rest), "dm-")) {
        map.dm = std::string(firstWord(rest));
        std::string_view model = afterFirstWord(rest);
        size_t comma = model.find(',');
        if (comma != std::string_view::npos) {
            map.vendor = std::string(trimmed(model.substr(0, comma)));
            map.product = std::string(trimmed(model.substr(comma + 1)));
        }
    }
    return map;
}

void readMapAttributes(std::string_view line, DmViewMap* map) {
    map->size = valueOf(line, "size=");
    map->features = valueOf(line, "features=");
    map->hwhandler = valueOf(line, "hwhandler=");
    if (map->features) map->queueing = map->features->find(kQueueingFeature) != std::string::npos;
}

// "policy='service-time 0' prio=50 status=active" or "round-robin 0 [prio=6][active]".
DmViewGroup readGroup(std::string_view body, int32_t number) {
    DmViewGroup group;
    group.number = number;
    uint64_t priority = 0;
    std::optional<std::string> prio = valueOf(body, "prio=");
    if (prio && readDecimal(*prio, INT64_MAX, &priority)) group.priority = static_cast<int64_t>(priority);
    group.policy = valueOf(body, "policy=");
    group.status = valueOf(body, "status=");
    if (!group.policy) {
        std::string_view policy = trimmed(body.substr(0, body.find('[')));
        if (!policy.empty()) group.policy = std::string(policy);
        for (const char* status : {"[active]", "[enabled]", "[disabled]", "[undef]"}) {
            if (body.find(status) != std::string_view::npos) {
                group.status = std::string(std::string_view(status).substr(1, strlen(status) - 2));
            }
        }
        group.first = body.find("[first]") != std::string_view::npos;
    }
    return group;
}

bool readAddress(std::string_view word, DmViewPath* path) {
    uint64_t fields[4];
    for (size_t i = 0; i < 4; ++i) {
        size_t colon = word.find(':');
        if ((i < 3) == (colon == std::string_view::npos)) return false;
        uint64_t limit = i == 3 ? UINT64_MAX : UINT32_MAX;
        if (!readDecimal(word.substr(0, colon), limit, &fields[i])) return false;
        word = i < 3 ? word.substr(colon + 1) : std::string_view();
    }
    path->host = static_cast<uint32_t>(fields[0]);
    path->channel = static_cast<uint32_t>(fields[1]);
    path->target = static_cast<uint32_t>(fields[2]);
    path->lun = fields[3];
    return true;
}

bool isDmState(std::string_view word) {
    return word == "active" || word == "failed";
}

// The status words: "active ready running" in the tree layout; "[active][ready]" or,
// from the oldest tools, "[ready ][active]" with the checker first.
void readPathStates(std::string_view rest, DmViewPath* path) {
    std::vector<std::string_view> words;
    while (!(rest = rest.substr(std::min(rest.size(), rest.find_first_not_of(" \t[]")))).empty()) {
        size_t end = rest.find_first_of(" \t[]");
        words.push_back(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    }
    if (words.size() >= 2 && !isDmState(words[0]) && isDmState(words[1])) std::swap(words[0], words[1]);
    if (words.size() >= 1) path->dmState = std::string(words[0]);
    if (words.size() >= 2) path->checkerState = std::string(words[1]);
    if (words.size() >= 3) path->deviceState = std::string(words[2]);
}

// "0:0:0:0 sda 8:0  active ready running"; false when it is not a path with a device.
bool readPath(std::string_view body, DmViewPath* path) {
    if (!readAddress(firstWord(body), path)) return false;
    body = afterFirstWord(body);
    std::string_view device = firstWord(body);
    if (device.empty() || device == "-") return false;
    path->device = std::string(device);
    body = afterFirstWord(body);
    path->devt = std::string(firstWord(body));
    readPathStates(afterFirstWord(body), path);
    return true;
}

bool isHexRun(std::string_view word) {
    return word.size() >= kMinWwidDigits && word.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

// "alias (wwid) ...", "wwid dm-N ..." or a bare WWID; anything else at the left
// margin is not a map.
bool isMapHeader(std::string_view line) {
    if (std::string_view(kTreeChars).find(line[0]) != std::string_view::npos || line[0] == '[') return false;
    std::string_view second = firstWord(afterFirstWord(line));
    return startsWith(second, "(") || startsWith(second, "dm-") || isHexRun(firstWord(line));
}

struct ViewBuilder {
    std::vector<DmViewMap> maps;

    void addLine(std::string_view line) {
        if (isMapHeader(line)) {
            maps.push_back(readMapHeader(line));
        } else if (maps.empty()) {
            NA_TRACE_MAX("Line before any map skipped: %s\n", NA_STR(std::string(line)));
        } else if (startsWith(line, "size=") || startsWith(line, "[size=")) {
            readMapAttributes(line, &maps.back());
        } else {
            addGroupOrPath(line);
        }
    }

    void addGroupOrPath(std::string_view line) {
        size_t start = line.find_first_not_of(kTreeChars);
        if (start == std::string_view::npos) return;
        std::string_view body = line.substr(start);
        std::vector<DmViewGroup>& groups = maps.back().groups;
        DmViewPath path;
        if (readPath(body, &path)) {
            if (groups.empty()) groups.push_back(readGroup("", 1));
            groups.back().paths.push_back(std::move(path));
        } else if (line.find("+-") != std::string_view::npos || line.find("\\_") != std::string_view::npos) {
            groups.push_back(readGroup(body, static_cast<int32_t>(groups.size()) + 1));
        } else {
            NA_TRACE_MID("Unreadable line skipped: %s\n", NA_STR(std::string(line)));
        }
    }
};

void markPreferred(DmViewMap* map) {
    DmViewGroup* best = nullptr;
    for (DmViewGroup& group : map->groups) {
        if (group.first) {
            best = &group;
            break;
        }
        if (group.priority && (!best || !best->priority || *group.priority > *best->priority)) best = &group;
    }
    if (!best && !map->groups.empty()) best = &map->groups.front();
    if (best) best->preferred = true;
}

}  // namespace

std::vector<DmViewMap> dmParseMapView(std::string_view listing) {
    NA_TRACE_ENTER("dmParseMapView()");
    ViewBuilder builder;
    while (!listing.empty()) {
        size_t end = listing.find('\n');
        std::string_view line = listing.substr(0, end);
        listing.remove_prefix(end == std::string_view::npos ? listing.size() : end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (!trimmed(line).empty()) builder.addLine(line);
    }
    for (DmViewMap& map : builder.maps) markPreferred(&map);
    NA_TRACE_EXIT("Exit: %s, maps = %d\n", "dmParseMapView()", static_cast<int>(builder.maps.size()));
    return std::move(builder.maps);
}

bool dmSafeName(const std::string& name) {
    return !name.empty() && name[0] != '-' && name.find_first_not_of(kNameChars) == std::string::npos;
}

bool dmNormalizeWwpn(const std::string& text, std::string* wwpn) {
    // sysfs ends the value with a line feed.
    std::string_view rest = text;
    while (!rest.empty() && std::isspace(static_cast<unsigned char>(rest.back()))) rest.remove_suffix(1);
    rest = trimmed(rest);
    if (startsWith(rest, "0x") || startsWith(rest, "0X")) rest.remove_prefix(2);
    std::string digits;
    for (char c : rest) {
        if (c == ':') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
        digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (digits.size() != kWwpnDigits) return false;
    *wwpn = digits;
    return true;
}
