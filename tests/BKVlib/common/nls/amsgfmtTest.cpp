#include "BKVlib/common/nls/amsgfmt.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

#include "tools/msgc/MsgCompiler.h"

namespace {

TEST(NlConversionTest, ParsesTypesAndStars) {
    const struct {
        const char* text;
        size_t length;
        uint8_t stars;
        uint8_t type;
        bool wide;
    } cases[] = {
        {"%d", 2, 0, NL_ARG_INT, false},      {"%-08.3i|", 7, 0, NL_ARG_INT, false},
        {"%hhd", 4, 0, NL_ARG_INT, false},    {"%u", 2, 0, NL_ARG_UINT, false},
        {"%#x", 3, 0, NL_ARG_UINT, false},    {"%lu", 3, 0, NL_ARG_LONG, false},
        {"%lld", 4, 0, NL_ARG_LONG, false},   {"%zu", 3, 0, NL_ARG_LONG, false},
        {"%*.*s", 5, 2, NL_ARG_PTR, false},   {"%ls", 3, 0, NL_ARG_PTR, true},
        {"%lc", 3, 0, NL_ARG_UINT, true},     {"%p", 2, 0, NL_ARG_PTR, false},
        {"%.2f", 4, 0, NL_ARG_DOUBLE, false}, {"%*e", 3, 1, NL_ARG_DOUBLE, false},
        {"%c", 2, 0, NL_ARG_INT, false},
    };
    for (const auto& c : cases) {
        NlConversion conv;
        ASSERT_TRUE(nlParseConversion(c.text, strlen(c.text), &conv)) << c.text;
        EXPECT_EQ(c.length, conv.length) << c.text;
        EXPECT_EQ(c.stars, conv.stars) << c.text;
        EXPECT_EQ(c.type, conv.type) << c.text;
        EXPECT_EQ(c.wide, conv.wide) << c.text;
    }
    const char* rejected[] = {"%", "%n", "%%", "%Lf", "%hs", "%lp", "%1$s", "%k", "d", "%5"};
    for (const char* text : rejected) {
        NlConversion conv;
        EXPECT_FALSE(nlParseConversion(text, strlen(text), &conv)) << text;
    }
}

// Compiles text in ordered form, decodes it as the repository does and expands it.
std::string expand(const char* source, bool wideOut, ...) {
    std::string body, error;
    if (!msgc::compileText(source, false, &body, &error)) return "compile: " + error;
    NlCompiled msg;
    if (!nlParseCompiled(body.data(), body.size(), &msg)) return "parse failed";
    va_list args;
    va_start(args, wideOut);
    std::string out;
    if (wideOut) {
        nlsWcharBuffer buffer;
        nlOrderInsert(msg, &buffer, args);
        nlsCharBuffer narrow;
        narrow.append(buffer.text().data(), buffer.text().size());
        out = narrow.text();
    } else {
        nlsCharBuffer buffer;
        nlOrderInsert(msg, &buffer, args);
        out = buffer.text();
    }
    va_end(args);
    return out;
}

TEST(NlOrderInsertTest, NarrowAndWideExpandInTranslationOrder) {
    EXPECT_EQ("b=2 a=one", expand("b=%2$d a=%1$s", false, "one", 2));
    EXPECT_EQ("b=2 a=one", expand("b=%2$d a=%1$s", true, "one", 2));
    EXPECT_EQ("[  x][1.50][-3]", expand("[%*s][%.2f][%ld]", false, 3, "x", 1.5, -3L));
    EXPECT_EQ("[  x][1.50][-3]", expand("[%*s][%.2f][%ld]", true, 3, "x", 1.5, -3L));
    EXPECT_EQ("wide: abc!", expand("wide: %ls%lc", true, L"abc", static_cast<wint_t>(L'!')));
    EXPECT_EQ("100% 7", expand("100%% %d", false, 7));
    EXPECT_EQ("no inserts", expand("no inserts", false));
}

std::string runFast(const NlCompiled& msg, ...) {
    va_list args;
    va_start(args, msg);
    nlsCharBuffer buffer;
    nlOrderInsert(msg, &buffer, args);
    va_end(args);
    return buffer.text();
}

TEST(NlOrderInsertTest, FastPathAppliesFormatDirectly) {
    std::string body, error;
    ASSERT_TRUE(msgc::compileText("%s has %d", true, &body, &error));
    ASSERT_EQ(NL_KIND_FASTPATH, body[0]);
    NlCompiled msg;
    ASSERT_TRUE(nlParseCompiled(body.data(), body.size(), &msg));
    EXPECT_EQ("disk has 3", runFast(msg, "disk", 3));
}

TEST(NlDecodeTest, StandinsInHeaderFollowMask) {
    const struct {
        std::string stored;
        std::string decoded;
    } cases[] = {
        {std::string("\x10\x06\x10\x10\x10\x10", 6), std::string("\0\x06\0\0\0\0", 6)},
        {std::string("\x10\0\x10\x10\x10\x10", 6), std::string("\0\0\x10\x10\0\0", 6)},
        {std::string("\x10\x04\x10\x10\x10", 5), std::string("\0\x04\0\x10\0", 5)},
        {std::string("\x01\x10", 2), std::string("\x01\x10", 2)},
    };
    for (const auto& c : cases) {
        std::string body = c.stored;
        nlDecodeStandins(&body);
        EXPECT_EQ(c.decoded, body);
    }
}

}  // namespace
