// The nested view of a "multipath -ll -v2" listing: maps, their path groups and the
// paths of each group, with every field as the listing prints it. Text in, view out;
// nothing here runs a command or reads a file.
#ifndef MULTIPATH_LINUX_DMMAPVIEW_H
#define MULTIPATH_LINUX_DMMAPVIEW_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Optional fields are empty when the listing's layout does not carry them.
struct DmViewPath {
    std::string device;  // block device name, such as "sda"
    std::string devt;    // "major:minor"
    uint32_t host = 0;   // the address read in decimal, as the kernel prints it
    uint32_t channel = 0;
    uint32_t target = 0;
    uint64_t lun = 0;
    std::optional<std::string> dmState;       // "active" or "failed"
    std::optional<std::string> checkerState;  // "ready", "faulty", "ghost", ...
    std::optional<std::string> deviceState;   // "running", "offline", ... (tree layout only)
    std::optional<std::string> adapterWwpn;   // filled by the caller from sysfs
};

struct DmViewGroup {
    int32_t number = 0;  // 1-based within the map, in listing order
    std::optional<std::string> policy;
    std::optional<int64_t> priority;
    std::optional<std::string> status;
    bool preferred = false;
    bool first = false;  // the bracketed layout marked it "[first]"
    std::vector<DmViewPath> paths;
};

struct DmViewMap {
    std::string name;
    std::optional<std::string> wwid;
    std::optional<std::string> dm;
    std::optional<std::string> vendor;
    std::optional<std::string> product;
    std::optional<std::string> size;
    std::optional<std::string> features;
    std::optional<bool> queueing;  // from features; empty when features is
    std::optional<std::string> hwhandler;
    std::vector<DmViewGroup> groups;
};

// Reads both layouts (tree, 0.4.9 on; bracketed, up to 0.4.8). Lines it cannot read
// are traced and skipped, paths before any group get a group of their own, and paths
// without a block device ("-") are left out. Any text is accepted. The preferred
// group of a map is its "[first]" group, else the one of highest priority (the
// earlier on a tie), else group 1.
std::vector<DmViewMap> dmParseMapView(std::string_view listing);

// True for a name made only of [A-Za-z0-9_.:-] that does not start with "-", the
// only kind this tool ever puts into a command.
bool dmSafeName(const std::string& name);

// Reads a Fibre Channel port name given as 16 hex digits, with or without "0x" and
// colons, any case, into 16 lower-case hex digits. False (and *wwpn untouched) when
// it is not one.
bool dmNormalizeWwpn(const std::string& text, std::string* wwpn);

#endif
