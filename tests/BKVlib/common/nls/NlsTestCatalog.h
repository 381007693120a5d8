// Builds real message catalogues for tests: message source text through the
// message compiler and gencat into <temp dir>/<language>/<catalogue>.
#ifndef TESTS_BKVLIB_COMMON_NLS_NLSTESTCATALOG_H
#define TESTS_BKVLIB_COMMON_NLS_NLSTESTCATALOG_H

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestFiles.h"
#include "tools/msgc/MsgCompiler.h"

class NlsTestCatalog {
public:
    const std::string& dir() const { return root_.path(); }
    std::string path(const std::string& lang, const std::string& name) const { return dir() + "/" + lang + "/" + name; }

    // Compiles message source text into lang/name; returns the complaint, empty on success.
    std::string add(const std::string& lang, const std::string& name, const std::string& source) {
        std::vector<msgc::SourceMessage> messages;
        std::map<uint16_t, msgc::SourceMessage> catalogue;
        std::string gencat, error;
        if (!msgc::parseSource(source, name, &messages, &error) ||
            !msgc::mergeSource(messages, name, &catalogue, &error) || !msgc::gencatSource(catalogue, &gencat, &error)) {
            return error;
        }
        return runGencat(lang, name, gencat);
    }

    // Stores entries exactly as given (number, stored text), for damaged entries.
    std::string addRaw(const std::string& lang, const std::string& name,
                       const std::vector<std::pair<uint16_t, std::string>>& entries) {
        std::string gencat = "$set 1\n";
        for (const auto& entry : entries) gencat += msgc::gencatLine(entry.first, entry.second);
        return runGencat(lang, name, gencat);
    }

private:
    std::string runGencat(const std::string& lang, const std::string& name, const std::string& gencat) {
        const std::string msgFile = path(lang, name + ".msg");
        std::filesystem::create_directories(dir() + "/" + lang);
        testfiles::writeFile(msgFile, gencat);
        std::string cmd = "LC_ALL=C.UTF-8 gencat '" + path(lang, name) + "' '" + msgFile + "' 2>&1";
        return system(cmd.c_str()) == 0 ? std::string() : "gencat failed for " + msgFile;
    }

    testfiles::TempDir root_;
};

#endif
