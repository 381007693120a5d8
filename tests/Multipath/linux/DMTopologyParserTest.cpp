// The two readers of "multipath -ll -v2": the flat path records and the nested map view.
#include <regex>
#include <sstream>

#include "Multipath/linux/DMMapView.h"
#include "Multipath/linux/DMTopologyParser.h"
#include "tests/fakes/FakeTools.h"

namespace {

using Lines = std::vector<std::string>;

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

TEST(DMTopologyParserTest, NoiseAroundTheListingIsIgnored) {
    const std::string listing = fixture("multipath-ll-v2.two-maps.stdout");
    std::string noisy = "Jan 01 00:00:00 | sda: checker msg is \"directio checker reports path is up\"\n"
                        "multipathd: 8:16: reinstated\n# comment |- 0:0:0:0 sdz 8:0 active ready running\n\n\n" +
                        std::regex_replace(listing, std::regex("size=16M"), "0.42 | mpatha: load table\n$&");
    EXPECT_EQ(parse(noisy), kTwoMapsRecords);
    EXPECT_EQ(parse(std::regex_replace(listing, std::regex("\n"), "\r\n")), kTwoMapsRecords);
    EXPECT_TRUE(parse("\n\r\n\n").empty());
}

TEST(DMTopologyParserTest, PathLineFields) {
    const char* cases[][2] = {  // line, record ("": none)
        // Numbers are read without the C library, but as it would read them: in hex, cut to 16 bits.
        {"  `- 1a:0:0:10 sda 8:0 active ready running", "sda 26:0:0:16 mode=running state=ready"},
        {"  `- 0:0:0:10000 sda 8:0 active ready running", "sda 0:0:0:0 mode=running state=ready"},
        {"  `- 0:0:0:0 sda 8:0 failed faulty offline", "sda 0:0:0:0 mode=offline state=faulty"},
        {"  `- 0:0:0:0 - 8:0 active faulty running", ""},
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

// The queueing and plain tables of the real tool are TopologyE2eTest's.
TEST(DMTopologyParserTest, TableQueuesOnFirstLineOnly) {
    EXPECT_TRUE(dmTableQueues("0 1 multipath 1 queue_if_no_path 0 1 1 round-robin 0 1 1 8:0 1000\n"));
    EXPECT_FALSE(dmTableQueues("\n0 1 multipath 1 queue_if_no_path 0 1 1 round-robin 0 1 1 8:0 1000\n"));
}

std::string text(const std::optional<std::string>& value) { return value ? *value : "null"; }

// The whole view as lines (map, then its groups, then their paths), so a table of
// expectations reads like the listing.
Lines describe(const std::vector<DmViewMap>& maps) {
    Lines lines;
    for (const DmViewMap& m : maps) {
        lines.push_back(m.name + " wwid=" + text(m.wwid) + " dm=" + text(m.dm) + " vendor=" + text(m.vendor) +
                        " product=" + text(m.product) + " size=" + text(m.size) + " features=" + text(m.features) +
                        " queueing=" + (m.queueing ? (*m.queueing ? "true" : "false") : "null") +
                        " hwhandler=" + text(m.hwhandler));
        for (const DmViewGroup& g : m.groups) {
            lines.push_back(" " + std::to_string(g.number) + " policy=" + text(g.policy) +
                            " prio=" + (g.priority ? std::to_string(*g.priority) : "null") +
                            " status=" + text(g.status) + (g.preferred ? " preferred" : ""));
            for (const DmViewPath& p : g.paths) {
                lines.push_back("  " + p.device + " " + p.devt + " " + std::to_string(p.host) + ":" +
                                std::to_string(p.channel) + ":" + std::to_string(p.target) + ":" +
                                std::to_string(p.lun) + " " + text(p.dmState) + " " + text(p.checkerState) + " " +
                                text(p.deviceState));
            }
        }
    }
    return lines;
}

Lines view(const std::string& listing) { return describe(dmParseMapView(listing)); }

const Lines kTwoMaps = {
    "mpatha wwid=333333330000007d0 dm=dm-0 vendor=Linux product=scsi_debug size=16M features=0 queueing=false "
    "hwhandler=1 alua",
    " 1 policy=service-time 0 prio=50 status=active preferred",
    "  sda 8:0 0:0:0:0 active ready running",
    " 2 policy=service-time 0 prio=10 status=enabled",
    "  sdc 8:32 1:0:0:0 active ready running",
    "mpathb wwid=333333330000007d1 dm=dm-1 vendor=Linux product=scsi_debug size=16M features=0 queueing=false "
    "hwhandler=1 alua",
    " 1 policy=service-time 0 prio=50 status=active preferred",
    "  sdb 8:16 0:0:0:1 active ready running",
    " 2 policy=service-time 0 prio=10 status=enabled",
    "  sdd 8:48 1:0:0:1 active ready running",
};

TEST(DMMapViewTest, ReadsRealTreeListing) {
    EXPECT_EQ(view(fixture("multipath-ll-v2.two-maps.stdout")), kTwoMaps);
    Lines queueing = view(fixture("multipath-ll-v2.queueing.stdout"));
    ASSERT_EQ(queueing.size(), kTwoMaps.size());
    EXPECT_EQ(queueing[0],
              "mpatha wwid=333333330000007d0 dm=dm-0 vendor=Linux product=scsi_debug size=16M "
              "features=1 queue_if_no_path queueing=true hwhandler=1 alua");
}

// One path offlined in sysfs, another failed through multipathd: the preferred group
// stays the one of highest priority even though the kernel now uses the other.
TEST(DMMapViewTest, ReadsRealListingWithFailedPaths) {
    Lines lines = view(fixture("multipath-ll-v2.failed-paths.stdout"));
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[1], " 1 policy=service-time 0 prio=0 status=enabled");
    EXPECT_EQ(lines[2], "  sda 8:0 0:0:0:0 failed faulty offline");
    EXPECT_EQ(lines[3], " 2 policy=service-time 0 prio=10 status=active preferred");
    EXPECT_EQ(lines[8], " 2 policy=service-time 0 prio=10 status=active");
    EXPECT_EQ(lines[7], "  sdb 8:16 0:0:0:1 failed ready running");
}

// The oldest layout has no dm name or model, no priorities, and the checker state first.
TEST(DMMapViewTest, ReadsTheOldestBracketedListing) {
    EXPECT_EQ(view(fixture("multipath-ll-v2.bracketed-0.4.5.stdout")),
              (Lines{"mpath1 wwid=3600508b4000156d700012000000b0000 dm=null vendor=null product=null size=5 GB "
                     "features=1 queue_if_no_path queueing=true hwhandler=0",
                     " 1 policy=round-robin 0 prio=null status=active preferred",
                     "  sda 8:0 0:0:0:1 active ready null",
                     "  sdb 8:16 1:0:0:1 active ready null",
                     " 2 policy=round-robin 0 prio=null status=enabled",
                     "  sdc 8:32 0:0:1:1 failed faulty null"}));
}

// The kernel prints the address in decimal; host 10 is host 10 here, and a host
// number beyond 32 bits is no path.
TEST(DMMapViewTest, ReadsAddressesInDecimal) {
    const std::string map = "m (0123456789ab) dm-0 V,P\n`-+- policy='x' prio=1 status=active\n";
    EXPECT_EQ(view(map + "`- 10:0:3:255 sdq 65:0 active ready running").back(),
              "  sdq 65:0 10:0:3:255 active ready running");
    EXPECT_EQ(view(map + "`- 4294967296:0:0:0 sds 1:1 active ready running").size(), 2u);
}

TEST(DMMapViewTest, NormalizesWwpns) {
    const std::pair<const char*, const char*> cases[] = {  // text, WWPN ("": refused)
        {"21000024ff123456", "21000024ff123456"}, {" 0x21:00:00:24:FF:12:34:56 ", "21000024ff123456"},
        {"", ""}, {"0x", ""}, {"21000024ff12345", ""}, {"21000024ff1234567", ""}, {"21000024ff12345g", ""},
        {"0x0x21000024ff123456", ""}, {"21 00 00 24 ff 12 34 56", ""}, {"-21000024ff12345", ""},
    };
    for (const auto& c : cases) {
        std::string wwpn = "untouched";
        EXPECT_EQ(dmNormalizeWwpn(c.first, &wwpn), *c.second != '\0') << c.first;
        EXPECT_EQ(wwpn, *c.second ? c.second : "untouched") << c.first;
    }
}

TEST(DMMapViewTest, SafeNamesAreWordsOnly) {
    for (const char* name : {"sda", "mpatha", "dm-0", "360a98000_x.y:z", "nvme0n1"}) EXPECT_TRUE(dmSafeName(name)) << name;
    for (const char* name : {"", "-f", "sd a", "sda;reboot", "$(id)", "a/b", "sd\na", "sda'", "\xc3\xa9"}) {
        EXPECT_FALSE(dmSafeName(name)) << name;
    }
}

}  // namespace
