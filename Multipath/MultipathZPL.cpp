#include "Multipath/MultipathZPL.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/CmdExecer.h"

namespace {

const char kLunctl[] = "lunctl";
const char kQuery[] = "query";
const char kWwpn[] = "wwpn";
const char kSet[] = "set";
const char kDevice[] = "device";
const char kPath[] = "path";
const char kRoundRobin[] = "rr";
const char kLoadBalancing[] = "lb";
const char kFailover[] = "fo";
const char kOffline[] = "offline";
const char kOnline[] = "online";
const char kDeviceHeader[] = "DEV#";
const char kOldDeviceHeader[] = "Dev#";
const char kInvalidArgument[] = "Invalid argument";
const char kNoDeviceFile[] = "No device file found";

// The device number sits after the header and one separator, in a six-character field.
constexpr size_t kDevIdOffset = 5;
constexpr size_t kDevIdWidth = 6;

const char* yesNo(bool value) { return value ? "TRUE" : "FALSE"; }

const char* const kNameLabels[] = {"NAME:", "SERIAL:"};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The blank-separated token that ends just before position at (after any blanks).
std::string tokenBefore(const std::string& text, size_t at) {
    size_t end = at;
    while (end > 0 && isBlank(text[end - 1])) --end;
    size_t start = end;
    while (start > 0 && !isBlank(text[start - 1])) --start;
    return text.substr(start, end - start);
}

bool isNameLabel(const std::string& token) {
    std::string upper;
    for (char c : token) upper += static_cast<char>(toupper(static_cast<unsigned char>(c)));
    for (const char* label : kNameLabels) {
        if (upper == label) return true;
    }
    return false;
}

// Where name stands as a whole token that starts at or after from and ends before
// end, and that nextOk accepts as the token's next character; npos when nowhere.
template <typename NextOk>
size_t findToken(const std::string& text, const std::string& name, size_t from, size_t end, NextOk nextOk) {
    size_t at = name.empty() ? std::string::npos : text.find(name, from);
    for (; at != std::string::npos && at + name.size() <= end; at = text.find(name, at + 1)) {
        size_t next = at + name.size();
        bool startsToken = at == 0 || isBlank(text[at - 1]);
        if (startsToken && (next == text.size() || nextOk(text[next]))) return at;
    }
    return std::string::npos;
}

// A device counts only as the value of a name or serial label ("DEVICE NAME:",
// "Serial:"), whole: "lundev1" is not a part of "lundev12", and a column value
// such as "OPEN", "2145" or a disk "sdk" never picks a device.
size_t findDeviceName(const std::string& text, const std::string& name) {
    size_t at = findToken(text, name, 0, text.size(), isBlank);
    while (at != std::string::npos && !isNameLabel(tokenBefore(text, at))) {
        at = findToken(text, name, at + 1, text.size(), isBlank);
    }
    return at;
}

// The end of the device block that holds position at: the next device header.
size_t blockEnd(const std::string& text, size_t at) {
    size_t next = std::min(text.find(kDeviceHeader, at), text.find(kOldDeviceHeader, at));
    return next == std::string::npos ? text.size() : next;
}

// Start of the line that holds position at (just behind its line feed).
size_t lineStart(const std::string& text, size_t at) {
    size_t feed = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
    return feed == std::string::npos ? 0 : feed + 1;
}

zplText::IdLookup readId(const std::string& text) {
    zplText::IdLookup result;
    result.text = text;
    result.outcome = zplText::readInt(text, &result.id) ? zplText::Lookup::kFound : zplText::Lookup::kNotANumber;
    if (result.outcome != zplText::Lookup::kFound) result.id = -1;
    return result;
}

int32_t clampToInt32(int64_t value) {
    if (value > INT32_MAX) value = INT32_MAX;
    if (value < INT32_MIN) value = INT32_MIN;
    return static_cast<int32_t>(value);
}

// lunctl's numbers are read the way a "%d" scan reads them (white space, sign,
// digits), without the scan's undefined overflow.
bool scanInt(const char* start, const char** end, int32_t* value) {
    char* stop = nullptr;
    long long number = strtoll(start, &stop, 10);
    *end = stop;
    bool ok = stop != start;
    if (ok) *value = clampToInt32(number);
    return ok;
}

// A "%d.%d.%d.%d" scan: stops at the first component that is not there.
void readDotted(const std::string& text, int32_t* parts) {
    const char* at = text.c_str();
    bool ok = scanInt(at, &at, &parts[0]);
    for (int i = 1; i < 4 && ok; ++i) {
        ok = *at == '.' && scanInt(at + 1, &at, &parts[i]);
    }
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

const char* policyWord(int32_t setting) {
    if (setting == kSettingLoadBalancing) return kLoadBalancing;
    if (setting == kSettingRoundRobin) return kRoundRobin;
    return kFailover;  // every other setting, deliberately
}

}  // namespace

namespace zplText {

bool readInt(const std::string& text, int32_t* value) {
    const char* end = nullptr;
    return scanInt(text.c_str(), &end, value);
}

IdLookup findDevId(const std::string& deviceQuery, const std::string& device) {
    IdLookup result;
    size_t at = findDeviceName(deviceQuery, device);
    if (at != std::string::npos) {
        // Newer lunctl releases print "DEV#", older ones "Dev#".
        size_t header = deviceQuery.rfind(kDeviceHeader, at);
        if (header == std::string::npos) header = deviceQuery.rfind(kOldDeviceHeader, at);
        result.outcome = Lookup::kNoAnchor;
        if (header != std::string::npos) {
            size_t field = header + kDevIdOffset;
            result = readId(field < deviceQuery.size() ? deviceQuery.substr(field, kDevIdWidth) : std::string());
        }
    }
    return result;
}

IdLookup findPathId(const std::string& deviceQuery, const std::string& serial, const std::string& adapter) {
    IdLookup result;
    size_t at = findDeviceName(deviceQuery, serial);
    if (at != std::string::npos) {
        // Only the device's own paths count, and the adapter as a whole name at the
        // start of the path's column ("host2/sdb" for "host2", never "host20/sdx").
        auto endsAdapter = [](char c) { return c == '/' || isBlank(c); };
        size_t adapterAt = findToken(deviceQuery, adapter, at, blockEnd(deviceQuery, at), endsAdapter);
        result.outcome = Lookup::kNoAnchor;
        if (adapterAt != std::string::npos) {
            // A path line begins with the path number, before its adapter name.
            size_t start = lineStart(deviceQuery, adapterAt);
            result = readId(deviceQuery.substr(start, adapterAt - start));
        }
    }
    return result;
}

bool findAdapterName(const std::string& wwpnQuery, const std::string& wwpn, std::string* adapter) {
    size_t at = wwpnQuery.find(wwpn);
    bool found = at != std::string::npos;
    if (found) {
        size_t start = lineStart(wwpnQuery, at);
        *adapter = wwpnQuery.substr(start, at - start);
        size_t colon = adapter->find(':');
        if (colon != std::string::npos) adapter->resize(colon);
    }
    return found;
}

int32_t compareVersions(const std::string& first, const std::string& second) {
    int32_t a[4] = {0, 0, 0, 0};
    int32_t b[4] = {0, 0, 0, 0};
    readDotted(first, a);
    readDotted(second, b);
    int64_t diff = 0;
    for (int i = 0; i < 4 && diff == 0; ++i) diff = static_cast<int64_t>(a[i]) - b[i];
    return clampToInt32(diff);
}

}  // namespace zplText

CommandResult MultipathZPL::runWords(const std::vector<std::string>& words) {
    return runCommandWords(words);
}

const std::string& MultipathZPL::errorText(const CommandResult& result) {
    return result.err.empty() ? result.out : result.err;
}

std::string MultipathZPL::getLunctlCommand() {
    NA_TRACE_ENTER("getLunctlCommand()");
    std::string command = kLunctl;
    NA_TRACE_EXIT("Exit: %s, lunctlCmd = %s\n", "getLunctlCommand()", NA_STR(command));
    return command;
}

int32_t MultipathZPL::getReserved(int32_t setting, int32_t devId) {
    NA_TRACE_ENTER("getReserved()");
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "getReserved()", RC_OK);
    return RC_OK;
}

std::string MultipathZPL::getFile() {
    NA_TRACE_ENTER("getFile()");
    NA_TRACE_EXIT("Exit: %s\n", "getFile()");
    return std::string();
}

std::string MultipathZPL::formatWWPN(const std::string& wwpn) {
    NA_TRACE_ENTER("formatWWPN()");
    NA_TRACE_EXIT("Exit: %s, formattedWWPN = %s\n", "formatWWPN()", NA_STR(wwpn));
    return wwpn;
}

bool MultipathZPL::canFormatWWPN(const std::string& wwpn) {
    NA_TRACE_ENTER("canFormatWWPN()");
    NA_TRACE_EXIT("Exit: %s, WWPN = %s\n", "canFormatWWPN()", NA_STR(wwpn));
    return true;
}

std::vector<std::string> MultipathZPL::getVersionCommand() {
    NA_TRACE_ENTER("getVersionCommand()");
    NA_TRACE_EXIT("Exit: %s\n", "getVersionCommand()");
    return std::vector<std::string>();
}

int32_t MultipathZPL::isMPIOInstalled() {
    NA_TRACE_ENTER("isMPIOInstalled()");
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "isMPIOInstalled()", 0);
    return 0;
}

std::string MultipathZPL::readMPIOVersion() {
    NA_TRACE_ENTER("readMPIOVersion()");
    NA_TRACE_EXIT("Exit: %s\n", "readMPIOVersion()");
    return std::string();
}

int32_t MultipathZPL::findMPIO() {
    NA_TRACE_ENTER("findMPIO()");
    int32_t installed = isMPIOInstalled();
    NA_TRACE_EXIT("Exit: %s, MPIO_Available: %s\n", "findMPIO()", installed == 1 ? "true" : "false");
    return installed;
}

std::string MultipathZPL::getMPIOVersion() {
    NA_TRACE_ENTER("getMPIOVersion()");
    if (mpioVersion_.empty()) mpioVersion_ = readMPIOVersion();
    NA_TRACE_EXIT("Exit: %s, MPIO version: %s\n", "getMPIOVersion()", NA_STR(mpioVersion_));
    return mpioVersion_;
}

bool MultipathZPL::isCmdInvalid(const std::string& text) {
    NA_TRACE_ENTER("isCmdInvalid()");
    bool invalid = text.find(kInvalidArgument) != std::string::npos || text.find(kNoDeviceFile) != std::string::npos;
    NA_TRACE_EXIT("Exit: %s result: %s\n", "isCmdInvalid()", yesNo(invalid));
    return invalid;
}

std::vector<std::string> MultipathZPL::getErrorDevices() {
    NA_TRACE_ENTER("getErrorDevices()");
    NA_TRACE_EXIT("Exit: %s\n", "getErrorDevices()");
    return errorDevices_;
}

std::vector<std::string> MultipathZPL::getErrorWWPNs() {
    NA_TRACE_ENTER("getErrorWWPNs()");
    NA_TRACE_EXIT("Exit: %s\n", "getErrorWWPNs()");
    return errorWWPNs_;
}

std::string MultipathZPL::getVersion() {
    NA_TRACE_ENTER("getVersion()");
    std::vector<std::string> words;
    if (version_.empty()) words = getVersionCommand();
    if (!words.empty()) {
        CommandResult result = runWords(words);
        std::string line = firstLine(result.out);
        if (result.notRun()) {
            reportNotRun(result);
        } else if (line.find(kNoDeviceFile) != std::string::npos) {
            NA_TRACE_MIN("ZPL incorrect version.  ZPL must be at version 1.6.1 or higher");
        } else if (result.rc == RC_OK && !isCmdInvalid(line)) {
            version_ = line;
        } else {
            NA_TRACE_MIN("Error getting ZPL version: %s\n", NA_STR(errorText(result)));
        }
    }
    NA_TRACE_EXIT("Exit: %s, ZPL version: %s\n", "getVersion()", NA_STR(version_));
    return version_;
}

bool MultipathZPL::getDeviceOutput() {
    NA_TRACE_ENTER("getDeviceOutput()");
    CommandResult result = runWords({getLunctlCommand(), kQuery, kDevice});
    bool success = false;
    if (result.notRun()) {
        reportNotRun(result);
    } else if (result.rc == RC_OK && !isCmdInvalid(result.out)) {
        deviceQuery_ = result.out;
        success = true;
    } else {
        NA_TRACE_MIN("Failed to get 'lunctl query device': %s\n", NA_STR(errorText(result)));
    }
    NA_TRACE_EXIT("Exit: %s, success = %s", "getDeviceOutput()", yesNo(success));
    return success;
}

int32_t MultipathZPL::getDevId(const std::string& device) {
    NA_TRACE_ENTER("getDevId()");
    int32_t devId = -1;
    if (!deviceQuery_.empty() || getDeviceOutput()) {
        zplText::IdLookup found = zplText::findDevId(deviceQuery_, device);
        devId = found.id;
        if (found.outcome == zplText::Lookup::kNoName) NA_TRACE_MIN("No match for: %s\n", NA_STR(device));
        if (found.outcome == zplText::Lookup::kNoAnchor) NA_TRACE_MIN("No match for: %s\n", kDeviceHeader);
        if (found.outcome == zplText::Lookup::kNotANumber) {
            NA_TRACE_MIN("%s Could not convert '%s' to an integer\n", "getDevId()", NA_STR(found.text));
        }
    }
    NA_TRACE_EXIT("Exit: %s, devId = %d\n", "getDevId()", devId);
    return devId;
}

int32_t MultipathZPL::getPathId(const std::string& serial, const std::string& wwpn) {
    NA_TRACE(trFlags[TR_ENTER], "Enter: %s, S/N = %s, WWPN = %s\n", "getPathId()", NA_STR(serial), NA_STR(wwpn));
    std::string adapter = getAdapterName(wwpn);
    // A failed query leaves the cache empty, and nothing is found in it below.
    if (deviceQuery_.empty()) getDeviceOutput();
    zplText::IdLookup found = zplText::findPathId(deviceQuery_, serial, adapter);
    if (found.outcome == zplText::Lookup::kNoName) NA_TRACE_MIN("%s No match for %s\n", "getPathId()", NA_STR(serial));
    if (found.outcome == zplText::Lookup::kNoAnchor) {
        NA_TRACE_MIN("%s No match for %s\n", "getPathId()", NA_STR(adapter));
    }
    if (found.outcome == zplText::Lookup::kNotANumber) {
        NA_TRACE_MIN("%s Could not convert '%s' to an integer\n", "getPathId()", NA_STR(found.text));
    }
    NA_TRACE_EXIT("Exit: %s, pathId = %d\n", "getPathId()", found.id);
    return found.id;
}

std::string MultipathZPL::getAdapterName(const std::string& wwpn) {
    NA_TRACE(trFlags[TR_ENTER], "Enter: %s, WWPN: %s\n", "getAdapterName()", NA_STR(wwpn));
    if (wwpnQuery_.empty()) wwpnQuery_ = runWords({getLunctlCommand(), kQuery, kWwpn}).out;
    std::string adapter;
    if (isCmdInvalid(wwpnQuery_)) {
        NA_TRACE_MIN("%s Failed to get 'lunctl query wwpn'.\n", "getAdapterName()");
    } else if (!zplText::findAdapterName(wwpnQuery_, wwpn, &adapter)) {
        NA_TRACE_MIN("%s No match for %s\n", "getAdapterName()", NA_STR(wwpn));
    }
    NA_TRACE_EXIT("Exit: %s, adapterName = %s\n", "getAdapterName()", NA_STR(adapter));
    return adapter;
}

int32_t MultipathZPL::runPolicyChange(int32_t devId, const std::string& word) {
    CommandResult result =
        runWords({getLunctlCommand(), kSet, kDevice, std::to_string(devId), policyKeyword_, word});
    int32_t rc = RC_OK;
    if (result.notRun()) {
        reportNotRun(result);
        rc = RC_NOT_RUN;
    } else if (result.rc != RC_OK || isCmdInvalid(result.out)) {
        NA_TRACE_MIN("Error on device: %d: %s\n", devId, NA_STR(result.out));
        rc = RC_DRIVER_CMD_FAILED;
    }
    return rc;
}

int32_t MultipathZPL::setPolicy(int32_t setting, const std::vector<std::string>& devices) {
    NA_TRACE_ENTER("setPolicy()");
    const std::string word = policyWord(setting);
    int32_t rc = RC_OK;
    bool stopped = false;
    for (size_t i = 0; i < devices.size() && !stopped; ++i) {
        const std::string& device = devices[i];
        int32_t devId = getDevId(device);
        int32_t step = RC_ZPL_DEVICE_NOT_FOUND;
        if (devId == -1) {
            NA_TRACE_MIN("No ZPL Device for %s.\n", NA_STR(device));
            logMsg(activityLog, AGT0452E, NA_STR(device));
        } else {
            getReserved(setting, devId);
            step = runPolicyChange(devId, word);
            if (step == RC_DRIVER_CMD_FAILED) logMsg(activityLog, AGT0453E, NA_STR(device));
        }
        // Only a command that cannot run at all stops the loop; other failures are
        // collected and the next device is tried.
        stopped = step == RC_NOT_RUN;
        if (stopped) step = RC_DRIVER_CMD_FAILED;
        if (step != RC_OK) rc = step;
        if (step != RC_OK && !stopped) errorDevices_.push_back(device);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "setPolicy()", rc);
    return rc;
}

int32_t MultipathZPL::changePath(int32_t devId, const std::string& device, const std::string& wwpn,
                                 const std::string& stateWord) {
    // lunctl cannot be asked about a WWPN that has no form it prints; nothing is guessed.
    if (!canFormatWWPN(wwpn)) {
        NA_TRACE_MIN("WWPN %s cannot be put into lunctl's form.\n", NA_STR(wwpn));
        return RC_NOT_RUN;
    }
    int32_t pathId = getPathId(device, formatWWPN(wwpn));
    int32_t rc = RC_ZPL_DEVICE_NOT_FOUND;
    if (pathId == -1) {
        NA_TRACE_MIN("No ZPL Path for %s device & %s.\n", NA_STR(device), NA_STR(wwpn));
    } else {
        CommandResult result = runWords({getLunctlCommand(), kSet, kDevice, std::to_string(devId), kPath,
                                            std::to_string(pathId), stateWord});
        rc = RC_OK;
        if (result.notRun()) {
            reportNotRun(result);
            rc = RC_NOT_RUN;
        } else if (result.rc != RC_OK || isCmdInvalid(result.out)) {
            NA_TRACE_MIN("Error on device: %d, path: %d: %s\n", devId, pathId, NA_STR(result.out));
            rc = RC_DRIVER_CMD_FAILED;
        }
    }
    return rc;
}

int32_t MultipathZPL::setState(int32_t setting, const std::string& device, const std::vector<std::string>& wwpns) {
    NA_TRACE_ENTER("setState()");
    const std::string stateWord = setting == kSettingOffline ? kOffline : kOnline;
    int32_t rc = RC_OK;
    int32_t devId = getDevId(device);
    if (devId == -1) {
        NA_TRACE_MIN("No ZPL Device for %s.\n", NA_STR(device));
        logMsg(activityLog, AGT0452E, NA_STR(device));
        rc = RC_ZPL_DEVICE_NOT_FOUND;
    }
    bool stopped = devId == -1;
    for (size_t i = 0; i < wwpns.size() && !stopped; ++i) {
        int32_t step = changePath(devId, device, wwpns[i], stateWord);
        stopped = step == RC_NOT_RUN;
        if (stopped) step = RC_DRIVER_CMD_FAILED;
        if (step != RC_OK) rc = step;
        if (step != RC_OK && !stopped) errorWWPNs_.push_back(wwpns[i]);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "setState()", rc);
    return rc;
}
