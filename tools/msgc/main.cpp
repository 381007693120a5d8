// msgc: compiles message sources into one gencat source.
//   msgc -o OUT.msg SOURCE...   later sources translate messages of earlier ones
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "tools/msgc/MsgCompiler.h"

namespace {

bool readFile(const std::string& name, std::string* content) {
    std::ifstream in(name, std::ios::binary);
    if (!in) return false;
    std::ostringstream buf;
    buf << in.rdbuf();
    *content = buf.str();
    return true;
}

int compileAll(int argc, char** argv, std::string* out, std::string* error) {
    std::map<uint16_t, msgc::SourceMessage> catalogue;
    for (int i = 3; i < argc; ++i) {
        std::string content;
        std::vector<msgc::SourceMessage> messages;
        if (!readFile(argv[i], &content)) {
            *error = std::string(argv[i]) + ": cannot be read";
            return 1;
        }
        if (!msgc::parseSource(content, argv[i], &messages, error) ||
            !msgc::mergeSource(messages, argv[i], &catalogue, error)) {
            return 1;
        }
    }
    return msgc::gencatSource(catalogue, out, error) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || std::string(argv[1]) != "-o") {
        fprintf(stderr, "usage: msgc -o OUT.msg SOURCE...\n");
        return 2;
    }
    std::string out;
    std::string error;
    int rc = compileAll(argc, argv, &out, &error);
    if (rc == 0) {
        std::ofstream file(argv[2], std::ios::binary | std::ios::trunc);
        file << out;
        rc = file.good() ? 0 : 1;
        if (rc != 0) error = std::string(argv[2]) + ": cannot be written";
    }
    if (rc != 0) fprintf(stderr, "msgc: %s\n", error.c_str());
    return rc;
}
