// The activity log's language follows the environment whether or not the host has
// generated the named locale (the order of LC_ALL, LC_MESSAGES and LANG is
// MessageLanguageTest's); its dates keep their one format.
#include <regex>

#include "gmock/gmock.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::HasSubstr;

namespace {

class MessageLocaleE2eTest : public E2eTest {};

TEST_F(MessageLocaleE2eTest, LogLanguageFollowsTheEnvironment) {
    const char* const kGerman = "AGT0430I PathPlanner wurde mit dem Rückgabecode 5 beendet.";
    const char* const kEnglish = "AGT0430I PathPlanner finished with return code 5.";
    const struct {
        std::vector<std::pair<std::string, std::string>> env;
        bool german;
    } cases[] = {
        {{}, false},
        {{{"LANG", "de_DE.UTF-8"}}, true},
        {{{"LANG", "fr_FR.UTF-8"}}, false},  // no French catalogue: English
    };
    for (const auto& c : cases) {
        const std::string input = ::testing::PrintToString(c.env);
        NamespaceHarness host;
        for (const auto& [name, value] : c.env) host.setEnv(name, value);
        RunResult r = host.run({"-multipath", "9"});
        EXPECT_EQ(5, r.exitStatus) << input << ": " << r.describe();
        const std::string log = host.readAgentFile("log/multipath.log");
        EXPECT_THAT(log, HasSubstr(c.german ? kGerman : kEnglish)) << input << log;
        // Only the messages change: every line still starts with the same date and time.
        const std::regex stamped(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)");
        for (const std::string& line : testfiles::splitLines(log)) {
            EXPECT_TRUE(std::regex_search(line, stamped)) << input << ": " << line;
        }
    }
}

}  // namespace
