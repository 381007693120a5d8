#include "BKVlib/common/ut/GlobalRC.h"

#include <gtest/gtest.h>

#include <string>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "tests/BKVlib/common/nls/NlsTestCatalog.h"

namespace {

class GlobalRCTest : public ::testing::Test {
protected:
    void SetUp() override {
        nlsTerminate();
        ASSERT_EQ("", catalog_.add("en_US", "rc.cat",
                                   "1 KRN0001I info\n2 KRN0002W warn\n3 KRN0003E error\n4 KRN0004K kept\n"
                                   "5 KRN0005S severe\n6 KRN0006T trace\n201 KRN0201E fixed\n"));
        std::string used;
        ASSERT_EQ(0, nlsInit("rc.cat", catalog_.dir().c_str(), "rc.cat", NlsSettings(), &used));
        rc_->clearAllRC();
    }
    void TearDown() override {
        GlobalrC::setMsg250Override(false, 0);
        nlsTerminate();
    }
    NlsTestCatalog catalog_;
    GlobalrC* rc_ = GlobalrC::instance();
};

TEST_F(GlobalRCTest, MessageNumbersMapToReturnCodes) {
    const struct { int32_t msgNum, rc; } cases[] = {
        {1, 0},   {2, 8},   {3, 12},  {4, 12},  {5, 12},   {6, 0},    {201, 4}, {223, 4},
                 {230, 4}, {251, 4}, {262, 4}, {266, 4}, {263, 12}, {250, 12}, {9999, 0}, {-1, 0}};
    for (const auto& c : cases) EXPECT_EQ(c.rc, GlobalrC::msgRC(c.msgNum)) << c.msgNum;
    const struct { bool enabled; int32_t value, rc; } overrides[] = {
        {true, 6, 6}, {true, 0, 8}, {true, -3, 8}, {false, 6, 12}};
    for (const auto& o : overrides) {
        GlobalrC::setMsg250Override(o.enabled, o.value);
        EXPECT_EQ(o.rc, GlobalrC::msgRC(250)) << o.enabled << " " << o.value;
    }
}

TEST_F(GlobalRCTest, RunningMaximaAndClears) {
    EXPECT_EQ(0, rc_->set(1));  // information never changes rc
    EXPECT_EQ(1, rc_->set(3));
    EXPECT_EQ(0, rc_->set(2));  // a lower value never lowers rc
    EXPECT_EQ(12, rc_->get());
    rc_->clearRC();
    EXPECT_EQ(1, rc_->set(2));
    EXPECT_EQ(8, rc_->get());
    EXPECT_EQ(12, rc_->getMacroMax());
    rc_->clearMacroRC();
    EXPECT_EQ(12, rc_->get() + rc_->getMacroMax() + rc_->getMax());
    EXPECT_EQ(1, rc_->clearAllRC());
    EXPECT_EQ(0, rc_->getMax());
}

}  // namespace
