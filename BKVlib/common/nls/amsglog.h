// Issuing the runtime library's own numbered messages (KRN texts) through the
// message layer: the message is made from the library catalogue, raises the global
// return code, and goes to the places its flags name.
#ifndef BKVLIB_COMMON_NLS_AMSGLOG_H
#define BKVLIB_COMMON_NLS_AMSGLOG_H

#include <cstdint>

// Flags of a message description.
constexpr uint8_t NL_NEWLINE = 1;    // append a newline
constexpr uint8_t NL_STDOUT = 2;     // write to standard output
constexpr uint8_t NL_ERRORLOG = 4;   // write to the error log
constexpr uint8_t NL_INSERTS = 8;    // collect typed inserts first
constexpr uint8_t NL_SEVERITY = 32;  // hand to the severity-aware logger

// Issues library message msgNum with its inserts; returns the text length, 0 when
// nothing was issued.
int32_t nlIssue(uint16_t msgNum, uint8_t flags, ...);

#endif
