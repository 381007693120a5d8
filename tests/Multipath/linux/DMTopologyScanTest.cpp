// The parser's fast paths against the slow reading they stand in for: map headers
// found by probing for WWIDs, numbers read without the C library, map names
// numbered in a table, and records placed in the map by hint.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "Multipath/linux/DMTopologyParser.h"

namespace {

const char kPathLine[] = "  `- 0:0:0:1 sda 8:0 active ready running\n";

Topology parse(const std::string& listing) {
    Topology topology;
    dmParseTopology(listing, "Device Mapper Multipath Version 0.9.4-3", &topology);
    return topology;
}

std::string hexRun(size_t length) {
    std::string run;
    for (size_t i = 0; i < length; ++i) run += "0123456789abcdefABCDEF"[i % 22];
    return run;
}

TEST(DMTopologyScanTest, WwidRunFoundAtEveryOffsetAndLength) {
    // Runs that straddle, start on or end on a probed character, after text that
    // is itself partly hex ('x' is not, 'e' is).
    for (char filler : {'x', 'e'}) {
        for (size_t offset = 0; offset < 24; ++offset) {
            for (size_t length : {1, 8, 9, 10, 11, 19, 20, 21}) {
                const std::string lead(offset, filler);
                const std::string header = lead + hexRun(length) + " tail";
                const Topology topology = parse(header + "\n" + kPathLine);
                ASSERT_EQ(topology.size(), 1u);
                const bool isHeader = length + (filler == 'e' ? offset : 0) >= 10;
                const std::string disk = isHeader ? header.substr(0, header.find(' ')) : "";
                // Without a map name in front the name is the run from its start.
                const size_t start = filler == 'e' ? 0 : offset;
                EXPECT_EQ(topology.at("sda")->disk, isHeader ? disk.substr(start) : "")
                    << "filler " << filler << " offset " << offset << " length " << length;
            }
        }
    }
}

TEST(DMTopologyScanTest, AddressFieldsReadAsTheCLibraryDoes) {
    struct Case {
        const char* address;
        uint16_t host;
        uint32_t target;
        uint16_t lun;
    } cases[] = {
        {"10:0:ff:1f", 0x10, 0xff, 0x1f},
        {"0x1f:0:0X10:0", 0x1f, 0x10, 0},            // prefixed: the C library's reading
        {"fffffffff:0:0:0", 0xffff, 0, 0},  // nine digits (ten would make a WWID), cut to 16 bits
        {"0:0:-1:0", 0, 0xffffffff, 0},     // a minus sign wraps
        {"0:0: 7:0", 0, 7, 0},              // leading blank
        {"a:0:0:0g", 0xa, 0, 0},            // stops at a non-digit
    };
    for (const Case& c : cases) {
        const Topology topology = parse(std::string("  `- ") + c.address + " sdq 8:0 active ready running\n");
        ASSERT_EQ(topology.count("sdq"), 1u) << c.address;
        const PathRecord& rec = *topology.at("sdq");
        EXPECT_EQ(rec.host, c.host) << c.address;
        EXPECT_EQ(rec.target, c.target) << c.address;
        EXPECT_EQ(rec.lun, c.lun) << c.address;
    }
}

// Group 1 has one path at prio 10, group 2 one path at the given priority. Marks go
// by group number alone, so each map's best group is marked in every map.
std::string mapWithGroups(const std::string& name, const std::string& secondPrio, const std::string& a,
                          const std::string& b) {
    return name + " (360000000000000000000" + name.substr(name.size() - 1) + ") dm-0 V,P\n" +
           "size=1G features='0' hwhandler='0' wp=rw\n"
           "|-+- policy='service-time 0' prio=10 status=active\n"
           "| `- 0:0:0:1 " + a + " 8:0 active ready running\n"
           "`-+- policy='service-time 0' prio=" + secondPrio + " status=enabled\n"
           "  `- 1:0:0:1 " + b + " 8:16 active ready running\n";
}

TEST(DMTopologyScanTest, PriorityNumbersAndRepeatedMapNames) {
    struct Case {
        const char* label;
        std::string listing;
        std::vector<int16_t> marked;  // preferred group numbers
    } cases[] = {
        {"heavier", mapWithGroups("mpatha", "50", "sda", "sdb"), {2}},
        {"signed", mapWithGroups("mpatha", "+50", "sda", "sdb"), {2}},
        {"negative", mapWithGroups("mpatha", "-50", "sda", "sdb"), {1}},
        {"nine digits, cut to 16 bits", mapWithGroups("mpatha", "999999999", "sda", "sdb"), {1}},
        {"cut to 16 bits", mapWithGroups("mpatha", "70000", "sda", "sdb"), {2}},
        // The same name twice keeps one set of weights: the later group 2 (prio 1)
        // replaces the earlier (prio 50), so group 1 is mpatha's best and only mark.
        {"repeated name", mapWithGroups("mpatha", "50", "sda", "sdb") + mapWithGroups("mpatha", "1", "sdc", "sdd"),
         {1}},
        {"other name", mapWithGroups("mpatha", "50", "sda", "sdb") + mapWithGroups("mpathb", "1", "sdc", "sdd"),
         {1, 2}},
    };
    for (const Case& c : cases) {
        const Topology topology = parse(c.listing);
        for (const auto& entry : topology) {
            const bool marked = std::count(c.marked.begin(), c.marked.end(), entry.second->group) > 0;
            EXPECT_EQ(entry.second->preferred, marked) << c.label << ": " << entry.first;
        }
    }
}

TEST(DMTopologyScanTest, RecordsDoNotDependOnListingOrder) {
    std::vector<std::string> maps;
    for (int i = 0; i < 300; ++i) {
        const std::string n = std::to_string(i);
        maps.push_back(mapWithGroups("mpath" + n, std::to_string(i % 7 * 10), "sd" + n + "x", "sd" + n));
    }
    auto describe = [](const Topology& topology) {
        std::string all;
        for (const auto& entry : topology) {
            const PathRecord& r = *entry.second;
            all += entry.first + "=" + r.device + "/" + r.disk + "/" + std::to_string(r.group) + (r.preferred ? "*\n" : "\n");
        }
        return all;
    };
    std::string inOrder;
    for (const std::string& map : maps) inOrder += map;
    const std::string expected = describe(parse(inOrder));
    ASSERT_EQ(std::count(expected.begin(), expected.end(), '\n'), 600);
    std::mt19937 random(7);
    for (int round = 0; round < 3; ++round) {
        std::shuffle(maps.begin(), maps.end(), random);
        std::string shuffled;
        for (const std::string& map : maps) shuffled += map;
        EXPECT_EQ(describe(parse(shuffled)), expected) << "round " << round;
    }
}

}  // namespace
