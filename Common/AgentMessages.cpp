// Minimal message making from a built-in English table; the catalogue-backed
// repository takes over behind these same calls.
#include "Common/AgentMessages.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/LogManager.h"

LogManager* activityLog = nullptr;

namespace {

struct BuiltinMessage {
    int32_t number;
    const char* text;
};

const BuiltinMessage kMessages[] = {
    {649, "STA0356E The command %s could not be run."},
    {858, "STA0523E The command %s failed."},
    {1668, "AGT0272E The value of option %s is missing (rc %s)."},
    {1751, "AGT0398E '%s' is not a valid multipath option."},
    {1772, "AGT0412E The command line was rejected at argument %s."},
    {1804, "AGT0429I %s started: %s"},
    {1805, "AGT0430I %s ended with return code %d."},
    {1821, "AGT0445I The request was cancelled by an agent stop signal."},
    {2364, "AGT0452E No multipath device %s was found."},
    {2365, "AGT0453E The multipath driver failed on device %s."},
    {2366, "AGT0454I This multipath driver cannot set that policy."},
    {2368, "AGT0456E No multipath driver was found on this host."},
    {2370, "AGT0458I Setting policy %s on devices %s."},
    {2371, "AGT0459I Rescanning the SCSI and Fibre Channel buses."},
    {2374, "AGT0463I The device-mapper multipath driver is installed but not loaded."},
    {2375, "AGT0464I The file multipath.conf does not exist."},
};

std::string makeMessage(int32_t msgNum, const char* msgId, va_list args) {
    for (const BuiltinMessage& m : kMessages) {
        if (m.number != msgNum) continue;
        char buf[16384];
        vsnprintf(buf, sizeof(buf), m.text, args);
        std::string text = buf;
        size_t idLen = msgId ? strlen(msgId) : 0;
        if (idLen > 0 && msgId[idLen - 1] != 'T' && text.size() >= idLen) text.replace(0, idLen, msgId);
        return text;
    }
    return std::string();
}

int32_t toLog(LogManager* log, const std::string& text) {
    if (!log || text.empty()) return RC_OK;
    return log->LogActivityLog(text.c_str());
}

void toStdout(const std::string& text) {
    std::cout << text << std::endl;
}

}  // namespace

int32_t logMsg(LogManager* log, int32_t msgNum, const char* msgId, ...) {
    va_list args;
    va_start(args, msgId);
    std::string text = makeMessage(msgNum, msgId, args);
    va_end(args);
    return toLog(log, text);
}

int32_t msgOut(LogManager*, int32_t msgNum, const char* msgId, ...) {
    va_list args;
    va_start(args, msgId);
    std::string text = makeMessage(msgNum, msgId, args);
    va_end(args);
    if (!text.empty()) toStdout(text);
    return RC_OK;
}

int32_t logAndShowMsg(LogManager* log, int32_t msgNum, const char* msgId, ...) {
    va_list args;
    va_start(args, msgId);
    std::string text = makeMessage(msgNum, msgId, args);
    va_end(args);
    int32_t rc = toLog(log, text);
    toStdout(text);
    return rc;
}

std::string getMsg(int32_t msgNum, const char* msgId, ...) {
    va_list args;
    va_start(args, msgId);
    std::string text = makeMessage(msgNum, msgId, args);
    va_end(args);
    return text;
}

int32_t initMessages(const std::string&, const std::string&, const std::string&, const std::string&) {
    return RC_OK;
}

void endMessages() {}

int32_t cuMsgOut(const char* text, int32_t length, bool toStderr, const std::string& fileName) {
    if (fileName.empty()) {
        fputs(text, toStderr ? stderr : stdout);
        return RC_OK;
    }
    FILE* fp = fopen(fileName.c_str(), "abe");
    if (!fp) return RC_FILE_OPEN_FAILED;
    size_t written = fwrite(text, 1, static_cast<size_t>(length), fp);
    int32_t rc = written == static_cast<size_t>(length) ? RC_OK : RC_WRITE_FAILED;
    fclose(fp);
    return rc;
}

std::string cuNextWord(const std::string& line, int32_t* pos) {
    size_t start = line.find_first_not_of(" \t\n\r\f\v", static_cast<size_t>(*pos));
    if (start == std::string::npos) return std::string();
    size_t end = line.find_first_of(" \t\n\r\f\v", start);
    if (end == std::string::npos) end = line.size();
    *pos = static_cast<int32_t>(end);
    return line.substr(start, end);
}

size_t StringHelper::string_to_wchar_t(const std::string& src, wchar_t* buf, size_t bufSize) {
    size_t needed = mbstowcs(nullptr, src.c_str(), 0);
    if (needed == static_cast<size_t>(-1)) needed = src.size();
    if (needed > bufSize) {
        char text[256];
        snprintf(text, sizeof(text),
                 "StringHelper::string_to_wchar_t() : ERROR: The given string requires a buffer size of %ld "
                 "bytes, but the provided buffer only has %ld bytes reserved.",
                 static_cast<long>(needed), static_cast<long>(bufSize));
        throw std::string(text);
    }
    memset(buf, 0, bufSize);
    size_t converted = mbstowcs(buf, src.c_str(), needed);
    buf[converted] = L'\0';
    return converted;
}
