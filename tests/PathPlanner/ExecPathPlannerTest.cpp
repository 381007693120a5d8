#include "PathPlanner/ExecPathPlanner.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/CmdArgs.h"
#include "Common/LogManager.h"
#include "Common/unix/pssignal.h"
#include "PathPlanner/PPlannerDriver.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/TestCatalog.h"

using ::testing::_;
using ::testing::ByMove;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::NiceMock;
using ::testing::Not;
using ::testing::Return;

namespace {

class MockMultipathDriver : public MultipathDriver {
public:
    MOCK_METHOD(int32_t, setPolicy, (int32_t, const std::vector<std::string>&), (override));
    MOCK_METHOD(int32_t, setState, (int32_t, const std::string&, const std::vector<std::string>&), (override));
    MOCK_METHOD(std::vector<std::string>, getErrorDevices, (), (override));
    MOCK_METHOD(std::vector<std::string>, getErrorWWPNs, (), (override));
    MOCK_METHOD(std::string, getVersion, (), (override));
    MOCK_METHOD(int32_t, performDynamicReconfiguration, (), (override));
};

class MockWalkTheBus : public WalkTheBus {
public:
    MockWalkTheBus() : WalkTheBus(nullptr) {}
    MOCK_METHOD(int32_t, walkTheBus, (), (override));
};

class MockPlannerDriver : public PPlannerDriver {
public:
    MOCK_METHOD(std::unique_ptr<MultipathDriver>, getMultipathDriver, (), (override));
    MOCK_METHOD(std::unique_ptr<WalkTheBus>, getWalkTheBusVehicle, (), (override));
};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A private directory holding the activity log and the trace of one test; the
// request globals start empty, as they do in a fresh process.
class ExecPathPlannerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RC_OK, useBuiltCatalog());
        char dirTemplate[] = "/tmp/pp-exec-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dirTemplate));
        dir_ = dirTemplate;
        log_ = std::make_unique<LogManager>(dir_ + "/multipath.log");
        activityLog = log_.get();
        multipathSetting = 0;
        multipathDevices.clear();
        multipathWwpns.clear();
        agentStopRequested = 0;
        startTrace("MAX");
    }
    void TearDown() override {
        endTrace();
        activityLog = nullptr;
        log_.reset();
        agentStopRequested = 0;
        std::string cleanup = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(0, system(cleanup.c_str()));
    }
    void startTrace(const char* flags) {
        endTrace();
        unlink((dir_ + "/multipath.trace").c_str());  // each case reads only its own lines
        naTraceMin = naTraceMid = naTraceMax = 0;     // a process starts its trace once
        ASSERT_EQ(RC_OK, initTrace(dir_ + "/multipath.trace", flags, 1024));
    }
    std::string traceText() const { return readFile(dir_ + "/multipath.trace"); }
    std::string logText() const { return readFile(dir_ + "/multipath.log"); }

    std::string dir_;
    std::unique_ptr<LogManager> log_;
};

struct AcceptedRequest {
    std::vector<std::string> tokens;
    int32_t setting;
    std::vector<std::string> devices;
    std::vector<std::string> wwpns;
    const char* actionTrace;
};

TEST_F(ExecPathPlannerTest, ValidateArgsStoresAcceptedRequests) {
    const AcceptedRequest cases[] = {
        {{"5"}, 5, {}, {}, "Multipath Walk-The-Bus Action\n"},
        {{"5", "x", "y"}, 5, {}, {}, "Multipath Walk-The-Bus Action\n"},
        {{"2", "dev1"}, 2, {"dev1"}, {}, "Multipath Policy Change Action\n"},
        {{"3", "dev1", "dev2"}, 3, {"dev1", "dev2"}, {}, "Multipath Policy Change Action\n"},
        {{"4", "mpatha"}, 4, {"mpatha"}, {}, "Multipath Policy Change Action\n"},
        {{"0", "dev1", "w1", "w2"}, 0, {"dev1"}, {"w1", "w2"}, "Multipath State Change Action\n"},
        {{"1", "dev1", "w1"}, 1, {"dev1"}, {"w1"}, "Multipath State Change Action\n"},
        // Read like "%d": leading blanks skipped, trailing text ignored.
        {{"  3", "dev1"}, 3, {"dev1"}, {}, "Multipath Policy Change Action\n"},
        {{"3abc", "dev1"}, 3, {"dev1"}, {}, "Multipath Policy Change Action\n"},
        {{"+2", "dev1"}, 2, {"dev1"}, {}, "Multipath Policy Change Action\n"},
    };
    for (const AcceptedRequest& c : cases) {
        const std::string input = ::testing::PrintToString(c.tokens);
        multipathDevices.clear();
        multipathWwpns.clear();
        startTrace("MAX");
        EXPECT_EQ(RC_OK, validateArgs(c.tokens)) << input;
        EXPECT_EQ(c.setting, multipathSetting) << input;
        EXPECT_THAT(multipathDevices, ElementsAreArray(c.devices)) << input;
        EXPECT_THAT(multipathWwpns, ElementsAreArray(c.wwpns)) << input;
        const std::string trace = traceText();
        EXPECT_THAT(trace, HasSubstr(c.actionTrace)) << input;
        EXPECT_THAT(trace, HasSubstr("Exit: validateArgs() rc: 0\n")) << input;
    }
}

// The request as the command line delivers it: cut at ";", quotes removed per token.
TEST_F(ExecPathPlannerTest, ValidateArgsReadsRequestValuesAsDelivered) {
    const struct {
        const char* value;
        int32_t rc;
        std::vector<std::string> devices;
        std::vector<std::string> wwpns;
    } cases[] = {
        {"\"3\";\"dev1\"", RC_OK, {"dev1"}, {}},
        {"\"2;dev1;\"dev 2\"", RC_OK, {"dev1", "dev 2"}, {}},
        {"4\";dev1", RC_OK, {"dev1"}, {}},
        // A trailing ";" leaves an empty last token, kept as a name.
        {"3;", RC_OK, {""}, {}},
        {"0;dev1;", RC_OK, {"dev1"}, {""}},
        {"0;dev1;w1;", RC_OK, {"dev1"}, {"w1", ""}},
        {"\"abc\";dev1", RC_BAD_ARGS, {}, {}},
        {"", RC_BAD_ARGS, {}, {}},
        {";3;dev1", RC_BAD_ARGS, {}, {}},
    };
    for (const auto& c : cases) {
        multipathDevices.clear();
        multipathWwpns.clear();
        CmdArgs args(0, nullptr, kParseModePathPlanner);
        ASSERT_EQ(RC_OK, splitMultipathValue(c.value, &args)) << c.value;
        EXPECT_EQ(c.rc, validateArgs(args.multipathOptions)) << c.value;
        EXPECT_THAT(multipathDevices, ElementsAreArray(c.devices)) << c.value;
        EXPECT_THAT(multipathWwpns, ElementsAreArray(c.wwpns)) << c.value;
    }
}

struct RejectedRequest {
    std::vector<std::string> tokens;
    int32_t rc;
    std::vector<const char*> traces;  // in this order
    const char* message;              // key in the activity log, or null
};

TEST_F(ExecPathPlannerTest, ValidateArgsRejectsBadRequests) {
    const RejectedRequest cases[] = {
        {{}, RC_MISSING_VALUE, {"No multipath arguments to work with.\n"}, "AGT0272E"},
        {{"abc", "dev1"}, RC_BAD_ARGS, {" 'abc' is not a valid multipath option.\n"}, "AGT0398E"},
        {{""}, RC_BAD_ARGS, {" '<NULL>' is not a valid multipath option.\n"}, "AGT0398E"},
        {{"7", "dev1"}, RC_UNKNOWN_SETTING, {"Unknown multipathSetting: 7\n"}, nullptr},
        {{"-1"}, RC_UNKNOWN_SETTING, {"Unknown multipathSetting: -1\n"}, nullptr},
        {{"99999999999", "dev1"}, RC_UNKNOWN_SETTING, {"Unknown multipathSetting: 2147483647\n"}, nullptr},
        {{"0", "dev1"},
         RC_MISSING_VALUE,
         {"Multipath arguments are incomplete, lundev or its paths are missing.\n", "Multipath State Change Action\n"},
         nullptr},
        {{"1"},
         RC_MISSING_VALUE,
         {"Multipath arguments are incomplete, lundev or its paths are missing.\n", "Multipath State Change Action\n"},
         nullptr},
        {{"2"},
         RC_MISSING_VALUE,
         {"Multipath arguments are incomplete, lundevs are missing.\n", "Multipath Policy Change Action\n"},
         nullptr},
    };
    for (const RejectedRequest& c : cases) {
        const std::string input = ::testing::PrintToString(c.tokens);
        multipathDevices.clear();
        multipathWwpns.clear();
        startTrace("MAX");
        const size_t logBefore = logText().size();
        EXPECT_EQ(c.rc, validateArgs(c.tokens)) << input;
        EXPECT_TRUE(multipathDevices.empty() && multipathWwpns.empty()) << input;
        const std::string trace = traceText();
        size_t pos = 0;
        for (const char* line : c.traces) {
            size_t found = trace.find(line, pos);
            EXPECT_NE(std::string::npos, found) << input << " lacks, in order: " << line;
            pos = found == std::string::npos ? pos : found;
        }
        EXPECT_THAT(trace, HasSubstr("Exit: validateArgs() rc: " + std::to_string(c.rc) + "\n")) << input;
        const std::string logged = logText().substr(logBefore);
        if (c.message) {
            EXPECT_THAT(logged, HasSubstr(c.message)) << input;
        } else {
            EXPECT_EQ("", logged) << input;
        }
    }
}

TEST(PolicyNameTest, NamesTheThreePoliciesAndNothingElse) {
    EXPECT_STREQ("Load Balancing", policyName(2));
    EXPECT_STREQ("Round Robin", policyName(3));
    EXPECT_STREQ("Failover", policyName(4));
    for (int32_t other : {-1, 0, 1, 5, 6}) EXPECT_STREQ("Unknown", policyName(other)) << other;
}

TEST_F(ExecPathPlannerTest, PolicyAndStateWithoutDriverReturnNoDriver) {
    using Action = int32_t (*)(PPlannerDriver*);
    const struct {
        Action action;
        const char* name;
    } actions[] = {{setMultipathPolicy, "setMultipathPolicy()"}, {setMultipathState, "setMultipathState()"}};
    multipathDevices = {"dev1"};
    multipathWwpns = {"w1"};
    for (const auto& a : actions) {
        startTrace("MAX");
        const size_t logBefore = logText().size();
        MockPlannerDriver planner;
        EXPECT_CALL(planner, getMultipathDriver()).WillOnce(Return(ByMove(std::unique_ptr<MultipathDriver>())));
        EXPECT_EQ(RC_NO_MULTIPATH_DRIVER, a.action(&planner)) << a.name;
        EXPECT_THAT(logText().substr(logBefore), HasSubstr("AGT0456E")) << a.name;
        EXPECT_THAT(traceText(), HasSubstr(std::string("Exit: ") + a.name + ", rc = 169\n"));
    }
}

TEST_F(ExecPathPlannerTest, PolicyPassesRequestAndReturnsDriverResult) {
    for (int32_t driverRc : {RC_OK, RC_SETTING_NOT_SUPPORTED, RC_DRIVER_CMD_FAILED}) {
        multipathSetting = 3;
        multipathDevices = {"mpatha", "mpathb"};
        auto driver = std::make_unique<MockMultipathDriver>();
        EXPECT_CALL(*driver, setPolicy(3, ElementsAre("mpatha", "mpathb"))).WillOnce(Return(driverRc));
        EXPECT_CALL(*driver, setState(_, _, _)).Times(0);
        MockPlannerDriver planner;
        EXPECT_CALL(planner, getMultipathDriver()).WillOnce(Return(ByMove(std::move(driver))));
        EXPECT_EQ(driverRc, setMultipathPolicy(&planner));
    }
}

TEST_F(ExecPathPlannerTest, StatePassesFirstDeviceAndWwpnsAndReturnsDriverResult) {
    for (int32_t driverRc : {RC_OK, RC_ZPL_DEVICE_NOT_FOUND, RC_DRIVER_CMD_FAILED}) {
        multipathSetting = 0;
        multipathDevices = {"lun7"};
        multipathWwpns = {"500507680140a1b2", "500507680140a1b3"};
        auto driver = std::make_unique<MockMultipathDriver>();
        EXPECT_CALL(*driver, setState(0, "lun7", ElementsAre("500507680140a1b2", "500507680140a1b3")))
            .WillOnce(Return(driverRc));
        EXPECT_CALL(*driver, setPolicy(_, _)).Times(0);
        MockPlannerDriver planner;
        EXPECT_CALL(planner, getMultipathDriver()).WillOnce(Return(ByMove(std::move(driver))));
        EXPECT_EQ(driverRc, setMultipathState(&planner));
    }
}

// The "Calling" lines belong to the detail class and need something to list.
TEST_F(ExecPathPlannerTest, CallingTraceNeedsDetailClassAndEntries) {
    const char kPolicyLine[] = "Calling: setPolicy with multipathSetting = 2 for devices \"dev1 dev2\"\n";
    const char kStateLine[] =
        "Calling: setState with multipathSetting = 1 for device \"dev1\" for wwpns = \"w1 w2\"\n";
    const struct {
        const char* flags;
        std::vector<std::string> wwpns;
        bool traced;
    } cases[] = {
        {"MID", {"w1", "w2"}, true},
        {"MAX", {"w1", "w2"}, true},
        {"MIN", {"w1", "w2"}, false},
        {"MID", {}, false},
    };
    for (const auto& c : cases) {
        startTrace(c.flags);
        MockPlannerDriver planner;
        EXPECT_CALL(planner, getMultipathDriver()).Times(2).WillRepeatedly([] {
            auto driver = std::make_unique<NiceMock<MockMultipathDriver>>();
            ON_CALL(*driver, setPolicy(_, _)).WillByDefault(Return(RC_OK));
            ON_CALL(*driver, setState(_, _, _)).WillByDefault(Return(RC_OK));
            return std::unique_ptr<MultipathDriver>(std::move(driver));
        });
        multipathDevices = {"dev1", "dev2"};
        multipathWwpns = c.wwpns;
        multipathSetting = 2;
        setMultipathPolicy(&planner);
        multipathSetting = 1;
        setMultipathState(&planner);
        const std::string trace = traceText();
        const bool policyTraced = trace.find(kPolicyLine) != std::string::npos;
        const bool stateTraced = trace.find(kStateLine) != std::string::npos;
        EXPECT_EQ(c.flags != std::string("MIN"), policyTraced) << c.flags;
        EXPECT_EQ(c.traced, stateTraced) << c.flags << " wwpns " << c.wwpns.size();
    }
}

TEST_F(ExecPathPlannerTest, CallingTraceWithoutDevicesIsSkipped) {
    startTrace("MID");
    auto driver = std::make_unique<MockMultipathDriver>();
    EXPECT_CALL(*driver, setPolicy(4, ElementsAre())).WillOnce(Return(RC_OK));
    MockPlannerDriver planner;
    EXPECT_CALL(planner, getMultipathDriver()).WillOnce(Return(ByMove(std::move(driver))));
    multipathSetting = 4;
    EXPECT_EQ(RC_OK, setMultipathPolicy(&planner));
    EXPECT_THAT(traceText(), Not(HasSubstr("Calling:")));
}

TEST_F(ExecPathPlannerTest, WalkTheBusReturnsVehicleResult) {
    for (int32_t vehicleRc : {RC_OK, RC_CANCELLED, 42}) {
        auto vehicle = std::make_unique<MockWalkTheBus>();
        EXPECT_CALL(*vehicle, walkTheBus()).WillOnce(Return(vehicleRc));
        MockPlannerDriver planner;
        EXPECT_CALL(planner, getWalkTheBusVehicle()).WillOnce(Return(ByMove(std::move(vehicle))));
        EXPECT_EQ(vehicleRc, walkTheBus(&planner));
    }
    EXPECT_THAT(logText(), Not(HasSubstr("AGT0445I")));
}

TEST_F(ExecPathPlannerTest, WalkTheBusAfterStopRequestIsCancelledWithoutRescan) {
    agentStopRequested = 1;
    auto vehicle = std::make_unique<MockWalkTheBus>();
    EXPECT_CALL(*vehicle, walkTheBus()).Times(0);
    MockPlannerDriver planner;
    EXPECT_CALL(planner, getWalkTheBusVehicle()).WillOnce(Return(ByMove(std::move(vehicle))));
    EXPECT_EQ(RC_CANCELLED, walkTheBus(&planner));
    EXPECT_THAT(logText(), HasSubstr("AGT0445I"));
    const std::string trace = traceText();
    EXPECT_THAT(trace, HasSubstr("PathPlanner cancelled due to Agent stop signal\n"));
    EXPECT_THAT(trace, HasSubstr("Exit: walkTheBus(), rc = 8\n"));
}

}  // namespace
