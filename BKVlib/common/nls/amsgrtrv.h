// The NLS message repository: message numbers to texts in the user's language,
// read from XPG message catalogues (set 1) with an English catalogue as fallback,
// kept in two small most-recently-used caches. One process-wide nlsObject_t,
// guarded by the NLS mutex; every lookup below takes that mutex itself.
#ifndef BKVLIB_COMMON_NLS_AMSGRTRV_H
#define BKVLIB_COMMON_NLS_AMSGRTRV_H

#include <nl_types.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "BKVlib/common/nls/amsgfmt.h"
#include "BKVlib/common/thrd/pkthread.h"

// The library's own catalogue, and the English fallback of most clients.
extern const char* const NL_LIB_CATALOG;  // "kfwclientV3.cat"
// Longest catalogue name or path, and longest message directory.
constexpr size_t NL_NAME_MAX = 1279;
constexpr size_t NL_DIR_MAX = 1023;

// Severity codes, from the letter that ends a message identifier.
enum NlSeverity : uint8_t {
    NL_SEV_Z = 0,
    NL_SEV_T = 1,
    NL_SEV_R = 2,
    NL_SEV_K = 3,
    NL_SEV_I = 4,
    NL_SEV_W = 5,
    NL_SEV_E = 6,
    NL_SEV_S = 7,
    NL_SEV_L = 8,
    NL_SEV_UNKNOWN = 255,  // message not found
};

// The set-up values a program passes to nlsInit, in the order it passes them
// (the agent: 10, 100, 'S', 100, 'S', 9, 3, 1, 0).
struct NlsSettings {
    uint32_t cacheMax = 10;      // entries per cache list
    int32_t errorLogRetain = 100;  // days the error log keeps entries
    char errorLogPrune = 'S';      // 'S': pruned entries are saved
    int32_t schedLogRetain = 100;  // days the schedule log keeps entries
    char schedLogPrune = 'S';
    int32_t clientType = 9;        // 4 and 9 only read the process locale
    int32_t logSeverityMin = 3;    // lowest severity code the severity logger records
    int32_t catalogSet = 1;        // the catalogue set that holds the messages
    int32_t stampConsole = 0;      // 1: console messages start with date and time
    std::string component;         // three-letter component of the program ("HKA")
};

// One cached message: a heap block holding the fields and the text behind them.
struct NLSMsg {
    NLSMsg* next;
    NLSMsg* prev;
    uint16_t number;
    uint8_t severity;
    char trailer[8];      // what followed the DC2 mark, removed from the text
    uint32_t length;      // of text, which may hold zero bytes
    uint32_t bodyOffset;  // where the compiled part starts (9 with an identifier)
    NlCompiled compiled;  // checked view of text + bodyOffset
    char* text;
};

class nlsObject_t {
public:
    NLSMsg* localCache = nullptr;    // circular lists, most recent at the head
    NLSMsg* englishCache = nullptr;
    std::string missingCatalogPath;
    std::string englishCatalogName;
    std::string pendingText;         // last library message built here
    bool pendingReport = false;      // pendingText still to be logged and shown
    uint32_t cacheMax = 0;
    nl_catd localCat = reinterpret_cast<nl_catd>(-1);
    nl_catd englishCat = reinterpret_cast<nl_catd>(-1);
    int useEnglishOnce = 0;
    int started = 0;
    NlsSettings settings;

    // The cached lookup; the caller holds the NLS mutex. Null when the message is
    // missing, corrupt, of kind "M", or memory ran out.
    NLSMsg* GetMsg(uint16_t number);
    static void AddList(NLSMsg** list, NLSMsg* nlsMsgP);
    static void DeleteList(NLSMsg** list, NLSMsg* nlsMsgP);
};

// Turns one stored catalogue text into a cache entry as a lookup does: null when
// the text is corrupt (the reason kept for the next report) or memory ran out. The
// caller frees the entry with free().
NLSMsg* nlBuildMsg(uint16_t number, const char* raw);

// Leaves a report (a KRN text) in the repository object for the next release of the
// NLS mutex to log.
void nlSetPending(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The process's repository object (never null).
nlsObject_t* nlsObject();
// The NLS mutex; null before the first nlsInit.
MutexHandle nlsMutex();

// Opens the catalogues and starts the repository. A second call returns RC_OK at
// once. RC_NLS_INIT_FAILED for names that are too long or a missing English
// catalogue; a missing local catalogue falls back to English (KRN0102W kept in
// pendingText) and is no error. languageOut receives the language used.
int32_t nlsInit(const char* catalogName, const char* messageDir, const char* englishCatalogName,
                const NlsSettings& settings, std::string* languageOut);
// Closes the catalogues and frees the caches; the repository can be started again.
void nlsTerminate();
// 1 once started, else 0.
int32_t nlsStatus();
// RC_OK or RC_CAT_NOT_OPENED.
int32_t openCat(const char* dir, const char* lang, const char* catalogName, nl_catd* catalogHandleOut);

// A language forced before nlsInit replaces the locale's; empty clears it.
void nlSetLanguage(const char* language);
// The language of the local catalogue ("en_US" after a fallback).
std::string nlCurrentLanguage();
// The next lookup reads the English catalogue.
void nlUseEnglishOnce();
// The settings nlsInit stored.
NlsSettings nlSettings();

// Severity code of a message: 255 when it cannot be found (or the repository is
// not started, or the mutex cannot be released), NL_SEV_E when the mutex cannot be taken.
uint8_t nlGetSeverity(uint16_t number);

// The message with its inserts filled in, identifier first when kept: RC_OK, or
// RC_MSG_NOT_FOUND (not started, missing, corrupt, no memory).
int32_t nlMsgText(uint16_t number, std::string* text, va_list args);
int32_t nlMsgTextW(uint16_t number, std::wstring* text, va_list args);
// As nlMsgText, with the inserts as arguments.
int32_t nlGetText(std::string* text, uint32_t number, ...);

// One argument of a message as data.
struct NlInsertValue {
    uint8_t type = NL_ARG_INT;  // NlArgType; "%s" arguments also copy their text
    int64_t integer = 0;
    double real = 0;
    const void* pointer = nullptr;
    std::string text;
};

struct NlInserts {
    uint8_t messageType = 0;  // from the severity: T 7, I 2, W 3, E 4, S 5, else 0
    std::vector<NlInsertValue> values;  // star values included, in argument order
    size_t size = 0;          // bytes the values take when forwarded
    std::string text;         // "??????" not started, "?????" not found
};

// Collects a message's arguments as typed values: RC_OK, RC_MISSING_ARG (not
// started) or RC_MSG_NOT_FOUND.
int32_t nlGetInserts(uint16_t number, NlInserts* inserts, va_list args);

// The typed values of msg's arguments, read from args, and the message type.
void nlCollectInserts(const NLSMsg& msg, NlInserts* inserts, va_list* args);

// Reads the index entry of a message from an indexed repository file: the 16-bit
// big-endian value at offset number * 2 + 62. 0 when it cannot be read or is 0
// (KRN0105E, KRN0106E logged).
uint16_t nlReadIndex(FILE* repository, const char* repositoryName, uint16_t number);

#endif
