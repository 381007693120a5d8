#include "Multipath/linux/DMTopologyParser.h"

#include <algorithm>
#include <random>
#include <regex>
#include <sstream>
#include <tuple>

#include "tests/fakes/FakeTools.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::HasSubstr;

std::string fixture(const std::string& name) { return testfiles::testData("Multipath/linux/data/" + name); }

// One record as one line, so a table row and a failure message read alike.
std::string describe(const PathRecord& r) {
    return r.device + " " + std::to_string(r.host) + ":" + std::to_string(r.channel) + ":" + std::to_string(r.target) +
           ":" + std::to_string(r.lun) + " mode=" + r.mode + " state=" + r.state + " policy=" + r.policy +
           " disk=" + r.disk + " group=" + std::to_string(r.group) + (r.preferred ? " preferred" : "");
}

Topology topologyOf(std::string_view listing) {
    Topology topology;
    dmParseTopology(listing, "Device Mapper Multipath Version 0.9.4-3", &topology);
    return topology;
}

Lines parse(const std::string& listing) {
    Lines lines;
    for (const auto& entry : topologyOf(listing)) {
        EXPECT_EQ(entry.first, entry.second->device);
        lines.push_back(describe(*entry.second));
    }
    return lines;
}

const Lines kTwoMapsRecords = {
    "sda 0:0:0:0 mode=running state=ready policy=service-time disk=mpatha group=1 preferred",
    "sdb 0:0:0:1 mode=running state=ready policy=service-time disk=mpathb group=1 preferred",
    "sdc 1:0:0:0 mode=running state=ready policy=service-time disk=mpatha group=2",
    "sdd 1:0:0:1 mode=running state=ready policy=service-time disk=mpathb group=2",
};

TEST(DMTopologyParserTest, RealTreeListingGivesEveryPath) {
    EXPECT_EQ(parse(fixture("multipath-ll-v2.two-maps.stdout")), kTwoMapsRecords);
    EXPECT_EQ(parse(fixture("multipath-ll-v2.queueing.stdout")), kTwoMapsRecords);
}

TEST(DMTopologyParserTest, BracketedListingGivesEveryPath) {
    // The second map has no alias and is named by its WWID; its best group is 2,
    // which also marks group 2 of mpath0 (marks go by group number alone).
    EXPECT_EQ(parse(fixture("multipath-ll-v2.bracketed-0.4.8.stdout")),
              (Lines{"sdb 2:0:0:1 mode=active state=ready policy=round-robin disk=mpath0 group=1 preferred",
                     "sdc 2:0:1:1 mode=active state=ghost policy=round-robin disk=mpath0 group=2 preferred",
                     "sdd 3:0:0:1 mode=active state=ready policy=round-robin disk=mpath0 group=1 preferred",
                     "sde 2:0:0:2 mode=failed state=faulty policy=round-robin "
                     "disk=3600a0b800011a1ee0000c4b54a7c1f5b group=1 preferred",
                     "sdf 3:0:0:2 mode=active state=ready policy=round-robin "
                     "disk=3600a0b800011a1ee0000c4b54a7c1f5b group=2 preferred"}));
    // The oldest layout prints the checker state first and marks the first group
    // "[first]"; a later group line with neither prio nor first is not a group.
    EXPECT_EQ(parse(fixture("multipath-ll-v2.bracketed-0.4.5.stdout")),
              (Lines{"sda 0:0:0:1 mode=active state=ready policy=round-robin disk=mpath1 group=1 preferred",
                     "sdb 1:0:0:1 mode=active state=ready policy=round-robin disk=mpath1 group=1 preferred",
                     "sdc 0:0:1:1 mode=failed state=faulty policy=round-robin disk=mpath1 group=1 preferred"}));
}

TEST(DMTopologyParserTest, PathLineFields) {
    const char* cases[][2] = {  // line, record ("": none)
        // Numbers are read without the C library, but as it would read them: in hex, cut to 16 bits.
        {"  `- 1a:0:0:10 sda 8:0 active ready running", "sda 26:0:0:16 mode=running state=ready"},
        {"  `- 0:0:0:10000 sda 8:0 active ready running", "sda 0:0:0:0 mode=running state=ready"},
        {"  `- 0x1f:0:0X10:0 sda 8:0 active ready running", "sda 31:0:16:0 mode=running state=ready"},
        {"  `- 0:0:0:0 sda 8:0 failed faulty offline", "sda 0:0:0:0 mode=offline state=faulty"},
        {"  `- 0:0:0:0 sda 8:0 ready active", "sda 0:0:0:0 mode=active state=ready"},
        {" \\_ 2:0:0:1 sdb 8:16  [ready ][active]", "sdb 2:0:0:1 mode=active state=ready"},
        {"  `- 0:0:0:0 - 8:0 active faulty running", ""},
        {"  `- #:#:#:# sda 8:0 active ready running", ""},
    };
    for (const auto& c : cases) {
        Lines records = parse(std::string("m (0123456789abcdef)\n`-+- policy='rr 0' prio=1 status=active\n") + c[0]);
        std::string expected = c[1][0] ? std::string(c[1]) + " policy=rr disk=m group=1 preferred" : "";
        EXPECT_EQ(records.empty() ? "" : records[0], expected) << c[0];
        EXPECT_LE(records.size(), 1u) << c[0];
    }
}

// Groups as "prio:paths" in the bracketed layout, one "p" per path sda, sdb, ...
std::string bracketed(const std::string& groups) {
    std::string listing = "m (0123456789abcdef)\n";
    char device = 'a';
    std::istringstream in(groups);
    for (std::string group; in >> group;) {
        std::string prio = group.substr(0, group.find(':'));
        listing += prio == "first" ? "\\_ rr 0 [active][first]\n" : "\\_ rr 0 [prio=" + prio + "][active]\n";
        for (size_t p = group.find(':') + 1; p < group.size(); ++p) {
            listing += std::string(" \\_ 1:0:0:1 sd") + device++ + " 8:0 [active][ready]\n";
        }
    }
    return listing;
}

// A tree-layout map: group 1 has path a at prio 10, group 2 path b at secondPrio.
std::string mapWithGroups(const std::string& name, const std::string& secondPrio, const std::string& a,
                          const std::string& b) {
    return name + " (360000000000000000000" + name.substr(name.size() - 1) + ") dm-0 V,P\n" +
           "size=1G features='0' hwhandler='0' wp=rw\n"
           "|-+- policy='service-time 0' prio=10 status=active\n"
           "| `- 0:0:0:1 " + a + " 8:0 active ready running\n"
           "`-+- policy='service-time 0' prio=" + secondPrio + " status=enabled\n"
           "  `- 1:0:0:1 " + b + " 8:16 active ready running\n";
}

// Marks go by group number alone, so each map's best group is marked in every map.
TEST(DMTopologyParserTest, BestGroupIsPathsTimesPriority) {
    const std::string prio50 = mapWithGroups("mpatha", "50", "sda", "sdb");
    const struct { const char* label; std::string listing; const char* preferred; } cases[] = {
        {"tie keeps the earlier group", bracketed("2:p 1:pp"), "sda"},
        {"more paths outweigh a higher priority", bracketed("2:p 1:ppp"), "sdb sdc sdd"},
        {"first group weighs 1000", bracketed("999:p first:p"), "sdb"},
        // The same name twice keeps one set of weights: the later group 2 (prio 1)
        // replaces the earlier (prio 50), so group 1 is mpatha's best and only mark.
        {"repeated name", prio50 + mapWithGroups("mpatha", "1", "sdc", "sdd"), "sda sdc"},
        {"other name", prio50 + mapWithGroups("mpathb", "1", "sdc", "sdd"), "sda sdb sdc sdd"},
    };
    for (const auto& c : cases) {
        std::string marked;
        for (const auto& entry : topologyOf(c.listing)) {
            if (entry.second->preferred) marked += (marked.empty() ? "" : " ") + entry.first;
        }
        EXPECT_EQ(marked, c.preferred) << c.label;
    }
}

TEST(DMTopologyParserTest, MapWithoutGroupsGivesGroupZero) {
    EXPECT_EQ(parse("mpatha (333333330000007d0) dm-0\n  `- 0:0:0:0 sda 8:0 active ready running\n"),
              Lines{"sda 0:0:0:0 mode=running state=ready policy= disk=mpatha group=0"});
}

TEST(DMTopologyParserTest, NoiseAroundTheListingIsIgnored) {
    const std::string listing = fixture("multipath-ll-v2.two-maps.stdout");
    std::string noisy = "Jan 01 00:00:00 | sda: checker msg is \"directio checker reports path is up\"\n"
                        "multipathd: 8:16: reinstated\n# comment |- 0:0:0:0 sdz 8:0 active ready running\n\n\n" +
                        std::regex_replace(listing, std::regex("size=16M"), "0.42 | mpatha: load table\n$&");
    EXPECT_EQ(parse(noisy), kTwoMapsRecords);
    EXPECT_EQ(parse(std::regex_replace(listing, std::regex("\n"), "\r\n")), kTwoMapsRecords);
    EXPECT_TRUE(parse("\n\r\n\n").empty());
}

// Every prefix of the real listing parses, and the paths it yields keep their
// address, map and group.
TEST(DMTopologyParserTest, TruncatedAtEveryByte) {
    std::string listing = fixture("multipath-ll-v2.two-maps.stdout");
    Topology whole = topologyOf(listing);
    auto key = [](const PathRecord& r) { return std::make_tuple(r.host, r.channel, r.lun, r.disk, r.group); };
    for (size_t cut = 0; cut <= listing.size(); ++cut) {
        for (const auto& entry : topologyOf(std::string_view(listing).substr(0, cut))) {
            EXPECT_EQ(key(*entry.second), key(*whole.at(entry.first))) << cut;
        }
    }
}

// The queueing and plain tables of the real tool are TopologyE2eTest's.
TEST(DMTopologyParserTest, TableQueuesOnFirstLineOnly) {
    EXPECT_TRUE(dmTableQueues("0 1 multipath 1 queue_if_no_path 0 1 1 round-robin 0 1 1 8:0 1000\n"));
    EXPECT_FALSE(dmTableQueues("\n0 1 multipath 1 queue_if_no_path 0 1 1 round-robin 0 1 1 8:0 1000\n"));
}

// Map names are numbered in a table and records placed in their map by hint: neither
// may depend on the order the maps are listed in.
TEST(DMTopologyParserTest, RecordsDoNotDependOnListingOrder) {
    std::vector<std::string> maps;
    for (int i = 0; i < 300; ++i) {
        const std::string n = std::to_string(i);
        maps.push_back(mapWithGroups("mpath" + n, std::to_string(i % 7 * 10), "sd" + n + "x", "sd" + n));
    }
    std::string inOrder;
    for (const std::string& map : maps) inOrder += map;
    const Lines expected = parse(inOrder);
    ASSERT_EQ(expected.size(), 600u);
    std::shuffle(maps.begin(), maps.end(), std::mt19937(7));
    std::string shuffled;
    for (const std::string& map : maps) shuffled += map;
    EXPECT_EQ(parse(shuffled), expected);
}

}  // namespace
