// Every catalogue number the code issues must have a message in the sources, under
// the key the code uses, in English and German.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
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

// Adds the number each match of pattern captures in its first group.
void addMatches(const std::string& text, const std::regex& pattern, std::set<int>* numbers) {
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) {
        numbers->insert(std::stoi((*it)[1]));
    }
}

// The body of the function named name defined in code, empty when there is none.
std::string functionBody(const std::string& code, const std::string& name) {
    std::smatch def;
    if (!std::regex_search(code, def, std::regex(R"(\b)" + name + R"(\s*\([^;{)]*\)\s*\{)"))) return "";
    size_t from = static_cast<size_t>(def.position(0) + def.length(0));
    size_t to = code.find("\n}", from);
    return code.substr(from, to == std::string::npos ? std::string::npos : to - from);
}

// The message numbers an argument of nlIssue (or of a wrapper around it) can take:
// a literal, a constant or variable set from literals, a value returned by a helper
// that sets it from literals, or the matching argument of every call of a wrapper.
bool resolveArg(const std::string& code, const std::string& arg, int depth, std::set<int>* numbers) {
    if (std::isdigit(static_cast<unsigned char>(arg[0]))) {
        numbers->insert(std::stoi(arg));
        return true;
    }
    std::set<int> found;
    const std::regex assignment(R"(\b)" + arg + R"(\s*=\s*([^;=][^;]*);)");
    for (std::sregex_iterator it(code.begin(), code.end(), assignment), end; it != end; ++it) {
        std::string rhs = (*it)[1];
        addMatches(rhs, std::regex(R"(\b(\d{3,4})\b)"), &found);
        std::smatch call;
        if (std::regex_search(rhs, call, std::regex(R"(^\s*(\w+)\s*\()"))) {
            addMatches(functionBody(code, call[1]), std::regex(R"(=\s*(\d{3,4})\s*;)"), &found);
        }
    }
    numbers->insert(found.begin(), found.end());
    if (!found.empty()) return true;
    std::smatch wrapper;
    std::regex parameterOf(R"((\w+)\s*\([^;{)]*\b)" + arg + R"(\b[^;{)]*\)\s*\{)");
    if (depth > 0 && std::regex_search(code, wrapper, parameterOf) && wrapper[1] != "nlIssue" && wrapper[1] != "nlNote") {
        bool all = true;
        const std::regex calls(R"(\b)" + wrapper[1].str() + R"(\(\s*(\w+))");
        for (std::sregex_iterator it(code.begin(), code.end(), calls), end; it != end; ++it) {
            if ((*it)[1] == "uint16_t" || (*it)[1] == "int32_t") continue;  // the definition
            all = resolveArg(code, (*it)[1], depth - 1, numbers) && all;
        }
        return all;
    }
    return false;
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
    std::set<int> numbers;
    // The library's lower modules issue through nlNote, the trace through its notice sink.
    const std::regex call(R"(\b(?:nlIssue|nlNote|trNotify)\(\s*(\w+))");
    for (const char* dir : {"BKVlib", "Common", "Multipath", "PathPlanner"}) {
        for (const auto& entry : fs::recursive_directory_iterator(kRoot / dir)) {
            if (entry.path().extension() != ".cpp") continue;
            std::string code = readFile(entry.path());
            for (std::sregex_iterator it(code.begin(), code.end(), call), end; it != end; ++it) {
                if ((*it)[1] == "uint16_t") continue;  // the definition
                EXPECT_TRUE(resolveArg(code, (*it)[1], 2, &numbers)) << entry.path() << ": nlIssue(" << (*it)[1];
            }
        }
    }
    EXPECT_TRUE(numbers.count(263)) << "the scan missed the internal-failure report";
    EXPECT_TRUE(numbers.count(267)) << "the scan missed a report through a wrapper";
    for (int number : numbers) EXPECT_TRUE(library.count(static_cast<uint16_t>(number))) << number;
}

}  // namespace
