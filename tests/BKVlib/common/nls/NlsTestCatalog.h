// Builds real message catalogues for tests: message source text through the
// message compiler and gencat into <temp dir>/<language>/<catalogue>.
#ifndef TESTS_BKVLIB_COMMON_NLS_NLSTESTCATALOG_H
#define TESTS_BKVLIB_COMMON_NLS_NLSTESTCATALOG_H

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/msgc/MsgCompiler.h"

class NlsTestCatalog {
public:
    NlsTestCatalog() {
        char pattern[] = "/tmp/nlstestXXXXXX";
        root_ = mkdtemp(pattern) ? pattern : "";
    }
    ~NlsTestCatalog() {
        if (!root_.empty()) (void)system(("rm -rf '" + root_ + "'").c_str());
    }
    NlsTestCatalog(const NlsTestCatalog&) = delete;
    NlsTestCatalog& operator=(const NlsTestCatalog&) = delete;

    const std::string& dir() const { return root_; }
    std::string path(const std::string& lang, const std::string& name) const { return root_ + "/" + lang + "/" + name; }

    // Compiles message source text into lang/name; returns the compiler's or
    // gencat's complaint, empty on success.
    std::string add(const std::string& lang, const std::string& name, const std::string& source) {
        std::vector<msgc::SourceMessage> messages;
        std::map<uint16_t, msgc::SourceMessage> catalogue;
        std::string gencat, error;
        if (!msgc::parseSource(source, name, &messages, &error) ||
            !msgc::mergeSource(messages, name, &catalogue, &error) ||
            !msgc::gencatSource(catalogue, &gencat, &error)) {
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

    // Writes bytes as lang/name, for files that are no catalogue at all.
    void addFile(const std::string& lang, const std::string& name, const std::string& bytes) {
        (void)system(("mkdir -p '" + root_ + "/" + lang + "'").c_str());
        std::ofstream(path(lang, name), std::ios::binary) << bytes;
    }

private:
    std::string runGencat(const std::string& lang, const std::string& name, const std::string& gencat) {
        std::string msgFile = root_ + "/" + lang + "_" + name + ".msg";
        addFile(".", lang + "_" + name + ".msg", gencat);
        (void)system(("mkdir -p '" + root_ + "/" + lang + "'").c_str());
        std::string cmd = "LC_ALL=C.UTF-8 gencat '" + path(lang, name) + "' '" + msgFile + "' 2>&1";
        return system(cmd.c_str()) == 0 ? std::string() : "gencat failed for " + msgFile;
    }

    std::string root_;
};

#endif
