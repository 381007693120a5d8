#include "BKVlib/common/nls/amsgfmt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace {

TEST(NlConversionTest, ParsesTypesAndStars) {
    const struct { const char* text; size_t length; uint8_t stars, type; bool wide; } cases[] = {
        {"%-08.3i|", 7, 0, NL_ARG_INT, false}, {"%lld", 4, 0, NL_ARG_LONG, false}, {"%*.*s", 5, 2, NL_ARG_PTR, false},
        {"%ls", 3, 0, NL_ARG_PTR, true},       {"%lc", 3, 0, NL_ARG_UINT, true},  {"%*e", 3, 1, NL_ARG_DOUBLE, false},
        {"%2302.2302u", 11, 0, NL_ARG_UINT, false},  // the largest field an insert can show
    };
    for (const auto& c : cases) {
        NlConversion conv;
        ASSERT_TRUE(nlParseConversion(c.text, strlen(c.text), &conv)) << c.text;
        EXPECT_EQ(c.length, conv.length) << c.text;
        EXPECT_EQ(c.stars, conv.stars) << c.text;
        EXPECT_EQ(c.type, conv.type) << c.text;
        EXPECT_EQ(c.wide, conv.wide) << c.text;
    }
    // Fields wider than an insert can show are a damaged entry, however many digits they have.
    for (const char* text : {"%", "%n", "%%", "%Lf", "%hs", "%lp", "%1$s", "%k", "d", "%5", "%.1552602435u", "%2303d",
                             "%.2303s", "%99999999999999999999999d"}) {
        NlConversion conv;
        EXPECT_FALSE(nlParseConversion(text, strlen(text), &conv)) << text;
    }
}

TEST(NlDecodeTest, StandinsInHeaderFollowMask) {
    const std::pair<std::string, std::string> cases[] = {  // stored, decoded: one mask bit each way
        {std::string("\x10\x04\x10\x10\x10", 5), std::string("\0\x04\0\x10\0", 5)},
        {std::string("\x10\x02\x10\x10\x10", 5), std::string("\0\x02\x10\0\0", 5)},
    };
    for (auto c : cases) {
        nlDecodeStandins(&c.first);
        EXPECT_EQ(c.second, c.first);
    }
}

// A fast-path entry goes to vsnprintf whole: more conversions than a message has
// inserts would read arguments nobody passed.
TEST(NlDecodeTest, FastPathTakesAtMostFifteenConversions) {
    std::string fifteen = "\x01";
    for (int i = 0; i < 15; ++i) fifteen += "%.*d ";
    NlCompiled msg;
    EXPECT_TRUE(nlParseCompiled(fifteen.c_str(), fifteen.size(), &msg));
    std::string sixteen = fifteen + "%d";
    EXPECT_FALSE(nlParseCompiled(sixteen.c_str(), sixteen.size(), &msg));
    std::string escaped = fifteen + "100%%";
    EXPECT_TRUE(nlParseCompiled(escaped.c_str(), escaped.size(), &msg));
}

}  // namespace
