// The process-wide date and time formats that stamp and parse library log entries
// and trace records. Set once at start, before threads; read without a lock.
#ifndef BKVLIB_COMMON_UT_DATEFMT_H
#define BKVLIB_COMMON_UT_DATEFMT_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

// Date settings: 0 the locale's format when usable, else "%m/%d/%Y"; 1 "%m/%d/%Y";
// 2 "%d-%m-%Y"; 3 "%Y-%m-%d"; 4 "%d.%m.%Y"; 5 "%Y.%m.%d"; others leave it unchanged.
// Time settings: 0 the locale's format when usable, else "%H:%M:%S", with the locale's
// AM/PM words (at most 5 characters); 1 "%H:%M:%S"; 2 "%H,%M,%S"; 3 "%H.%M.%S";
// 4 "%I:%M:%S%p" with "AM"/"PM"; others leave it unchanged.
// The agent's choice, date 3 and time 1, is also the setting before any call.
void utSetDateFormat(int32_t setting);
void utSetTimeFormat(int32_t setting);
const char* utDateFormat();
const char* utTimeFormat();
// Third character of the current format.
char utDateSeparator();
char utTimeSeparator();
// A locale format is usable when its directives are only d, m, y, Y (date) or
// H, I, M, S, p (time).
bool utDateFormatUsable(const char* format);
bool utTimeFormatUsable(const char* format);

// Format when in the current date or time format; return the length written, 0 when
// buf is null or too small (buf then holds "").
size_t utFormatDate(const struct tm* when, char* buf, size_t size);
size_t utFormatTime(const struct tm* when, char* buf, size_t size);
// "date time " of the wall clock now, in the current formats: the stamp in front of a
// library log line or a stamped console message.
std::string utStampNow();
// Parses a date in the current date format from the first length characters of text
// (characters behind the date are ignored). Fills tm_year, tm_mon and tm_mday of
// *date. 0, or -1 when the text is not a real date in that format.
int32_t utParseDate(const char* text, size_t length, struct tm* date);
// Calendar days from *from to *to (negative when to is earlier); uses year, month, day.
int64_t utDaysBetween(const struct tm* from, const struct tm* to);
// Today's local date by the library clock.
void utToday(struct tm* today);
// The clock the pruner reads (time by default); returns the previous one. For tests.
typedef time_t (*UtClock)();
UtClock utSetClock(UtClock clock);

#endif
