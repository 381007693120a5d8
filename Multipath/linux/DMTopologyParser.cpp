#include "Multipath/linux/DMTopologyParser.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "Common/AgentTrace.h"

namespace {

constexpr char kDecimalDigits[] = "0123456789";
constexpr char kMapNameChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr char kQueueingFeature[] = "queue_if_no_path";
constexpr char kDriverTextPrefix[] = "Device Mapper Multipath Version ";
constexpr size_t kMinWwidDigits = 10;
// A group line without a priority ("[first]") outweighs any real priority.
constexpr int32_t kFirstGroupPriority = 1000;

enum class LineKind { kDisk, kSkip, kPrioGroup, kFirstGroup, kPath, kOther };

// One group's weight as stored when the group closed; disk numbers a map name in the
// order its first weight was stored.
struct GroupWeight {
    uint32_t disk;
    int16_t group;
    int32_t weight;
};
constexpr uint32_t kNoDisk = UINT32_MAX;

// Numbers map names in the order they are first seen. An open-addressing table of
// views into the listing: one probe per map header and nothing allocated per map,
// where a node-based map cost a quarter of the whole parse.
class DiskNumbers {
public:
    uint32_t numberOf(std::string_view name) {
        if ((names_.size() + 1) * 2 > slots_.size()) grow();
        size_t slot = find(name);
        if (slots_[slot] == kNoDisk) {
            slots_[slot] = static_cast<uint32_t>(names_.size());
            names_.push_back(name);
        }
        return slots_[slot];
    }

private:
    size_t find(std::string_view name) const {
        const size_t mask = slots_.size() - 1;
        size_t slot = std::hash<std::string_view>()(name) & mask;
        while (slots_[slot] != kNoDisk && names_[slots_[slot]] != name) slot = (slot + 1) & mask;
        return slot;
    }

    void grow() {
        slots_.assign(std::max<size_t>(64, slots_.size() * 2), kNoDisk);
        for (uint32_t number = 0; number < names_.size(); ++number) slots_[find(names_[number])] = number;
    }

    std::vector<uint32_t> slots_;  // size a power of two, kNoDisk when free
    std::vector<std::string_view> names_;
};

struct ParserState {
    std::string disk;
    std::string_view diskName;  // disk as a view into the listing
    std::string policy;
    int16_t group = 0;
    int32_t pathsInGroup = 0;
    int32_t groupPriority = 0;
    // A map name listed twice keeps one set of group weights, as if merged.
    DiskNumbers diskNumbers;
    std::vector<GroupWeight> weights;
    // diskNumbers[disk], looked up on the first store after a disk header.
    uint32_t diskNumber = kNoDisk;
    // The records of this listing in the order they were made: marking them walks
    // memory in allocation order instead of hopping through the map.
    std::vector<PathRecord*> made;
    // Where the previous path went: listings name their devices mostly in order,
    // so the next one usually belongs right after it.
    Topology::iterator next;
};

// Character classes for the one pass that classifies a line.
enum CharMark : uint8_t {
    kHexMark = 1,
    kColonMark = 2,
    kHashMark = 4,
    kBranchEndMark = 8,  // '-' or '_', the second character of a tree branch
    kSMark = 16,         // first letters of "size", "prio" and "first"
    kPMark = 32,
    kFMark = 64,
};

constexpr std::array<uint8_t, 256> makeCharMarks() {
    std::array<uint8_t, 256> marks{};
    for (int c = 0; c < 256; ++c) {
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) marks[c] |= kHexMark;
    }
    marks[':'] |= kColonMark;
    marks['#'] |= kHashMark;
    marks['-'] |= kBranchEndMark;
    marks['_'] |= kBranchEndMark;
    marks['s'] |= kSMark;
    marks['p'] |= kPMark;
    marks['f'] |= kFMark;
    return marks;
}
constexpr std::array<uint8_t, 256> kCharMarks = makeCharMarks();

uint8_t markOf(char c) {
    return kCharMarks[static_cast<unsigned char>(c)];
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool isHexDigit(char c) {
    return (markOf(c) & kHexMark) != 0;
}

// True when the line holds a run of at least ten hex digits: a WWID marks a map
// header. Any such run covers one of every tenth character, so only those are
// probed, and the run is measured around a probe that hits.
bool hasWwid(std::string_view line) {
    for (size_t probe = kMinWwidDigits - 1; probe < line.size(); probe += kMinWwidDigits) {
        if (!isHexDigit(line[probe])) continue;
        size_t start = probe;
        while (start > 0 && isHexDigit(line[start - 1])) --start;
        size_t end = probe + 1;
        while (end < line.size() && end - start < kMinWwidDigits && isHexDigit(line[end])) ++end;
        if (end - start >= kMinWwidDigits) return true;
    }
    return false;
}

// Start of the first run of at least ten hex digits.
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

// Most lines are paths, so the characters a line holds are gathered in one pass and
// the substring searches run only when their first character is there at all.
LineKind classifyLine(std::string_view line) {
    if (hasWwid(line)) return LineKind::kDisk;
    uint8_t seen = 0;
    for (char c : line) seen |= markOf(c);
    if ((seen & kSMark) != 0 && contains(line, "size")) return LineKind::kSkip;
    if ((seen & kPMark) != 0 && contains(line, "prio")) return LineKind::kPrioGroup;
    if ((seen & kFMark) != 0 && contains(line, "first")) return LineKind::kFirstGroup;
    if ((seen & (kColonMark | kHashMark)) != kColonMark || (seen & kBranchEndMark) == 0) return LineKind::kOther;
    bool branch = contains(line, "|-") || contains(line, "\\_") || contains(line, "`-");
    return branch ? LineKind::kPath : LineKind::kOther;
}

std::string_view skipBlanks(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    return text.substr(i);
}

bool isOneOf(char c, std::string_view set) {
    for (char member : set) {
        if (c == member) return true;
    }
    return false;
}

// The library's find_first_of searches the set once per character; the sets here
// are a few characters long, so a plain loop is several times faster.
std::string_view upTo(std::string_view text, std::string_view stops) {
    size_t end = 0;
    while (end < text.size() && !isOneOf(text[end], stops)) ++end;
    return text.substr(0, end);
}

size_t skipOver(std::string_view text, std::string_view set) {
    size_t start = 0;
    while (start < text.size() && isOneOf(text[start], set)) ++start;
    return start;
}

// Plain digits short enough not to overflow are read here; anything else (blanks,
// signs, "0x", long runs) goes to the C library, whose reading the records keep.
bool readShortNumber(std::string_view field, unsigned base, unsigned long* value) {
    constexpr size_t kSafeDigits = 9;
    if (field.empty() || field.size() > kSafeDigits) return false;
    unsigned long result = 0;
    for (char c : field) {
        unsigned digit = c >= '0' && c <= '9' ? static_cast<unsigned>(c - '0')
                         : (c | 0x20) >= 'a' && (c | 0x20) <= 'f' ? static_cast<unsigned>((c | 0x20) - 'a' + 10)
                                                                  : base;
        if (digit >= base) return false;
        result = result * base + digit;
    }
    *value = result;
    return true;
}

// The SCSI address fields have always been read in base 16, so a host "10" is
// host 16; the agent's server expects these numbers, so the quirk stays.
unsigned long readHexField(std::string_view field) {
    unsigned long value = 0;
    if (readShortNumber(field, 16, &value)) return value;
    return std::strtoul(std::string(field).c_str(), nullptr, 16);
}

// A %d-style read: sign allowed, stops at the first non-digit, clamped to 32 bits.
int32_t readDecimalField(std::string_view field) {
    unsigned long digits = 0;
    if (readShortNumber(field, 10, &digits)) return static_cast<int32_t>(digits);
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
    if (st->diskNumber == kNoDisk) st->diskNumber = st->diskNumbers.numberOf(st->diskName);
    const int32_t weight = toWeight(static_cast<int64_t>(st->pathsInGroup) * st->groupPriority);
    st->weights.push_back({st->diskNumber, st->group, weight});
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
    st->diskName = name;
    st->diskNumber = kNoDisk;
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
    text.remove_prefix(skipOver(text, " \t[]"));
    std::string_view second = upTo(text, " ]");
    text.remove_prefix(second.size());
    if (!isPathStatus(first) && isPathStatus(second)) std::swap(first, second);
    rec->mode = std::string(first);
    rec->state = std::string(second);
    std::string_view deviceState = upTo(skipBlanks(text), " ");
    if (deviceState == "running" || deviceState == "offline") rec->mode = std::string(deviceState);
}

size_t firstHexDigit(std::string_view line) {
    for (size_t i = 0; i < line.size(); ++i) {
        if (isHexDigit(line[i])) return i;
    }
    return std::string_view::npos;
}

// Returns the record, or null for a path without a block device ("-"). Throws
// std::out_of_range when the line ends before the block device's fields.
std::unique_ptr<PathRecord> readPath(std::string_view line) {
    auto rec = std::make_unique<PathRecord>();
    std::string_view rest = line.substr(firstHexDigit(line));
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
    auto slot = topology->try_emplace(st->next, rec->device);
    if (!slot->second) {
        slot->second = std::move(rec);
        st->made.push_back(slot->second.get());
    } else {
        *slot->second = std::move(*rec);  // the later line for a device wins
    }
    st->next = std::next(slot);
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

bool weighsBefore(const GroupWeight& a, const GroupWeight& b) {
    return a.disk != b.disk ? a.disk < b.disk : a.group < b.group;
}

// Sorts the weights by disk, then group, keeping the later store of a group. A
// listing that names each map once has stored them in that order already.
void orderWeights(std::vector<GroupWeight>* weights) {
    auto outOfOrder = [](const GroupWeight& a, const GroupWeight& b) { return !weighsBefore(a, b); };
    if (std::adjacent_find(weights->begin(), weights->end(), outOfOrder) == weights->end()) return;
    std::stable_sort(weights->begin(), weights->end(), weighsBefore);
    size_t kept = 0;
    for (size_t i = 0; i < weights->size(); ++i) {
        if (i + 1 < weights->size() && !weighsBefore((*weights)[i], (*weights)[i + 1])) continue;
        (*weights)[kept++] = (*weights)[i];
    }
    weights->resize(kept);
}

// Each map's best group is the heaviest, the earlier one on a tie, group 1 when no
// group weighs more than 0. Paths are marked by group number alone, so a map's best
// number marks that group in every map: the agent's server has always been given
// the marks this way.
void markPreferred(ParserState* st, bool onlyMade, Topology* topology) {
    orderWeights(&st->weights);
    std::bitset<1 << 16> bestGroups;  // by group number as unsigned 16 bits
    const std::vector<GroupWeight>& weights = st->weights;
    for (size_t i = 0; i < weights.size();) {
        const uint32_t disk = weights[i].disk;
        int32_t bestWeight = 0;
        int16_t bestGroup = 1;
        for (; i < weights.size() && weights[i].disk == disk; ++i) {
            if (weights[i].weight > bestWeight) {
                bestWeight = weights[i].weight;
                bestGroup = weights[i].group;
            }
        }
        bestGroups.set(static_cast<uint16_t>(bestGroup));
    }
    auto mark = [&](PathRecord* rec) {
        if (bestGroups.test(static_cast<uint16_t>(rec->group))) rec->preferred = true;
    };
    if (onlyMade) {
        for (PathRecord* rec : st->made) mark(rec);
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
    st.next = topology->end();
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
    markPreferred(&st, onlyMade, topology);
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
