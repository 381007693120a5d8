#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BKVlib/common/ut/trace.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

namespace {

using TraceFlagsTest = TraceTestBase;

TEST_F(TraceFlagsTest, ListsSwitchTheNamedClasses) {
    const struct { std::vector<const char*> lists; std::vector<int> on, off; } cases[] = {  // lists applied in order
        {{"nls Pid"}, {TR_NLS, TR_PID, TR_TIMESTAMP, TR_PREFIX}, {TR_TID, TR_ERROR}},
        // Only the first list switches TIMESTAMP and PREFIX on.
        {{"-PREFIX", "PID"}, {TR_TIMESTAMP, TR_PID}, {TR_PREFIX}},
        // A negated aggregate switches its members off, even those it negates itself.
        {{"ALL", "-SERVICE"}, {TR_TIMESTAMP}, {TR_ERROR, TR_NLS, TR_BTREEDB}},
    };
    for (const auto& c : cases) {
        resetTrace();
        for (const char* list : c.lists) EXPECT_EQ(0, trSetLibFlags(list, 0)) << list;
        const std::string applied = testing::PrintToString(c.lists);
        for (int id : c.on) EXPECT_EQ(1, trFlags[id]) << applied << " class " << trLibClasses[id].name;
        for (int id : c.off) EXPECT_EQ(0, trFlags[id]) << applied << " class " << trLibClasses[id].name;
    }
}

TEST_F(TraceFlagsTest, UnknownWordStopsTheListAndKeepsEarlierWords) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, trSetLibFlags("PID bogus TID", 0));
    EXPECT_EQ(-1, trSetLibFlags("-", 1));  // quiet
    EXPECT_EQ(-1, trSetLibFlags("-nosuch", 0));  // reported by the name it looked up
    EXPECT_EQ("Invalid trace flag: BOGUS\nInvalid trace flag: NOSUCH\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1, trFlags[TR_PID]);
    EXPECT_EQ(0, trFlags[TR_TID]);
}

TEST_F(TraceFlagsTest, CallerTablesAndSelfReferringAggregate) {
    unsigned char mine = 0;
    const TraceClass classes[] = {{"MINE", &mine, 0}, {"MYENTER", &trFlags[TR_ENTER], 0}, {nullptr, nullptr, 0}};
    const TraceAggregate aggregates[] = {{"BOTH", "MINE MYENTER"}, {"LOOP", "LOOP"}, {nullptr, nullptr}};
    EXPECT_EQ(0, trSetFlags("both", 0, classes, aggregates));
    EXPECT_EQ(2, mine + trFlags[TR_ENTER]);
    EXPECT_EQ(-1, trSetFlags("LOOP", 1, classes, aggregates));  // ends instead of recursing forever
}

}  // namespace
