#include "Multipath/linux/DMTopologyParser.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/Multipath/linux/DmTestSupport.h"

namespace {

using dmtest::fixture;

const char kDriverText[] = "Device Mapper Multipath Version 0.9.4-3";

// One record as one line, so a table row and a failure message read alike.
std::string describe(const PathRecord& r) {
    return r.device + " " + std::to_string(r.host) + ":" + std::to_string(r.channel) + ":" + std::to_string(r.target) +
           ":" + std::to_string(r.lun) + " mode=" + r.mode + " state=" + r.state + " policy=" + r.policy +
           " disk=" + r.disk + " group=" + std::to_string(r.group) + (r.preferred ? " preferred" : "");
}

std::vector<std::string> parse(const std::string& listing, Topology* topology = nullptr) {
    Topology local;
    Topology* target = topology ? topology : &local;
    dmParseTopology(listing, kDriverText, target);
    std::vector<std::string> lines;
    for (const auto& entry : *target) lines.push_back(describe(*entry.second));
    return lines;
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size())) {
        text.replace(pos, from.size(), to);
    }
    return text;
}

const std::vector<std::string> kTwoMapsRecords = {
    "sda 0:0:0:0 mode=running state=ready policy=service-time disk=mpatha group=1 preferred",
    "sdb 0:0:0:1 mode=running state=ready policy=service-time disk=mpathb group=1 preferred",
    "sdc 1:0:0:0 mode=running state=ready policy=service-time disk=mpatha group=2",
    "sdd 1:0:0:1 mode=running state=ready policy=service-time disk=mpathb group=2",
};

TEST(DMTopologyParserTest, RealTreeListingGivesEveryPath) {
    Topology topology;
    EXPECT_EQ(parse(fixture("multipath-ll-v2.two-maps.stdout"), &topology), kTwoMapsRecords);
    for (const auto& entry : topology) {
        EXPECT_EQ(entry.first, entry.second->device);
        EXPECT_EQ(entry.second->kind, 1);
        EXPECT_EQ(entry.second->id, "0");
        EXPECT_EQ(entry.second->driverVersion, kDriverText);
        EXPECT_EQ(entry.second->spare, "");
    }
    EXPECT_EQ(parse(fixture("multipath-ll-v2.queueing.stdout")), kTwoMapsRecords);
}

TEST(DMTopologyParserTest, BracketedListingsGiveEveryPath) {
    // The second map has no alias and is named by its WWID; its best group is 2,
    // which also marks group 2 of mpath0 (marks go by group number alone).
    EXPECT_EQ(parse(fixture("multipath-ll-v2.bracketed-0.4.8.stdout")),
              (std::vector<std::string>{
                  "sdb 2:0:0:1 mode=active state=ready policy=round-robin disk=mpath0 group=1 preferred",
                  "sdc 2:0:1:1 mode=active state=ghost policy=round-robin disk=mpath0 group=2 preferred",
                  "sdd 3:0:0:1 mode=active state=ready policy=round-robin disk=mpath0 group=1 preferred",
                  "sde 2:0:0:2 mode=failed state=faulty policy=round-robin "
                  "disk=3600a0b800011a1ee0000c4b54a7c1f5b group=1 preferred",
                  "sdf 3:0:0:2 mode=active state=ready policy=round-robin "
                  "disk=3600a0b800011a1ee0000c4b54a7c1f5b group=2 preferred",
              }));
    // The oldest layout prints the checker state first and marks the first group
    // "[first]"; a later group line with neither prio nor first is not a group.
    EXPECT_EQ(parse(fixture("multipath-ll-v2.bracketed-0.4.5.stdout")),
              (std::vector<std::string>{
                  "sda 0:0:0:1 mode=active state=ready policy=round-robin disk=mpath1 group=1 preferred",
                  "sdb 1:0:0:1 mode=active state=ready policy=round-robin disk=mpath1 group=1 preferred",
                  "sdc 0:0:1:1 mode=failed state=faulty policy=round-robin disk=mpath1 group=1 preferred",
              }));
}

struct PathCase {
    const char* line;
    const char* record;  // empty: no record
};

TEST(DMTopologyParserTest, PathLineFields) {
    const std::string head = "m (0123456789abcdef)\n`-+- policy='rr 0' prio=1 status=active\n";
    const PathCase cases[] = {
        {"  `- 1a:0:0:10 sda 8:0 active ready running", "sda 26:0:0:16 mode=running state=ready"},
        {"  `- 0:1:ff:ffff sda 8:0 active ready running", "sda 0:1:255:65535 mode=running state=ready"},
        {"  `- 0:0:0:10000 sda 8:0 active ready running", "sda 0:0:0:0 mode=running state=ready"},
        {"  `- 0:0:0:0 sda 8:0 failed faulty offline", "sda 0:0:0:0 mode=offline state=faulty"},
        {"  `- 0:0:0:0 sda 8:0 active i/o pending running", "sda 0:0:0:0 mode=active state=i/o"},
        {"  `- 0:0:0:0 sda 8:0 ready active", "sda 0:0:0:0 mode=active state=ready"},
        {"  `- 0:0:0:0 sda 8:0 ghost failed", "sda 0:0:0:0 mode=failed state=ghost"},
        {"  `- 0:0:0:0 sda 8:0 undef undef unknown", "sda 0:0:0:0 mode=undef state=undef"},
        {"  `- 0:0:0:0 sda 8:0 active", "sda 0:0:0:0 mode=active state="},
        {"  `- 0:0:0:0 sda   8:0   active   ready   running", "sda 0:0:0:0 mode=running state=ready"},
        {" \\_ 2:0:0:1 sdb 8:16  [active][ready]", "sdb 2:0:0:1 mode=active state=ready"},
        {" \\_ 2:0:0:1 sdb 8:16  [ready ][active]", "sdb 2:0:0:1 mode=active state=ready"},
        {"  |- 0:0:0:0 sda 8:0 active ready running", "sda 0:0:0:0 mode=running state=ready"},
        {"  `- 0:0:0:0 - #:# active ready running", ""},
        {"  `- 0:0:0:0 - 8:0 active faulty running", ""},
        {"  `- #:#:#:# sda 8:0 active ready running", ""},
        {"  `- 0:0:0:0 sda 8:0", ""},
        {"  `- 0:0:0:0 sda", ""},
        {"  `- 0:0:0:0", ""},
        {"  `- :", ""},
        {"  -- 0:0:0:0 sda 8:0 active ready running", ""},
    };
    for (const PathCase& c : cases) {
        std::vector<std::string> records = parse(head + c.line + "\n");
        std::string expected = c.record[0] ? std::string(c.record) + " policy=rr disk=m group=1 preferred" : "";
        EXPECT_EQ(records.empty() ? "" : records[0], expected) << c.line;
        EXPECT_LE(records.size(), 1u) << c.line;
    }
}

struct GroupCase {
    const char* name;
    const char* groups;
    const char* preferred;  // devices marked preferred, in name order
};

TEST(DMTopologyParserTest, BestGroupIsPathsTimesPriority) {
    // Groups hold paths sda.. in order; one path line per "p".
    const GroupCase cases[] = {
        {"tie keeps the earlier group", "prio=2:p prio=1:pp", "sda"},
        {"more paths outweigh a higher priority", "prio=2:p prio=1:ppp", "sdb sdc sdd"},
        {"negative priorities leave group 1", "prio=-1:p prio=-1:pp", "sda"},
        {"all zero leaves group 1", "prio=0:p prio=0:p", "sda"},
        {"weights wrap at 16 bits", "prio=65537:p prio=2:p", "sdb"},
        {"32768 wraps negative", "prio=32768:p prio=1:p", "sdb"},
        {"first group weighs 1000", "first:p prio=999:p", "sda"},
        {"1000 is beaten by 1001", "first:p prio=1001:p", "sdb"},
        {"priority read as decimal", "prio=010:p prio=9:p", "sda"},
        {"priority with trailing text", "prio=7]x:p prio=6:p", "sda"},
        {"group without paths", "prio=50: prio=1:p", "sda"},
    };
    for (const GroupCase& c : cases) {
        std::string listing = "m (0123456789abcdef)\n";
        char device = 'a';
        std::istringstream groups(c.groups);
        for (std::string group; groups >> group;) {
            std::string prio = group.substr(0, group.find(':'));
            listing += prio == "first" ? "\\_ round-robin 0 [active][first]\n" : "\\_ round-robin 0 [" + prio + "][active]\n";
            for (char p : group.substr(group.find(':') + 1)) {
                if (p == 'p') listing += std::string(" \\_ 1:0:0:1 sd") + device++ + " 8:0 [active][ready]\n";
            }
        }
        Topology topology;
        dmParseTopology(listing, kDriverText, &topology);
        std::string marked;
        for (const auto& entry : topology) {
            if (entry.second->preferred) marked += (marked.empty() ? "" : " ") + entry.first;
        }
        EXPECT_EQ(marked, c.preferred) << c.name;
    }
}

TEST(DMTopologyParserTest, GroupLinePolicyAndPriority) {
    const char* cases[][2] = {
        {"`-+- policy='x 0' prio=50 status=active", "x"},
        {"|-+- policy='queue-length 0' prio=0 status=enabled", "queue-length"},
        {"\\_ round-robin 0 [prio=2][active]", "round-robin"},
        {"\\_ service-time 0 [prio=2]", "service-time"},
        {"\\_ round-robin 0 [active][first]", "round-robin"},
        {"`-+- prio=5", "previous"},
    };
    for (const auto& c : cases) {
        std::string listing = std::string("m (0123456789abcdef)\n\\_ previous 0 [prio=1]\n") + c[0] +
                              "\n  `- 0:0:0:0 sda 8:0 active ready running\n";
        std::vector<std::string> records = parse(listing);
        ASSERT_EQ(records.size(), 1u) << c[0];
        EXPECT_NE(records[0].find(std::string("policy=") + c[1] + " "), std::string::npos) << records[0];
        EXPECT_NE(records[0].find("group=2"), std::string::npos) << records[0];
    }
}

TEST(DMTopologyParserTest, DiskNames) {
    const char* cases[][2] = {
        {"mpatha (333333330000007d0) dm-0 Linux,scsi_debug", "mpatha"},
        {"3600a0b800011a1ee0000c4b54a7c1f5b dm-1 IBM,1814", "3600a0b800011a1ee0000c4b54a7c1f5b"},
        {"3600a0b800011a1ee0000c4b54a7c1f5b\tdm-1", "3600a0b800011a1ee0000c4b54a7c1f5b"},
        {"  3600a0b800011a1ee0000c4b54a7c1f5b", "3600a0b800011a1ee0000c4b54a7c1f5b"},
        {"(333333330000007d0) dm-0", ""},
        {"my disk (333333330000007d0)", "my"},
    };
    for (const auto& c : cases) {
        std::string listing = std::string(c[0]) + "\n\\_ rr 0 [prio=1]\n \\_ 0:0:0:1 sdb 8:16 [active][ready]\n";
        std::vector<std::string> records = parse(listing);
        ASSERT_EQ(records.size(), 1u) << c[0];
        EXPECT_NE(records[0].find(std::string("disk=") + c[1] + " "), std::string::npos) << records[0];
    }
}

TEST(DMTopologyParserTest, MapWithoutGroupsGivesGroupZero) {
    std::vector<std::string> records = parse("mpatha (333333330000007d0) dm-0\n  `- 0:0:0:0 sda 8:0 active ready running\n");
    EXPECT_EQ(records, std::vector<std::string>{"sda 0:0:0:0 mode=running state=ready policy= disk=mpatha group=0"});
    EXPECT_TRUE(parse("mpatha (333333330000007d0) dm-0\nsize=16M features='0' hwhandler='1 alua' wp=rw\n").empty());
}

TEST(DMTopologyParserTest, LaterLineForSameDeviceReplacesRecord) {
    std::vector<std::string> records =
        parse("a (0123456789abcdef)\n\\_ rr 0 [prio=1]\n \\_ 0:0:0:1 sdb 8:16 [active][ready]\n"
              "b (0123456789abcdee)\n\\_ rr 0 [prio=1]\n \\_ 1:0:0:1 sdb 8:16 [failed][faulty]\n");
    EXPECT_EQ(records, std::vector<std::string>{"sdb 1:0:0:1 mode=failed state=faulty policy=rr disk=b group=1 preferred"});
}

TEST(DMTopologyParserTest, RecordsAlreadyHeldAreMarkedToo) {
    Topology topology;
    topology["sdx"] = std::make_unique<PathRecord>();
    topology["sdx"]->group = 2;
    topology["sdy"] = std::make_unique<PathRecord>();
    topology["sdy"]->group = 1;
    std::vector<std::string> records = parse(
        "b (0123456789abcdee)\n\\_ rr 0 [prio=1]\n \\_ 1:0:0:1 sdb 8:16 [active][ready]\n"
        "\\_ rr 0 [prio=5]\n \\_ 1:0:0:2 sdc 8:32 [active][ready]\n",
        &topology);
    EXPECT_TRUE(topology.at("sdx")->preferred);
    EXPECT_FALSE(topology.at("sdy")->preferred);
    EXPECT_FALSE(topology.at("sdb")->preferred);
    EXPECT_TRUE(topology.at("sdc")->preferred);
}

TEST(DMTopologyParserTest, NoiseAroundTheListingIsIgnored) {
    std::string noisy = "Jan 01 00:00:00 | sda: checker msg is \"directio checker reports path is up\"\n"
                        "multipathd: 8:16: reinstated\n"
                        "# comment |- 0:0:0:0 sdz 8:0 active ready running\n"
                        "create: some text\n\n\n" +
                        replaceAll(fixture("multipath-ll-v2.two-maps.stdout"), "size=16M",
                                   "0.42 | mpatha: load table [0 32768 multipath]\nsize=16M");
    EXPECT_EQ(parse(noisy), kTwoMapsRecords);
    EXPECT_EQ(parse(replaceAll(fixture("multipath-ll-v2.two-maps.stdout"), "\n", "\r\n")), kTwoMapsRecords);
    EXPECT_EQ(parse(replaceAll(fixture("multipath-ll-v2.two-maps.stdout"), "\n", "\n\n  \n")), kTwoMapsRecords);
    EXPECT_TRUE(parse("").empty());
    EXPECT_TRUE(parse("\n\r\n\n").empty());
}

TEST(DMTopologyParserTest, OutOfRangeLineIsTracedAndSkipped) {
    dmtest::TraceCapture trace;
    std::vector<std::string> records = parse(
        "m (0123456789abcdef)\n\\_ rr 0 [prio=1]\n  `- 0:0:0:0 sda\n"
        "\\_ rr 0 [prio\n  `- 0:0:0:1 sdb 8:16 active ready running\n");
    std::string text = trace.text();
    EXPECT_EQ(records, std::vector<std::string>{"sdb 0:0:0:1 mode=running state=ready policy=rr disk=m group=1 preferred"});
    EXPECT_NE(text.find("Out of Range error while parsing the line   `- 0:0:0:0 sda: "), std::string::npos) << text;
    EXPECT_NE(text.find("Out of Range error while parsing the line \\_ rr 0 [prio: "), std::string::npos) << text;
    EXPECT_NE(text.find("Found Disk m\n"), std::string::npos);
    EXPECT_NE(text.find("Found Path sdb: host=0, channel=0, target=0, lun=1\n"), std::string::npos);
    EXPECT_NE(text.find("\tstate=ready, mode=running\n"), std::string::npos);
}

// Every prefix of the real listing parses; the paths it yields carry the same
// address, map and group as in the whole listing.
TEST(DMTopologyParserTest, TruncatedAtEveryByte) {
    std::string listing = fixture("multipath-ll-v2.two-maps.stdout");
    Topology whole;
    dmParseTopology(listing, kDriverText, &whole);
    for (size_t cut = 0; cut <= listing.size(); ++cut) {
        Topology part;
        dmParseTopology(std::string_view(listing).substr(0, cut), kDriverText, &part);
        for (const auto& entry : part) {
            const PathRecord& full = *whole.at(entry.first);
            const PathRecord& got = *entry.second;
            EXPECT_EQ(std::to_string(got.host) + ":" + std::to_string(got.lun) + " " + got.disk + " " +
                          std::to_string(got.group),
                      std::to_string(full.host) + ":" + std::to_string(full.lun) + " " + full.disk + " " +
                          std::to_string(full.group))
                << "cut at " << cut;
        }
    }
}

TEST(DMTopologyParserTest, RandomBytesNeverCrash) {
    const std::string alphabet = "0123456789abcdefxyz :|-`\\_[]()#='\r\n\t prio first size policy mpath sda";
    std::mt19937 rng(1234);
    for (int round = 0; round < 2000; ++round) {
        std::string text(rng() % 400, '\0');
        for (char& c : text) c = round % 2 ? static_cast<char>(rng()) : alphabet[rng() % alphabet.size()];
        Topology topology;
        dmParseTopology(text, kDriverText, &topology);
        for (const auto& entry : topology) EXPECT_EQ(entry.first, entry.second->device);
    }
}

TEST(DMTopologyParserTest, HundredThousandPaths) {
    std::string listing;
    for (int map = 0; map < 25000; ++map) {
        listing += "mpath" + std::to_string(map) + " (36000" + std::to_string(1000000 + map) + ") dm-0 X,Y\n";
        listing += "size=1G features='0' hwhandler='0' wp=rw\n";
        listing += "|-+- policy='service-time 0' prio=10 status=active\n";
        for (int p = 0; p < 2; ++p) listing += "| `- 0:0:0:" + std::to_string(map % 10) + " sd" + std::to_string(map * 4 + p) + " 8:0 active ready running\n";
        listing += "`-+- policy='service-time 0' prio=50 status=enabled\n";
        for (int p = 2; p < 4; ++p) listing += "  `- 1:0:0:" + std::to_string(map % 10) + " sd" + std::to_string(map * 4 + p) + " 8:0 active ready running\n";
    }
    Topology topology;
    dmParseTopology(listing, kDriverText, &topology);
    ASSERT_EQ(topology.size(), 100000u);
    EXPECT_EQ(describe(*topology.at("sd99999")),
              "sd99999 1:0:0:9 mode=running state=ready policy=service-time disk=mpath24999 group=2 preferred");
    EXPECT_FALSE(topology.at("sd0")->preferred);
}

TEST(DMTopologyParserTest, ListingStatusInOrder) {
    struct {
        int32_t exitCode;
        const char* out;
        DmListingStatus status;
    } cases[] = {
        {-1, "", DmListingStatus::kNotRun},
        {-1, "mpatha (333333330000007d0)", DmListingStatus::kNotRun},
        {0, "", DmListingStatus::kEmpty},
        {1, "", DmListingStatus::kEmpty},
        {1, "Dec 1 | DM multipath kernel driver not loaded\n", DmListingStatus::kNotLoaded},
        {0, "driver not loaded", DmListingStatus::kNotLoaded},
        {1, "/etc/multipath.conf does not exist, blacklisting all devices.\n", DmListingStatus::kNoConfigFile},
        {1, "driver not loaded; see multipath.conf", DmListingStatus::kNotLoaded},
        {1, "some failure\n", DmListingStatus::kFailed},
        {127, "x", DmListingStatus::kFailed},
        {0, "mpatha (333333330000007d0)", DmListingStatus::kParsed},
    };
    for (const auto& c : cases) EXPECT_EQ(dmClassifyListing(c.exitCode, c.out), c.status) << c.exitCode << " " << c.out;
}

TEST(DMTopologyParserTest, DriverTextStartsAtFirstDigit) {
    EXPECT_EQ(dmDriverText("multipath-tools-0.9.4-3"), "Device Mapper Multipath Version 0.9.4-3");
    EXPECT_EQ(dmDriverText("device-mapper-multipath-0.4.9-123.el7.x86_64"),
              "Device Mapper Multipath Version 0.4.9-123.el7.x86_64");
    EXPECT_EQ(dmDriverText("multipath-tools"), "Device Mapper Multipath Version ");
}

TEST(DMTopologyParserTest, MapNamesFromDmsetupLs) {
    const struct {
        std::string out;
        std::vector<std::string> names;
    } cases[] = {
        {fixture("dmsetup-ls.two-maps.stdout"), {"mpatha", "mpathb"}},
        {fixture("dmsetup-ls.no-maps.stdout"), {}},
        {"3600a0b800011a1ee0000c4b54a7c1f5b\t(253:0)\nvg0-lv_root\t(254:0)\nvg0-swap\t(254:1)\n", {}},
        {"mpathc\t(253:2)\r\nvg0-lv_root\t(254:0)\nmpath2\t(253:3)\n", {"mpathc", "mpath2"}},
        {"mpathCfoo\t(253:2)\nmpath_b\t(253:3)\nmpath-c (1:1)\nmpathd", {"mpath", "mpath", "mpath", "mpathd"}},
        {"vg-mpathlv\t(254:3)\n-mpath\t(254:4)\n", {"vg"}},
        {"\n\n", {}},
    };
    for (const auto& c : cases) EXPECT_EQ(dmMapNames(c.out), c.names) << c.out;
}

TEST(DMTopologyParserTest, TableQueuesOnFirstLineOnly) {
    EXPECT_TRUE(dmTableQueues(fixture("dmsetup-table.queueing.stdout")));
    EXPECT_FALSE(dmTableQueues(fixture("dmsetup-table.plain.stdout")));
    EXPECT_FALSE(dmTableQueues(fixture("dmsetup-table.after-fail-if-no-path.stdout")));
    EXPECT_FALSE(dmTableQueues(""));
    EXPECT_FALSE(dmTableQueues("\n0 1 multipath 1 queue_if_no_path 0 1 1 round-robin 0 1 1 8:0 1000\n"));
}

}  // namespace
