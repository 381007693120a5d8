// Issuing the runtime library's own numbered messages (KRN texts) through the
// message layer: the message is made from the library catalogue, raises the global
// return code, and goes to the places its flags name. Also the library's log sinks
// and the small text routines used with messages.
#ifndef BKVLIB_COMMON_NLS_AMSGLOG_H
#define BKVLIB_COMMON_NLS_AMSGLOG_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "BKVlib/common/nls/amsgnote.h"

// Never written to the schedule log.
constexpr uint16_t NL_MSG_NO_SCHEDLOG = 227;

// One message to issue; length, messageType and insertCount are filled in.
struct NlMsgDesc {
    uint16_t number = 0;
    uint16_t length = 0;
    uint8_t messageType = 0;
    uint8_t insertCount = 0;
    uint8_t flags = 0;
};

// Issues one message: its text (without terminator) is copied into buffer, which
// holds avail characters, and sent to the sinks its flags name. Returns the
// characters placed into buffer, 0 when nothing was issued (no text, or the text
// does not fit; the global return code is raised either way).
uint16_t nlLogPrintf(NlMsgDesc* description, char* buffer, uint16_t avail, va_list args);

// Issues library message msgNum with its inserts; returns the text length, 0 when
// nothing was issued.
// flags is a full word because va_start after a promoted type is undefined.
int32_t nlIssue(uint16_t msgNum, uint32_t flags, ...);

// The logger that receives flag-32 messages and the library's own texts with
// their severity code. The default writes texts whose severity reaches the
// set-up minimum to the error log. Null restores the default.
typedef void (*NlSeverityLogger)(uint8_t severity, const char* text);
void nlSetSeverityLogger(NlSeverityLogger logger);

// Logs a library text built outside the catalogue (KRN0101E, KRN9999E and the
// like): trace, severity logger, and standard error when show.
void nlLogLibText(uint8_t severity, const char* text, bool show);

// The library's logs. maxBytes 0 opens a plain log, pruned by age with the
// retention and prune mode of nlsInit's set-up values (pruned entries are saved
// beside the log as "<name>.pruned"); otherwise a wrapping log of that size. The
// third log is never pruned. 0, or -1 with the log left closed.
constexpr int32_t NL_LOG_ERROR = 0;
constexpr int32_t NL_LOG_SCHED = 1;
constexpr int32_t NL_LOG_THIRD = 2;
int32_t nlOpenLog(int32_t which, const char* path, uint32_t maxBytes);
void nlCloseLog(int32_t which);

// The sinks. Each writes one text and does nothing (0) while its log is not open.
// nlErrorLogWrite: RC_OK, RC_MISSING_ARG (no repository or mutex) or
// RC_LOG_WRITE_FAILED; it takes the NLS mutex.
int32_t nlErrorLogWrite(const char* text);
int32_t nlSchedLogWrite(const char* text);
int32_t nlThirdLogWrite(const char* text);
int32_t nlThirdLogWriteW(const wchar_t* text);

// Renders length bytes of data into output, which needs nlHexTextSize(length)
// bytes. Modes: 0 EBCDIC shown as ASCII characters, 1 characters, 2 hex,
// 3 hex in groups of four bytes, eight groups a line, 4 characters when all
// bytes are printable else hex, higher as 1. Returns the characters written.
size_t nlHexText(char* output, const void* data, size_t length, int32_t mode);
size_t nlHexTextSize(size_t length);

// yesValue or noValue when word (any case) is one of the yes or no words, else -9999.
constexpr int32_t NL_YESNO_UNKNOWN = -9999;
int32_t nlYesNo(const char* word, int32_t yesValue, int32_t noValue);

#endif
