#include "BKVlib/common/ut/datefmt.h"

#include <langinfo.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr size_t kFormatMax = 64;
constexpr size_t kAmPmMax = 5;
constexpr int32_t kDateDefaultSetting = 1;
constexpr int32_t kTimeDefaultSetting = 1;

const char* const kDateFormats[] = {nullptr, "%m/%d/%Y", "%d-%m-%Y", "%Y-%m-%d", "%d.%m.%Y", "%Y.%m.%d"};
const char* const kTimeFormats[] = {nullptr, "%H:%M:%S", "%H,%M,%S", "%H.%M.%S", "%I:%M:%S%p"};
constexpr int32_t kDateSettings = sizeof(kDateFormats) / sizeof(kDateFormats[0]);
constexpr int32_t kTimeSettings = sizeof(kTimeFormats) / sizeof(kTimeFormats[0]);

struct Formats {
    char date[kFormatMax] = "%Y-%m-%d";
    char time[kFormatMax] = "%H:%M:%S";
    char am[kAmPmMax + 1] = "AM";
    char pm[kAmPmMax + 1] = "PM";
};
Formats g_formats;

time_t systemClock() {
    return time(nullptr);
}
UtClock g_clock = systemClock;

bool directivesOnly(const char* format, const char* allowed) {
    if (!format || !*format || strlen(format) >= kFormatMax) return false;
    for (const char* p = format; *p; ++p) {
        if (*p == '%' && (!*++p || !strchr(allowed, *p))) return false;
    }
    return true;
}

void copyCut(char* dst, size_t size, const char* src) {
    snprintf(dst, size, "%s", src ? src : "");
}

char thirdChar(const char* format) {
    return strlen(format) >= 3 ? format[2] : '\0';
}

// Reads exactly width digits: every directive we accept prints zero-padded fields.
bool readDigits(const char* text, size_t length, size_t* pos, int width, int* value) {
    int v = 0;
    for (int i = 0; i < width; ++i, ++*pos) {
        if (*pos >= length || text[*pos] < '0' || text[*pos] > '9') return false;
        v = v * 10 + (text[*pos] - '0');
    }
    *value = v;
    return true;
}

bool leapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : kDays[month - 1];
}

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
    y -= m <= 2 ? 1 : 0;
    int64_t era = (y >= 0 ? y : y - 399) / 400;
    int64_t yoe = y - era * 400;
    int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// The formats are chosen from fixed tables or checked locale texts, never from input.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
size_t formatTm(char* buf, size_t size, const char* format, const struct tm* when) {
    size_t n = when ? strftime(buf, size, format, when) : 0;
    if (n == 0) buf[0] = '\0';
    return n;
}
#pragma GCC diagnostic pop

}  // namespace

void utSetDateFormat(int32_t setting) {
    if (setting < 0 || setting >= kDateSettings) return;
    const char* chosen = kDateFormats[setting];
    if (setting == 0) {
        const char* locale = nl_langinfo(D_FMT);
        chosen = utDateFormatUsable(locale) ? locale : kDateFormats[kDateDefaultSetting];
    }
    copyCut(g_formats.date, sizeof(g_formats.date), chosen);
}

void utSetTimeFormat(int32_t setting) {
    if (setting < 0 || setting >= kTimeSettings) return;
    const char* chosen = kTimeFormats[setting];
    copyCut(g_formats.am, sizeof(g_formats.am), "AM");
    copyCut(g_formats.pm, sizeof(g_formats.pm), "PM");
    if (setting == 0) {
        const char* locale = nl_langinfo(T_FMT);
        chosen = utTimeFormatUsable(locale) ? locale : kTimeFormats[kTimeDefaultSetting];
        copyCut(g_formats.am, sizeof(g_formats.am), nl_langinfo(AM_STR));
        copyCut(g_formats.pm, sizeof(g_formats.pm), nl_langinfo(PM_STR));
    }
    copyCut(g_formats.time, sizeof(g_formats.time), chosen);
}

const char* utDateFormat() {
    return g_formats.date;
}

const char* utTimeFormat() {
    return g_formats.time;
}

char utDateSeparator() {
    return thirdChar(g_formats.date);
}

char utTimeSeparator() {
    return thirdChar(g_formats.time);
}

bool utDateFormatUsable(const char* format) {
    return directivesOnly(format, "dmyY");
}

bool utTimeFormatUsable(const char* format) {
    return directivesOnly(format, "HIMSp");
}

size_t utFormatDate(const struct tm* when, char* buf, size_t size) {
    if (!buf || size == 0) return 0;
    return formatTm(buf, size, g_formats.date, when);
}

// "%p" is spelled out here rather than by strftime, so the AM/PM words are the ones
// chosen with the format and not whatever the current locale says.
size_t utFormatTime(const struct tm* when, char* buf, size_t size) {
    if (!buf || size == 0) return 0;
    std::string format;
    for (const char* p = g_formats.time; *p; ++p) {
        if (p[0] == '%' && p[1] == 'p') {
            for (const char* w = when && when->tm_hour >= 12 ? g_formats.pm : g_formats.am; *w; ++w) {
                format += *w == '%' ? "%%" : std::string(1, *w);
            }
            ++p;
        } else {
            format += *p;
            if (p[0] == '%' && p[1]) format += *++p;
        }
    }
    return formatTm(buf, size, format.c_str(), when);
}

int32_t utParseDate(const char* text, size_t length, struct tm* date) {
    if (!text || !date) return -1;
    int year = -1, month = 0, day = 0;
    size_t pos = 0;
    for (const char* f = g_formats.date; *f; ++f) {
        if (*f != '%') {
            if (pos >= length || text[pos++] != *f) return -1;
            continue;
        }
        int value = 0;
        char directive = *++f;
        if (!readDigits(text, length, &pos, directive == 'Y' ? 4 : 2, &value)) return -1;
        if (directive == 'd') day = value;
        else if (directive == 'm') month = value;
        else if (directive == 'Y') year = value;
        else if (directive == 'y') year = value < 69 ? 2000 + value : 1900 + value;
        else return -1;
    }
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return -1;
    date->tm_year = year - 1900;
    date->tm_mon = month - 1;
    date->tm_mday = day;
    return 0;
}

int64_t utDaysBetween(const struct tm* from, const struct tm* to) {
    return daysFromCivil(to->tm_year + 1900, to->tm_mon + 1, to->tm_mday) -
           daysFromCivil(from->tm_year + 1900, from->tm_mon + 1, from->tm_mday);
}

std::string utStampNow() {
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char date[64];
    char clock[64];
    utFormatDate(&local, date, sizeof(date));
    utFormatTime(&local, clock, sizeof(clock));
    return std::string(date) + " " + clock + " ";
}

void utToday(struct tm* today) {
    time_t now = g_clock();
    localtime_r(&now, today);
}

UtClock utSetClock(UtClock clock) {
    UtClock previous = g_clock;
    g_clock = clock ? clock : systemClock;
    return previous;
}
