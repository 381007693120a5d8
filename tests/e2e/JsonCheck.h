// Reads a program's JSON output with python3 (json, jsonschema).
#ifndef TESTS_E2E_JSONCHECK_H
#define TESTS_E2E_JSONCHECK_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/TestFiles.h"

// Runs "python3 <args> <file holding text>"; returns what it printed, with *ok set to
// whether it exited with 0.
inline std::string pythonOn(const std::string& text, const std::string& args, bool* ok) {
    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("out.json"), text);
    FILE* pipe = popen(("python3 " + args + " " + dir.file("out.json") + " 2>&1").c_str(), "r");
    std::string said;
    char buf[512];
    while (pipe && fgets(buf, sizeof(buf), pipe)) said += buf;
    *ok = pipe && pclose(pipe) == 0;
    return said;
}

// Empty when text conforms to schema/<schemaName>, else the validator's complaint.
inline std::string schemaProblem(const std::string& text, const std::string& schemaName = "topology-v2.schema.json") {
    const std::string root = std::string(PP_TESTS_ROOT) + "/..";
    bool ok = false;
    const std::string said = pythonOn(text, root + "/tests/support/validate-json.py " + root + "/schema/" + schemaName, &ok);
    return ok ? "" : "schema check failed: " + said;
}

// Number of elements of the JSON array in text, or -1 when python's parser rejects it.
inline int jsonArrayLength(const std::string& text) {
    bool ok = false;
    const std::string said = pythonOn(text, "-c 'import json,sys; print(len(json.load(open(sys.argv[1]))))'", &ok);
    return ok ? atoi(said.c_str()) : -1;
}

#endif
