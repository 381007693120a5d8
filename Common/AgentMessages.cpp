#include "Common/AgentMessages.h"

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "BKVlib/common/nls/amsglog.h"
#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/FailureNote.h"
#include "Common/LogManager.h"

LogManager* activityLog = nullptr;

namespace {

const char* const kComponent = "HKA";
// Two inserts of a whole scratch buffer each, with room for the text around them.
constexpr uint16_t kMessageBuffer = 16384;

// The catalogue's texts start with an identifier of the same length as the
// agent's key; the agent's key is what the user sees. Keys ending in "T" keep
// the catalogue's identifier.
void stampIdentifier(std::string* text, const char* msgId) {
    size_t idLength = msgId ? strlen(msgId) : 0;
    if (text->empty() || idLength == 0 || msgId[idLength - 1] == 'T') return;
    text->replace(0, std::min(idLength, text->size()), msgId, idLength);
}

std::string makeMessage(int32_t msgNum, const char* msgId, va_list args) {
    std::string text;
    if (msgNum < 0 || msgNum > 0xFFFF) return text;
    std::unique_ptr<char[]> buffer(new char[kMessageBuffer]);
    NlMsgDesc desc;
    desc.number = static_cast<uint16_t>(msgNum);
    uint16_t length = nlLogPrintf(&desc, buffer.get(), kMessageBuffer, args);
    text.assign(buffer.get(), length);
    stampIdentifier(&text, msgId);
    return text;
}

// An error written to the log is what a person at a terminal is told when the run fails.
void noteIfError(const char* msgId, const std::string& text) {
    size_t idLength = msgId ? strlen(msgId) : 0;
    if (idLength > 0 && msgId[idLength - 1] == 'E') noteFailure(text);
}

bool isDefaultLocale(const std::string& name) {
    return name.empty() || name == "C" || name == "POSIX";
}

int32_t toLog(LogManager* log, const std::string& text) {
    if (!log || text.empty()) return RC_OK;
    return log->LogActivityLog(text.c_str());
}

void toStdout(const std::string& text) {
    // stdio rather than iostream: merely linking the streams in costs every run
    // their set-up, a large share of a short run's start-up.
    fwrite(text.data(), 1, text.size(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

}  // namespace

int32_t logMsg(LogManager* log, int32_t msgNum, const char* msgId, ...) {
    va_list args;
    va_start(args, msgId);
    std::string text = makeMessage(msgNum, msgId, args);
    va_end(args);
    noteIfError(msgId, text);
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
    noteIfError(msgId, text);
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

int32_t initMessages(const std::string& msgDir, const std::string&, const std::string& catalogName,
                     const std::string& language) {
    NA_TRACE_ENTER("initMessages()");
    NlsSettings settings;  // the agent's fixed set-up values
    settings.component = kComponent;
    nlSetLanguage(language.c_str());  // empty: the process locale decides
    std::string used;
    int32_t rc = nlsInit(catalogName.c_str(), msgDir.c_str(), catalogName.c_str(), settings, &used);
    if (rc == RC_OK) {
        NA_TRACE_MID("Messages in language %s from %s\n", NA_STR(nlCurrentLanguage()), NA_STR(msgDir));
        if (!nlsObject()->pendingText.empty()) NA_TRACE_MIN("%s", nlsObject()->pendingText.c_str());
    } else {
        NA_TRACE_MIN("Message repository not started, rc %d: %s\n", rc, NA_STR(nlsObject()->pendingText));
        nlsTerminate();
        rc = RC_MESSAGES_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "initMessages()", rc);
    return rc;
}

std::string catalogLanguage(const char* localeName, const char* lcAll, const char* lcMessages, const char* lang) {
    std::string name = localeName ? localeName : "";
    // A locale the host has not generated leaves "C"; the catalogue still follows
    // what the environment asks for, in the C library's order of precedence.
    if (isDefaultLocale(name)) {
        name.clear();
        for (const char* value : {lcAll, lcMessages, lang}) {
            if (name.empty() && value) name = value;
        }
    }
    name = name.substr(0, name.find_first_of(".@"));
    return isDefaultLocale(name) ? std::string() : name;
}

std::string messageLanguageFromEnvironment() {
    NA_TRACE_ENTER("messageLanguageFromEnvironment()");
    const char* lcAll = getenv("LC_ALL");
    const char* lcMessages = getenv("LC_MESSAGES");
    const char* lang = getenv("LANG");
    // "C", "POSIX" and their code-set forms such as "C.UTF-8" all read the English
    // catalogue. Leaving the locale as it is then spares every start the locale
    // files, the alias table and a search for a "C.UTF-8" catalogue that never exists.
    std::string language = catalogLanguage(nullptr, lcAll, lcMessages, lang);
    if (!language.empty()) {
        // Only the message category: dates, numbers and character classes keep the "C"
        // rules that the logs' formats and the parsers of tool output rely on.
        language = catalogLanguage(setlocale(LC_MESSAGES, ""), lcAll, lcMessages, lang);
    }
    NA_TRACE_EXIT("Exit: %s, language = %s\n", "messageLanguageFromEnvironment()", NA_STR(language));
    return language;
}

void endMessages() {
    nlsTerminate();
}

int32_t messageStatus() {
    return nlsStatus();
}

int32_t cuMsgOut(const char* text, int32_t length, bool toStderr, const std::string& fileName) {
    NA_TRACE_ENTER("cuMsgOut()");
    int32_t rc = RC_OK;
    if (fileName.empty()) {
        fputs(text, toStderr ? stderr : stdout);
    } else if (FILE* fp = fopen(fileName.c_str(), "abe")) {
        size_t wanted = length > 0 ? static_cast<size_t>(length) : 0;
        bool good = fwrite(text, 1, wanted, fp) == wanted && fflush(fp) == 0;
        rc = good ? RC_OK : RC_WRITE_FAILED;
        fclose(fp);
    } else {
        rc = RC_FILE_OPEN_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "cuMsgOut()", rc);
    return rc;
}

std::string cuNextWord(const std::string& line, int32_t* pos) {
    static const char* const kBlanks = " \t\n\r\f\v";
    std::string word;
    size_t from = *pos < 0 ? line.size() : static_cast<size_t>(*pos);
    size_t start = line.find_first_not_of(kBlanks, from);
    if (start != std::string::npos) {
        size_t end = line.find_first_of(kBlanks, start);
        if (end == std::string::npos) end = line.size();
        *pos = static_cast<int32_t>(end);
        // The length is the end index, not the word's length: later words run on
        // past their end. Callers rely on it as it is.
        word = line.substr(start, end);
    }
    NA_TRACE_MAX("cuNextWord: %s\n", NA_STR(word));
    return word;
}

size_t StringHelper::string_to_wchar_t(const std::string& src, wchar_t* buf, size_t bufSize) {
    size_t needed = mbstowcs(nullptr, src.c_str(), 0);
    bool readable = needed != static_cast<size_t>(-1);
    if (!readable) needed = src.size();
    if (needed > bufSize) {
        char text[256];
        snprintf(text, sizeof(text),
                 "StringHelper::string_to_wchar_t() : ERROR: The given string requires a buffer size of %ld "
                 "bytes, but the provided buffer only has %ld bytes reserved.",
                 static_cast<long>(needed), static_cast<long>(bufSize));
        throw std::string(text);
    }
    memset(buf, 0, bufSize);
    size_t converted = 0;
    if (readable) {
        converted = mbstowcs(buf, src.c_str(), needed);
    } else {
        // Bytes the locale cannot read are widened one for one.
        for (; converted < needed; ++converted) buf[converted] = static_cast<unsigned char>(src[converted]);
    }
    buf[converted] = L'\0';
    return converted;
}
