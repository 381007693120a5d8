// libFuzzer target for the agent command line in the path planner's parse mode and
// for the multipath request it carries: the bytes are cut at zero bytes into the
// arguments, parsed, and a parsed request is validated.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/CmdArgs.h"
#include "Multipath/MultipathDriver.h"
#include "PathPlanner/ExecPathPlanner.h"
#include "tests/fuzz/FuzzTrace.h"

namespace {

// Arguments as the kernel hands them over: no zero byte inside one.
std::vector<std::string> splitArguments(const uint8_t* data, size_t size) {
    std::vector<std::string> words = {"PathPlanner"};
    std::string word;
    for (size_t i = 0; i < size && words.size() < 64; ++i) {
        if (data[i] != 0) {
            word += static_cast<char>(data[i]);
            continue;
        }
        words.push_back(word);
        word.clear();
    }
    if (!word.empty()) words.push_back(word);
    return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> words = splitArguments(data, size);
    std::vector<const char*> argv;
    for (const std::string& word : words) argv.push_back(word.c_str());
    argv.push_back(nullptr);
    CmdArgs args(static_cast<int32_t>(words.size()), argv.data(), kParseModePathPlanner);
    int32_t rc = args.parse();
    if (rc == RC_OK && args.commandCode == kCommandMultipath) {
        MultipathRequest request;
        rc = validateArgs(args.multipathOptions, &request);
        if (rc == RC_OK && request.devices.empty() && request.setting != kSettingWalkTheBus) __builtin_trap();
    }
    return 0;
}
