// Checks a program's JSON output against the repository's schema with python3-jsonschema.
#ifndef TESTS_E2E_JSONCHECK_H
#define TESTS_E2E_JSONCHECK_H

#include <cstdio>
#include <string>

#include "tests/support/TestFiles.h"

// Empty when text conforms to schema/<schemaName>, else the validator's complaint.
inline std::string schemaProblem(const std::string& text, const std::string& schemaName = "topology-v2.schema.json") {
    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("out.json"), text);
    const std::string root = std::string(PP_TESTS_ROOT) + "/..";
    const std::string command = "python3 " + root + "/tests/support/validate-json.py " + root + "/schema/" +
                                schemaName + " " + dir.file("out.json") + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string said;
    char buf[512];
    while (pipe && fgets(buf, sizeof(buf), pipe)) said += buf;
    int status = pipe ? pclose(pipe) : -1;
    return status == 0 ? "" : "schema check failed (" + std::to_string(status) + "): " + said;
}

#endif
