#include "Multipath/linux/DMMapView.h"

#include "tests/fakes/FakeTools.h"

namespace {

using Lines = std::vector<std::string>;

std::string fixture(const std::string& name) { return testfiles::testData("Multipath/linux/data/" + name); }

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

Lines parse(const std::string& listing) { return describe(dmParseMapView(listing)); }

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
    EXPECT_EQ(parse(fixture("multipath-ll-v2.two-maps.stdout")), kTwoMaps);
    Lines queueing = parse(fixture("multipath-ll-v2.queueing.stdout"));
    ASSERT_EQ(queueing.size(), kTwoMaps.size());
    EXPECT_EQ(queueing[0],
              "mpatha wwid=333333330000007d0 dm=dm-0 vendor=Linux product=scsi_debug size=16M "
              "features=1 queue_if_no_path queueing=true hwhandler=1 alua");
}

// One path offlined in sysfs, another failed through multipathd: the preferred group
// stays the one of highest priority even though the kernel now uses the other.
TEST(DMMapViewTest, ReadsRealListingWithFailedPaths) {
    Lines lines = parse(fixture("multipath-ll-v2.failed-paths.stdout"));
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[1], " 1 policy=service-time 0 prio=0 status=enabled");
    EXPECT_EQ(lines[2], "  sda 8:0 0:0:0:0 failed faulty offline");
    EXPECT_EQ(lines[3], " 2 policy=service-time 0 prio=10 status=active preferred");
    EXPECT_EQ(lines[8], " 2 policy=service-time 0 prio=10 status=active");
    EXPECT_EQ(lines[7], "  sdb 8:16 0:0:0:1 failed ready running");
}

// The kernel prints the address in decimal; host 10 is host 10 here.
// The oldest layout has no dm name or model, no priorities, and the checker state first.
TEST(DMMapViewTest, ReadsTheOldestBracketedListing) {
    EXPECT_EQ(parse(fixture("multipath-ll-v2.bracketed-0.4.5.stdout")),
              (Lines{"mpath1 wwid=3600508b4000156d700012000000b0000 dm=null vendor=null product=null size=5 GB "
                     "features=1 queue_if_no_path queueing=true hwhandler=0",
                     " 1 policy=round-robin 0 prio=null status=active preferred",
                     "  sda 8:0 0:0:0:1 active ready null",
                     "  sdb 8:16 1:0:0:1 active ready null",
                     " 2 policy=round-robin 0 prio=null status=enabled",
                     "  sdc 8:32 0:0:1:1 failed faulty null"}));
}

TEST(DMMapViewTest, ReadsAddressesInDecimal) {
    const char* cases[][2] = {  // path line, the path it gives ("": none)
        {"`- 10:0:3:255 sdq 65:0 active ready running", "  sdq 65:0 10:0:3:255 active ready running"},
        {"`- 4294967295:0:0:18446744073709551615 sdr 1:1 active", "  sdr 1:1 4294967295:0:0:18446744073709551615 active null null"},
        {"`- 4294967296:0:0:0 sds 1:1 active ready running", ""},
    };
    for (const auto& c : cases) {
        Lines lines = parse(std::string("m (0123456789ab) dm-0 V,P\n`-+- policy='x' prio=1 status=active\n") + c[0]);
        ASSERT_GE(lines.size(), 2u) << c[0];
        EXPECT_EQ(lines.size() == 3 ? lines[2] : "", c[1]) << c[0];
    }
}

TEST(DMMapViewTest, LineEndsAndBlankLinesDoNotMatter) {
    std::string listing = fixture("multipath-ll-v2.two-maps.stdout");
    std::string crlf;
    for (char c : listing) crlf += c == '\n' ? std::string("\r\n\r\n") : std::string(1, c);
    EXPECT_EQ(parse(crlf), kTwoMaps);
    EXPECT_EQ(parse(""), Lines{});
}

TEST(DMMapViewTest, NormalizesWwpns) {
    const std::pair<const char*, const char*> good[] = {
        {"21000024ff123456", "21000024ff123456"},
        {" 0x21:00:00:24:FF:12:34:56 ", "21000024ff123456"},
    };
    for (const auto& c : good) {
        std::string wwpn;
        EXPECT_TRUE(dmNormalizeWwpn(c.first, &wwpn)) << c.first;
        EXPECT_EQ(wwpn, c.second) << c.first;
    }
    for (const char* bad : {"", "0x", "21000024ff12345", "21000024ff1234567", "21000024ff12345g", "0x0x21000024ff123456",
                            "21 00 00 24 ff 12 34 56", "-21000024ff12345"}) {
        std::string wwpn = "untouched";
        EXPECT_FALSE(dmNormalizeWwpn(bad, &wwpn)) << bad;
        EXPECT_EQ(wwpn, "untouched") << bad;
    }
}

TEST(DMMapViewTest, SafeNamesAreWordsOnly) {
    for (const char* name : {"sda", "mpatha", "dm-0", "360a98000_x.y:z", "nvme0n1"}) EXPECT_TRUE(dmSafeName(name)) << name;
    for (const char* name : {"", "-f", "sd a", "sda;reboot", "$(id)", "a/b", "sd\na", "sda'", "\xc3\xa9"}) {
        EXPECT_FALSE(dmSafeName(name)) << name;
    }
}

}  // namespace
