// How the modules beneath the library's message logging issue library messages of
// their own: the repository, the global return code and the log-file keeping all
// report through the message layer, which stands on them. The message layer installs
// its issuers here during static initialisation, whenever it is part of the program.
// Without them a message is dropped; a library text still goes to the trace and,
// when shown, to standard error.
#ifndef BKVLIB_COMMON_NLS_AMSGNOTE_H
#define BKVLIB_COMMON_NLS_AMSGNOTE_H

#include <cstdarg>
#include <cstdint>

// Flags of a message description.
constexpr uint8_t NL_NEWLINE = 1;    // append a newline
constexpr uint8_t NL_STDOUT = 2;     // write to standard output
constexpr uint8_t NL_ERRORLOG = 4;   // write to the error log
constexpr uint8_t NL_INSERTS = 8;    // collect typed inserts first
constexpr uint8_t NL_SEVERITY = 32;  // hand to the severity-aware logger

typedef int32_t (*NlIssueVFn)(uint16_t msgNum, uint32_t flags, va_list args);
typedef void (*NlLibTextFn)(uint8_t severity, const char* text, bool show);
void nlSetNoteIssuers(NlIssueVFn issue, NlLibTextFn libText);

// As nlIssue and nlLogLibText of the message layer; nlNote returns 0 without an issuer.
int32_t nlNote(uint16_t msgNum, uint32_t flags, ...);
void nlNoteLibText(uint8_t severity, const char* text, bool show);

#endif
