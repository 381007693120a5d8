// Flag lists: classes, aggregates, ALL, negations, unknown words, and the tables.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "BKVlib/common/ut/trace.h"
#include "BKVlib/common/ut/trstate.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

namespace {

class TraceFlagsTest : public ::testing::Test {
protected:
    void SetUp() override { resetTrace(); }
    void TearDown() override { resetTrace(); }
};

struct FlagCase {
    std::vector<const char*> lists;  // applied in order
    std::vector<int> on;
    std::vector<int> off;
};

TEST_F(TraceFlagsTest, ListsSwitchTheNamedClasses) {
    const FlagCase cases[] = {
        {{"nls Pid"}, {TR_NLS, TR_PID, TR_TIMESTAMP, TR_PREFIX}, {TR_TID, TR_ERROR}},
        {{"-TIMESTAMP", "ALL"}, {TR_ERROR, TR_SMWIN, TR_HARBOR_COMM, TR_PREFIX}, {TR_TIMESTAMP}},
        {{"ALL", "-ALL"}, {TR_TIMESTAMP, TR_PREFIX}, {TR_ERROR, TR_NLS, TR_SMWIN}},
        {{"SERVICE"}, {TR_ERROR, TR_FILEOPS, TR_TIMESTAMP}, {TR_NLS, TR_BTREEDB, TR_CLIENTTYPE, TR_DEBUG}},
        {{"SERVICE -TIMESTAMP"}, {TR_ERROR, TR_PREFIX}, {TR_TIMESTAMP, TR_NLS}},
        {{"DEVELOP"}, {TR_ERROR, TR_PREFIX}, {TR_TIMESTAMP, TR_MEMORY}},
        {{"SCHEDULER"}, {TR_INCLEXCL_DETAIL, TR_ERROR}, {TR_THREAD_STATUS, TR_PFM, TR_NLS}},
        // A negated aggregate switches its members off, even those it negates itself.
        {{"ALL", "-SERVICE"}, {TR_TIMESTAMP}, {TR_ERROR, TR_NLS, TR_BTREEDB}},
        // ALL_PROC names ALL_SESS, which the table defines after it.
        {{"ALL_PROC"}, {TR_INCR, TR_DIROPS, TR_SESSION, TR_C2C}, {TR_NLS}},
        {{"ALL_VSS"}, {TR_SNAPSHOT_DRIVER_DETAIL, TR_WIN2K}, {TR_IMAGE}},
        {{"MOBILE"}, {TR_DELTA, TR_ENCRYPT}, {TR_TIMESTAMP}},
        {{"ALL_HARBOR ALL_VAULTDB"}, {TR_HARBOR, TR_HARBOR_COMM, TR_VAULTDB_DETAIL}, {TR_DEF27431}},
    };
    for (const FlagCase& c : cases) {
        resetTrace();
        std::string applied;
        for (const char* list : c.lists) {
            EXPECT_EQ(0, trSetLibFlags(list, 0)) << list;
            applied += std::string(list) + "|";
        }
        for (int id : c.on) EXPECT_EQ(1, trFlags[id]) << applied << " class " << trLibClasses[id].name;
        for (int id : c.off) EXPECT_EQ(0, trFlags[id]) << applied << " class " << trLibClasses[id].name;
    }
}

TEST_F(TraceFlagsTest, UnknownWordStopsTheListAndKeepsEarlierWords) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, trSetLibFlags("PID bogus TID", 0));
    EXPECT_EQ("Invalid trace flag: BOGUS\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1, trFlags[TR_PID]);
    EXPECT_EQ(0, trFlags[TR_TID]);

    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, trSetLibFlags("-", 1));
    EXPECT_EQ(-1, trSetLibFlags("NOSUCHAGGREGATE", 1));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(TraceFlagsTest, FirstListSwitchesTimestampAndPrefixOnOnce) {
    EXPECT_EQ(0, trFlags[TR_TIMESTAMP]);
    trSetLibFlags("-PREFIX", 0);
    EXPECT_EQ(1, trFlags[TR_TIMESTAMP]);
    EXPECT_EQ(0, trFlags[TR_PREFIX]);
    trSetLibFlags("PID", 0);
    EXPECT_EQ(0, trFlags[TR_PREFIX]);
}

TEST_F(TraceFlagsTest, EndKeepsErrorOnly) {
    trSetLibFlags("ERROR NLS COMM", 0);
    EXPECT_EQ(1, trState.markedActive);
    trEnd(0);
    EXPECT_EQ(1, trFlags[TR_ERROR]);
    EXPECT_EQ(0, trFlags[TR_NLS]);
    EXPECT_EQ(0, trFlags[TR_TIMESTAMP]);
    trSetLibFlags("NLS", 0);
    EXPECT_EQ(0, trState.markedActive);
}

TEST_F(TraceFlagsTest, CallerTablesAndSharedFlagBytes) {
    unsigned char mine = 0;
    const TraceClass classes[] = {{"MINE", &mine, 0}, {"MYENTER", &trFlags[TR_ENTER], 0}, {nullptr, nullptr, 0}};
    const TraceAggregate aggregates[] = {{"BOTH", "MINE MYENTER"}, {"LOOP", "LOOP"}, {nullptr, nullptr}};
    EXPECT_EQ(0, trSetFlags("both", 0, classes, aggregates));
    EXPECT_EQ(1, mine);
    EXPECT_EQ(1, trFlags[TR_ENTER]);
    // A self-referring aggregate must end instead of recursing without end.
    EXPECT_EQ(-1, trSetFlags("LOOP", 1, classes, aggregates));
}

TEST(TraceTablesTest, RowsFollowTheClassIdsAndAggregatesResolve) {
    size_t rows = 0;
    for (const TraceClass* row = trLibClasses; row->name; ++row, ++rows) {
        EXPECT_EQ(&trFlags[rows], row->flag) << row->name;
    }
    EXPECT_EQ(154u, rows);
    EXPECT_EQ(148, TR_LIB_NAMED_COUNT);
    EXPECT_STREQ("95REGISTRY", trLibClasses[TR_95REGISTRY].name);
    EXPECT_STREQ("SMWIN", trLibClasses[TR_SMWIN].name);
    const int marked[] = {TR_COMM, TR_COMMDETAIL, TR_COMMFULL, TR_DELTA, TR_DELTASTAT};
    uint32_t markCount = 0;
    for (const TraceClass* row = trLibClasses; row->name; ++row) markCount += row->mark;
    EXPECT_EQ(5u, markCount);
    for (int id : marked) EXPECT_EQ(1u, trLibClasses[id].mark) << trLibClasses[id].name;
    for (const TraceAggregate* row = trLibAggregates; row->name; ++row) {
        EXPECT_EQ(0, trSetLibFlags(row->members, 1)) << row->name;
    }
}

TEST(TraceTablesTest, ShowTablesListsClassesThenAggregates) {
    testing::internal::CaptureStdout();
    trShowTables();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0u, out.find("Trace Class Table:\nERROR, ADMIN, CLIENTTYPE, "));
    EXPECT_NE(std::string::npos, out.find(", SMWIN, DEF27431, "));
    EXPECT_NE(std::string::npos, out.find("\n\nTrace Aggregate Table:\nALL_API = API API_DETAIL\n"));
    EXPECT_NE(std::string::npos, out.find("\nSUBFILE = DELTA DELTASTAT TXN\n"));
}

}  // namespace
