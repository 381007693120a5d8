// The request's validation and actions, and the line a failed run shows on a terminal.
#include "PathPlanner/ExecPathPlanner.h"

#include "PathPlanner/ExitLine.h"
#include "PathPlanner/PPlannerDriver.h"
#include "tests/fakes/FakeTools.h"

using ::testing::ByMove;
using ::testing::HasSubstr;
using ::testing::Return;
using Lines = std::vector<std::string>;

namespace {

class MockPlannerDriver : public PPlannerDriver {
public:
    MOCK_METHOD(std::unique_ptr<MultipathDriver>, getMultipathDriver, (), (override));
    MOCK_METHOD(std::unique_ptr<WalkTheBus>, getWalkTheBusVehicle, (), (override));
};

// A refused request stores nothing; only the option that is not a number is logged.
TEST(ExecPathPlannerTest, ValidateArgsStoresOrRefusesTheRequest) {
    const struct { Lines tokens; int32_t rc; MultipathRequest stored; const char* trace; const char* message; } cases[] = {
        {{"2", "dev1"}, RC_OK, {2, {"dev1"}, {}}, "Multipath Policy Change Action\n", ""},
        {{"0", "dev1", "w1", "w2"}, RC_OK, {0, {"dev1"}, {"w1", "w2"}}, "Multipath State Change Action\n", ""},
        // Read like "%d": leading blanks skipped, sign allowed, trailing text ignored.
        {{"  +3abc", "dev1"}, RC_OK, {3, {"dev1"}, {}}, "Multipath Policy Change Action\n", ""},
        {{""}, RC_BAD_ARGS, {}, " '<NULL>' is not a valid multipath option.\n", "AGT0398E"},
        {{"99999999999", "dev1"}, RC_UNKNOWN_SETTING, {}, "Unknown multipathSetting: 2147483647\n", ""},
        {{"0", "dev1"}, RC_MISSING_VALUE, {}, "Multipath arguments are incomplete, lundev or its paths are missing.\n",
         ""},
    };
    for (const auto& c : cases) {
        fakes::TraceCapture trace;
        fakes::LogCapture log;
        const std::string input = ::testing::PrintToString(c.tokens);
        MultipathRequest request;
        EXPECT_EQ(c.rc, validateArgs(c.tokens, &request)) << input;
        if (c.rc == RC_OK) { EXPECT_EQ(c.stored.setting, request.setting) << input; }
        EXPECT_EQ(c.stored.devices, request.devices) << input;
        EXPECT_EQ(c.stored.wwpns, request.wwpns) << input;
        EXPECT_THAT(trace.text(), HasSubstr(c.trace)) << input;
        std::string logged = log.text();
        EXPECT_TRUE(c.message[0] ? logged.find(c.message) != std::string::npos : logged.empty()) << input << logged;
    }
}

// The policy change is RunFlowE2eTest's.
TEST(ExecPathPlannerTest, StateChangeWithoutDriverReturnsNoDriver) {
    fakes::LogCapture log;
    MockPlannerDriver planner;
    EXPECT_CALL(planner, getMultipathDriver()).WillOnce(Return(ByMove(std::unique_ptr<MultipathDriver>())));
    EXPECT_EQ(RC_NO_MULTIPATH_DRIVER, runRequestedAction(&planner, {kSettingOffline, {"dev1"}, {"w1"}}));
    EXPECT_THAT(log.text(), HasSubstr("AGT0456E"));
}

TEST(ExitLineTest, EveryStatusReadsAsASentence) {
    const struct { int32_t rc; bool afterRescan; const char* reason; const char* line; } cases[] = {
        {0, true, "ignored", ""},
        {1, false, "", "PathPlanner failed with exit status 1 (out of memory at start)"},
        // After a rescan 1 and 2 are the script's answers, not a lack of memory.
        {2, true, "", "PathPlanner failed with exit status 2 (the rescan script failed)"},
        {-1, true, "", "PathPlanner failed with exit status 255 (the rescan script could not be run)"},
        {173, true, "x", "PathPlanner failed with exit status 173 (a multipath driver command could not be run or "
                         "failed): x"},
        {42, false, "", "PathPlanner failed with exit status 42 (the multipath driver reported this failure)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.line, exitLine(c.rc, c.afterRescan, c.reason)) << c.rc << " after rescan " << c.afterRescan;
    }
}

}  // namespace
