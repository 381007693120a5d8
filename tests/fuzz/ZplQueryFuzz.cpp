// libFuzzer target for the vendor driver's readers of lunctl and package-query text:
// the bytes are cut into the answers of "lunctl query device", "lunctl query wwpn",
// the package query and the "set" commands, and the driver runs a policy change and
// a path state change against them through a fake command runner.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Multipath/linux/MultipathZPLLinux.h"
#include "tests/fuzz/FuzzTrace.h"

namespace {

class FuzzedZPL : public MultipathZPLLinux {
public:
    explicit FuzzedZPL(FuzzedDataProvider* input) : input_(input) {
        deviceAnswer_ = input->ConsumeRandomLengthString(4096);
        wwpnAnswer_ = input->ConsumeRandomLengthString(1024);
        packageAnswer_ = input->ConsumeRandomLengthString(256);
    }

protected:
    // Queries answer with their text; every other command with a chosen exit code
    // ("could not run" among them) and a short text.
    CommandResult runWords(const std::vector<std::string>& words) override {
        CommandResult result;
        result.created = true;
        result.rc = RC_OK;
        for (const std::string& word : words) result.cmdLine += word + " ";
        if (words.size() == 3 && words[2] == "device") {
            result.out = deviceAnswer_;
        } else if (words.size() == 3 && words[2] == "wwpn") {
            result.out = wwpnAnswer_;
        } else if (!words.empty() && words[0] == "rpm") {
            result.out = packageAnswer_;
        } else {
            const int32_t codes[] = {RC_OK, 1, RC_NOT_RUN};
            result.rc = input_->PickValueInArray(codes);
            result.out = input_->ConsumeRandomLengthString(64);
        }
        return result;
    }

private:
    FuzzedDataProvider* input_;
    std::string deviceAnswer_;
    std::string wwpnAnswer_;
    std::string packageAnswer_;
};

std::vector<std::string> consumeWords(FuzzedDataProvider* input, size_t most) {
    std::vector<std::string> words(input->ConsumeIntegralInRange<size_t>(0, most));
    for (std::string& word : words) word = input->ConsumeRandomLengthString(40);
    return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    FuzzedZPL driver(&input);
    std::string version = driver.getVersion();
    if (version.find('\n') != std::string::npos) __builtin_trap();
    int32_t setting = input.ConsumeIntegralInRange<int32_t>(0, 4);
    std::string device = input.ConsumeRandomLengthString(40);
    std::vector<std::string> others = consumeWords(&input, 4);
    if (setting <= 1) {
        driver.setState(setting, device, others);
    } else {
        driver.setPolicy(setting, others);
    }
    return 0;
}
