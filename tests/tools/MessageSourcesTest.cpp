// The message compiler, and the agent's message sources it compiles: every key the
// code uses has a message under its number, in English and German.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/TestFiles.h"
#include "tools/msgc/MsgCompiler.h"

namespace {

namespace fs = std::filesystem;
using testfiles::readFile;
const fs::path kRoot = PP_SOURCE_DIR;

std::map<uint16_t, std::string> loadSource(const std::string& relative) {
    std::vector<msgc::SourceMessage> messages;
    std::string error;
    EXPECT_TRUE(msgc::parseSource(readFile(kRoot / relative), relative, &messages, &error)) << error;
    std::map<uint16_t, std::string> ids;
    for (const auto& m : messages) ids[m.number] = m.id;
    return ids;
}

TEST(MessageSourcesTest, AgentKeysExistUnderTheirNumbers) {
    auto english = loadSource("messages/en_US/qlxna.txt");
    auto german = loadSource("messages/de_DE/qlxna.txt");
    std::string ids = readFile(kRoot / "Common/AgentMessageIds.h");
    const std::regex define(R"(#define\s+(\w+)\s+(\d+),\s*\"(\w+)\")");
    int count = 0;
    for (std::sregex_iterator it(ids.begin(), ids.end(), define), end; it != end; ++it, ++count) {
        uint16_t number = static_cast<uint16_t>(std::stoi((*it)[2]));
        EXPECT_EQ((*it)[1], (*it)[3]);
        EXPECT_EQ((*it)[3], english[number]) << number;
        EXPECT_EQ((*it)[3], german[number]) << number;
    }
    EXPECT_GE(count, 16);
}

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
