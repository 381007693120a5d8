#include "Multipath/linux/DMTopologyParser.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "Common/AgentTrace.h"

namespace {

constexpr char kDecimalDigits[] = "0123456789";
constexpr char kHexDigits[] = "0123456789abcdefABCDEF";
constexpr char kMapNameChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr char kQueueingFeature[] = "queue_if_no_path";
constexpr char kDriverTextPrefix[] = "Device Mapper Multipath Version ";
constexpr size_t kMinWwidDigits = 10;
// A group line without a priority ("[first]") outweighs any real priority.
constexpr int32_t kFirstGroupPriority = 1000;

enum class LineKind { kDisk, kSkip, kPrioGroup, kFirstGroup, kPath, kOther };

struct ParserState {
    std::string disk;
    std::string policy;
    int16_t group = 0;
    int32_t pathsInGroup = 0;
    int32_t groupPriority = 0;
    std::map<std::string, std::map<int16_t, int32_t>> weights;
    // weights[disk], looked up on the first store after a disk header; map nodes stay put.
    std::map<int16_t, int32_t>* diskWeights = nullptr;
    // The records of this listing in the order they were made: marking them walks
    // memory in allocation order instead of hopping through the map.
    std::vector<PathRecord*> made;
};

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Start of the first run of at least ten hex digits: a WWID marks a map header.
size_t findWwid(std::string_view line) {
    size_t runStart = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (!isHexDigit(line[i])) {
            runStart = i + 1;
        } else if (i + 1 - runStart >= kMinWwidDigits) {
            return runStart;
        }
    }
    return std::string_view::npos;
}

LineKind classifyLine(std::string_view line) {
    if (findWwid(line) != std::string_view::npos) return LineKind::kDisk;
    if (contains(line, "size")) return LineKind::kSkip;
    if (contains(line, "prio")) return LineKind::kPrioGroup;
    if (contains(line, "first")) return LineKind::kFirstGroup;
    bool branch = contains(line, "|-") || contains(line, "\\_") || contains(line, "`-");
    if (branch && contains(line, ":") && !contains(line, "#")) return LineKind::kPath;
    return LineKind::kOther;
}

std::string_view skipBlanks(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    return text.substr(i);
}

std::string_view upTo(std::string_view text, std::string_view stops) {
    return text.substr(0, text.find_first_of(stops));
}

// The SCSI address fields have always been read in base 16, so a host "10" is
// host 16; the agent's server expects these numbers, so the quirk stays.
unsigned long readHexField(std::string_view field) {
    return std::strtoul(std::string(field).c_str(), nullptr, 16);
}

// A %d-style read: sign allowed, stops at the first non-digit, clamped to 32 bits.
int32_t readDecimalField(std::string_view field) {
    long value = std::strtol(std::string(field).c_str(), nullptr, 10);
    if (value > INT32_MAX) value = INT32_MAX;
    if (value < INT32_MIN) value = INT32_MIN;
    return static_cast<int32_t>(value);
}

// Group weights have always been kept in 16 bits; wrapping them the same way keeps
// the preferred group the one the agent's server has always been told.
int32_t toWeight(int64_t value) {
    return static_cast<int16_t>(value);
}

void storeWeight(ParserState* st) {
    if (!st->diskWeights) st->diskWeights = &st->weights[st->disk];
    (*st->diskWeights)[st->group] = toWeight(static_cast<int64_t>(st->pathsInGroup) * st->groupPriority);
}

void closeGroup(ParserState* st) {
    if (st->group > 0) storeWeight(st);
}

void startGroup(ParserState* st) {
    st->group = static_cast<int16_t>(st->group + 1);
    st->pathsInGroup = 0;
}

void handleDisk(std::string_view line, ParserState* st) {
    closeGroup(st);
    size_t paren = line.find('(');
    std::string_view name;
    if (paren != std::string_view::npos) {
        name = upTo(line.substr(0, paren), " ");
    } else {
        name = upTo(line.substr(findWwid(line)), " \t");
    }
    st->disk = std::string(name);
    st->diskWeights = nullptr;
    NA_TRACE_MID("Found Disk %s\n", NA_STR(st->disk));
    st->group = 0;
    st->pathsInGroup = 0;
}

// The selector follows policy=' in the tree layout and "\_ " in the bracketed one.
void readPolicy(std::string_view line, ParserState* st) {
    size_t policy = line.find("policy");
    size_t underscore = line.find('_');
    if (policy != std::string_view::npos) {
        st->policy = std::string(upTo(line.substr(policy + 8), " "));
    } else if (underscore != std::string_view::npos) {
        st->policy = std::string(upTo(line.substr(underscore + 2), " "));
    }
}

void handlePrioGroup(std::string_view line, ParserState* st) {
    closeGroup(st);
    std::string_view prio = line.substr(line.find("prio") + 5);
    st->groupPriority = readDecimalField(upTo(prio, " ]"));
    readPolicy(line, st);
    NA_TRACE_MID("Found Policy group %s\n", NA_STR(st->policy));
    startGroup(st);
}

void handleFirstGroup(std::string_view line, ParserState* st) {
    closeGroup(st);
    st->groupPriority = kFirstGroupPriority;
    size_t underscore = line.find('_');
    if (underscore != std::string_view::npos) st->policy = std::string(upTo(line.substr(underscore + 2), " "));
    NA_TRACE_MID("Found Policy %s\n", NA_STR(st->policy));
    startGroup(st);
}

bool isPathStatus(std::string_view word) {
    return word == "active" || word == "failed";
}

// Reads the two status words, bracketed ("[active][ready]") or not; older tools
// print the checker state first, so the device-mapper state is moved to the front.
void readStatus(std::string_view rest, PathRecord* rec) {
    std::string_view text = skipBlanks(rest);
    if (!text.empty() && text[0] == '[') text.remove_prefix(1);
    std::string_view first = upTo(text, " ]");
    text.remove_prefix(first.size());
    size_t start = text.find_first_not_of(" \t[]");
    text.remove_prefix(start == std::string_view::npos ? text.size() : start);
    std::string_view second = upTo(text, " ]");
    text.remove_prefix(second.size());
    if (!isPathStatus(first) && isPathStatus(second)) std::swap(first, second);
    rec->mode = std::string(first);
    rec->state = std::string(second);
    std::string_view deviceState = upTo(skipBlanks(text), " ");
    if (deviceState == "running" || deviceState == "offline") rec->mode = std::string(deviceState);
}

// Returns the record, or null for a path without a block device ("-"). Throws
// std::out_of_range when the line ends before the block device's fields.
std::unique_ptr<PathRecord> readPath(std::string_view line) {
    auto rec = std::make_unique<PathRecord>();
    std::string_view rest = line.substr(line.find_first_of(kHexDigits));
    unsigned long address[3];
    for (unsigned long& field : address) {
        size_t colon = rest.find(':');
        field = readHexField(rest.substr(0, colon));
        rest = rest.substr(colon + 1);
    }
    size_t blank = rest.find(' ');
    unsigned long lun = readHexField(rest.substr(0, blank));
    rest = skipBlanks(rest.substr(blank));
    std::string_view device = upTo(rest, " ");
    if (device == "-") return nullptr;
    rest = skipBlanks(rest.substr(rest.find(' ')));
    rest = rest.substr(rest.find(' '));  // drops major:minor
    readStatus(rest, rec.get());
    rec->host = static_cast<uint16_t>(address[0]);
    rec->channel = static_cast<uint16_t>(address[1]);
    rec->target = static_cast<uint32_t>(address[2]);
    rec->lun = static_cast<uint16_t>(lun);
    rec->device = std::string(device);
    return rec;
}

void handlePath(std::string_view line, const std::string& driverText, ParserState* st, Topology* topology) {
    std::unique_ptr<PathRecord> rec = readPath(line);
    if (!rec) return;
    NA_TRACE_MID("Found Path %s: host=%d, channel=%d, target=%d, lun=%d\n", NA_STR(rec->device),
                 static_cast<int>(rec->host), static_cast<int>(rec->channel), static_cast<int>(rec->target),
                 static_cast<int>(rec->lun));
    NA_TRACE_MID("\tstate=%s, mode=%s\n", NA_STR(rec->state), NA_STR(rec->mode));
    rec->policy = st->policy;
    rec->disk = st->disk;
    rec->group = st->group;
    if (!driverText.empty()) rec->driverVersion = driverText;
    auto slot = topology->try_emplace(rec->device);
    if (!slot.first->second) {
        slot.first->second = std::move(rec);
        st->made.push_back(slot.first->second.get());
    } else {
        *slot.first->second = std::move(*rec);  // the later line for a device wins
    }
    ++st->pathsInGroup;
}

void handleLine(std::string_view line, const std::string& driverText, ParserState* st, Topology* topology) {
    switch (classifyLine(line)) {
        case LineKind::kDisk: handleDisk(line, st); break;
        case LineKind::kPrioGroup: handlePrioGroup(line, st); break;
        case LineKind::kFirstGroup: handleFirstGroup(line, st); break;
        case LineKind::kPath: handlePath(line, driverText, st, topology); break;
        case LineKind::kSkip:
        case LineKind::kOther: break;
    }
}

// Each map's best group is the heaviest, the earlier one on a tie, group 1 when no
// group weighs more than 0. Paths are marked by group number alone, so a map's best
// number marks that group in every map: the agent's server has always been given
// the marks this way.
void markPreferred(const ParserState& st, bool onlyMade, Topology* topology) {
    std::set<int16_t> bestGroups;
    for (const auto& disk : st.weights) {
        int32_t bestWeight = 0;
        int16_t bestGroup = 1;
        for (const auto& group : disk.second) {
            if (group.second > bestWeight) {
                bestWeight = toWeight(group.second);
                bestGroup = group.first;
            }
        }
        bestGroups.insert(bestGroup);
    }
    auto mark = [&](PathRecord* rec) {
        if (bestGroups.count(rec->group) > 0) rec->preferred = true;
    };
    if (onlyMade) {
        for (PathRecord* rec : st.made) mark(rec);
    } else {
        for (auto& entry : *topology) mark(entry.second.get());
    }
}

template <typename Fn>
void forEachLine(std::string_view text, Fn fn) {
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        // Listings copied from other systems keep their carriage returns.
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (!line.empty()) fn(line);
    }
}

}  // namespace

DmListingStatus dmClassifyListing(int32_t exitCode, const std::string& sysOut) {
    DmListingStatus status = DmListingStatus::kParsed;
    if (exitCode == -1) {
        status = DmListingStatus::kNotRun;
    } else if (sysOut.empty()) {
        status = DmListingStatus::kEmpty;
    } else if (contains(sysOut, "driver not loaded")) {
        status = DmListingStatus::kNotLoaded;
    } else if (contains(sysOut, "multipath.conf")) {
        status = DmListingStatus::kNoConfigFile;
    } else if (exitCode != 0) {
        status = DmListingStatus::kFailed;
    }
    return status;
}

std::string dmDriverText(const std::string& version) {
    size_t digit = version.find_first_of(kDecimalDigits);
    return kDriverTextPrefix + (digit == std::string::npos ? std::string() : version.substr(digit));
}

void dmParseTopology(std::string_view listing, const std::string& driverText, Topology* topology) {
    NA_TRACE_ENTER("dmParseTopology()");
    ParserState st;
    // Records the caller already held are marked too, so they need the map walk.
    bool onlyMade = topology->empty();
    forEachLine(listing, [&](std::string_view line) {
        try {
            handleLine(line, driverText, &st, topology);
        } catch (const std::out_of_range& e) {
            NA_TRACE_MIN("Out of Range error while parsing the line %s: %s\n", NA_STR(std::string(line)), e.what());
        }
    });
    // The last group is closed even in a listing without group lines (group 0).
    storeWeight(&st);
    markPreferred(st, onlyMade, topology);
    NA_TRACE_EXIT("Exit: %s, paths = %d\n", "dmParseTopology()", static_cast<int>(topology->size()));
}

std::vector<std::string> dmMapNames(std::string_view lsOutput) {
    std::vector<std::string> names;
    forEachLine(lsOutput, [&](std::string_view line) {
        if (!contains(line, "mpath")) return;
        std::string_view name = line.substr(0, line.find_first_not_of(kMapNameChars));
        // An empty name would make "dmsetup table" list every map at once.
        if (!name.empty()) names.emplace_back(name);
    });
    return names;
}

bool dmTableQueues(std::string_view tableOutput) {
    std::string_view first = tableOutput.substr(0, tableOutput.find('\n'));
    return !first.empty() && contains(first, kQueueingFeature);
}
