#include "PathPlanner/topology/TopologyFormat.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

void add(Topology* topology, const std::string& device, const std::string& disk, int16_t group, bool preferred) {
    (*topology)[device] = std::make_unique<PathRecord>(PathRecord{1, "0", 0, 0, 0, 0, "ready", "running", preferred,
        "service-time", disk, device, group, "Device Mapper Multipath Version 0.9.4-3", ""});
}

TEST(TopologyFormatTest, JsonStringEscapes) {
    const struct { std::string in; std::string out; } cases[] = {
        {"a\"b\\c", "\"a\\\"b\\\\c\""},
        {"\n\t\r\b\f", "\"\\n\\t\\r\\b\\f\""},
        {std::string("\x01\x1f\x7f", 3), "\"\\u0001\\u001f\x7f\""},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        {"\xff", "\"\\ufffd\""},
    };
    for (const auto& c : cases) EXPECT_EQ(topologyJsonString(c.in), c.out) << c.in;
}

TEST(TopologyFormatTest, JsonArrayInDeviceOrder) {
    Topology topology;
    EXPECT_EQ(topologyToJson(topology), "[]\n");
    add(&topology, "sdc", "mpatha", 2, false);
    add(&topology, "sda", "mpa\"tha", 1, true);
    topology["sdc"]->host = 65535;
    topology["sdc"]->target = 4294967295u;
    topology["sdc"]->group = -1;
    EXPECT_EQ(topologyToJson(topology),
              "[\n"
              "{\"kind\":1,\"id\":\"0\",\"host\":0,\"channel\":0,\"target\":0,\"lun\":0,\"state\":\"ready\","
              "\"mode\":\"running\",\"preferred\":true,\"policy\":\"service-time\",\"disk\":\"mpa\\\"tha\","
              "\"device\":\"sda\",\"group\":1,\"driverVersion\":\"Device Mapper Multipath Version 0.9.4-3\","
              "\"spare\":\"\"},\n"
              "{\"kind\":1,\"id\":\"0\",\"host\":65535,\"channel\":0,\"target\":4294967295,\"lun\":0,"
              "\"state\":\"ready\",\"mode\":\"running\",\"preferred\":false,\"policy\":\"service-time\","
              "\"disk\":\"mpatha\",\"device\":\"sdc\",\"group\":-1,"
              "\"driverVersion\":\"Device Mapper Multipath Version 0.9.4-3\",\"spare\":\"\"}\n"
              "]\n");
}

TEST(TopologyFormatTest, TableAlignsColumns) {
    Topology topology;
    EXPECT_EQ(topologyToTable(topology), "DEVICE  H:C:T:L  DISK  GROUP  POLICY  MODE  STATE  PREFERRED\n");
    add(&topology, "sdaa", "3600a0b800011a1ee0000c4b54a7c1f5b", 12, true);
    add(&topology, "sda", "mpatha", 1, false);
    topology["sdaa"]->host = 10;
    EXPECT_EQ(topologyToTable(topology),
              "DEVICE  H:C:T:L   DISK                               GROUP  POLICY        MODE     STATE  PREFERRED\n"
              "sda     0:0:0:0   mpatha                             1      service-time  running  ready  no\n"
              "sdaa    10:0:0:0  3600a0b800011a1ee0000c4b54a7c1f5b  12     service-time  running  ready  yes\n");
}

}  // namespace
