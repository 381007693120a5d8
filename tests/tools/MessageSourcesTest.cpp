// Every catalogue number the code issues must have a message in the sources, under
// the key the code uses; the German set must cover the run-flow messages.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/msgc/MsgCompiler.h"

namespace {

namespace fs = std::filesystem;
const fs::path kRoot = PP_SOURCE_DIR;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::map<uint16_t, std::string> loadSource(const std::string& relative) {
    std::vector<msgc::SourceMessage> messages;
    std::string error;
    EXPECT_TRUE(msgc::parseSource(readFile(kRoot / relative), relative, &messages, &error)) << error;
    std::map<uint16_t, std::string> ids;
    for (const auto& m : messages) ids[m.number] = m.id;
    return ids;
}

// Numbers passed to nlIssue, literally or through a constant of the same file.
std::set<int> issuedLibraryNumbers() {
    std::set<int> numbers;
    const std::regex call(R"(nlIssue\(\s*(\w+))");
    for (const char* dir : {"BKVlib", "Common", "Multipath", "PathPlanner"}) {
        if (!fs::exists(kRoot / dir)) continue;
        for (const auto& entry : fs::recursive_directory_iterator(kRoot / dir)) {
            std::string ext = entry.path().extension().string();
            if (ext != ".cpp" && ext != ".h") continue;
            std::string code = readFile(entry.path());
            for (std::sregex_iterator it(code.begin(), code.end(), call), end; it != end; ++it) {
                std::string arg = (*it)[1];
                std::smatch value;
                std::regex constant(arg + R"(\s*=\s*(\d+)\s*;)");
                if (std::isdigit(static_cast<unsigned char>(arg[0]))) {
                    numbers.insert(std::stoi(arg));
                } else if (std::regex_search(code, value, constant)) {
                    numbers.insert(std::stoi(value[1]));
                } else if (arg != "uint16_t") {
                    ADD_FAILURE() << entry.path() << ": cannot resolve nlIssue(" << arg;
                }
            }
        }
    }
    return numbers;
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

TEST(MessageSourcesTest, IssuedLibraryNumbersExist) {
    auto library = loadSource("messages/en_US/kfwclientV3.txt");
    std::set<int> numbers = issuedLibraryNumbers();
    EXPECT_TRUE(numbers.count(263)) << "the scan missed the internal-failure report";
    for (int number : numbers) EXPECT_TRUE(library.count(static_cast<uint16_t>(number))) << number;
    for (int number : {224, 225, 226, 232, 233, 234, 236, 238, 239, 241, 250, 263, 264, 265, 267, 283}) {
        EXPECT_TRUE(library.count(static_cast<uint16_t>(number))) << number;
    }
}

TEST(MessageSourcesTest, GermanCoversRunFlowMessages) {
    auto german = loadSource("messages/de_DE/qlxna.txt");
    for (uint16_t number : {1772, 1804, 1805, 2370, 2371}) EXPECT_TRUE(german.count(number)) << number;
}

}  // namespace
