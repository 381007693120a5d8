#include "tools/msgc/MsgCompiler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(MsgCompilerTest, ParsesSourceWithCommentsEscapesAndContinuations) {
    const std::string source =
        "# comment\n\n12 AGT0001I first\\tline\\n\r\n13   AGT0002E  joined \\\ntext with \\\\ backslash\n";
    std::vector<msgc::SourceMessage> messages;
    std::string error;
    ASSERT_TRUE(msgc::parseSource(source, "s.txt", &messages, &error)) << error;
    ASSERT_EQ(2u, messages.size());
    EXPECT_EQ(12, messages[0].number);
    EXPECT_EQ("first\tline\n", messages[0].text);
    EXPECT_EQ("AGT0002E", messages[1].id);
    EXPECT_EQ("joined text with \\ backslash", messages[1].text);
    EXPECT_EQ(4, messages[1].line);
}

TEST(MsgCompilerTest, RejectsBadSourceLinesAndInsertSets) {
    for (const char* line : {"x AGT0001I text\n", "70000 AGT0001I text\n", "1 AGT001I text\n", "1 AGT0001I bad \\q\n",
                             "1 AGT0001I ctrl \x10\n"}) {
        std::vector<msgc::SourceMessage> messages;
        std::string error;
        EXPECT_FALSE(msgc::parseSource(line, "s.txt", &messages, &error)) << line;
        EXPECT_EQ(0u, error.find("s.txt:1: ")) << error;
    }
    for (const char* text : {"%1$s %s", "%2$s", "%1$*d", "%n", "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d"}) {
        std::string body, error;
        EXPECT_FALSE(msgc::compileText(text, true, &body, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST(MsgCompilerTest, GencatLineEscapesControlBytes) {
    EXPECT_EQ("9 A\\001b\\\\c\\nd\\022\n", msgc::gencatLine(9, std::string("A\x01" "b\\c\nd\x12")));
}

}  // namespace
