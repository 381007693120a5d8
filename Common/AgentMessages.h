// The agent's numbered messages: made from the message catalogue with their inserts,
// stamped with the agent's own identifier, and sent to the activity log, standard
// output, or both. Also the message set-up and the small text helpers of messages.
#ifndef COMMON_AGENTMESSAGES_H
#define COMMON_AGENTMESSAGES_H

#include <cstddef>
#include <cstdint>
#include <string>

class LogManager;

// The process-wide activity log that every message call is given; null until main
// publishes it. Owned by main.
extern LogManager* activityLog;

// Inserts follow the catalogue message's own conversions: string inserts as
// const char* (pass them through NA_STR so they are guarded), numbers as int.
// Each returns as documented: logMsg and logAndShowMsg the LogActivityLog code
// (0 when nothing was written), msgOut 0. logMsg and logAndShowMsg note an error
// message (key ending in "E") for the run's failure line (Common/FailureNote.h).
int32_t logMsg(LogManager* log, int32_t msgNum, const char* msgId, ...);
int32_t msgOut(LogManager* log, int32_t msgNum, const char* msgId, ...);
int32_t logAndShowMsg(LogManager* log, int32_t msgNum, const char* msgId, ...);
// The finished text, empty when the message could not be made.
std::string getMsg(int32_t msgNum, const char* msgId, ...);

// Sets up the message repository for the agent component "HKA" from
// msgDir/<language>/catalogName, with msgDir/en_US/catalogName as the English
// fallback. An empty language follows the process locale; reserved is not used.
// Returns 0, or 1 after releasing what was set up.
int32_t initMessages(const std::string& msgDir, const std::string& reserved,
                     const std::string& catalogName, const std::string& language);
// The catalogue language the environment asks for ("de_DE" for LANG=de_DE.UTF-8), or
// empty for the default (English). localeName is what setlocale made of the message
// category; the three variables are read, first set first, only when it stayed "C"
// (the named locale is not installed). Codeset and modifier are dropped.
std::string catalogLanguage(const char* localeName, const char* lcAll, const char* lcMessages, const char* lang);
// Sets the locale's message category, and only that, from the environment and returns
// catalogLanguage for it.
std::string messageLanguageFromEnvironment();
// Releases the message repository.
void endMessages();
// The message repository's status: 1 started, 0 not.
int32_t messageStatus();

// Writes length bytes of text to fileName (appending), or text to stderr/stdout
// when fileName is empty: 0, RC_FILE_OPEN_FAILED or RC_WRITE_FAILED.
int32_t cuMsgOut(const char* text, int32_t length, bool toStderr, const std::string& fileName);
// The next blank-separated word from *pos; see the length rule in the source.
std::string cuNextWord(const std::string& line, int32_t* pos);

namespace StringHelper {
// Converts src into buf (bufSize wide characters); throws a std::string when too small.
size_t string_to_wchar_t(const std::string& src, wchar_t* buf, size_t bufSize);
}

#endif
