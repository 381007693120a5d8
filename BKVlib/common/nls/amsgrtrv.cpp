#include "BKVlib/common/nls/amsgrtrv.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "BKVlib/common/nls/amsglog.h"
#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

const char* const NL_LIB_CATALOG = "kfwclientV3.cat";

namespace {

const char* const kModule = "BKVlib/common/nls/amsgrtrv";
const char* const kDefaultText = "KRN1111M Error retrieving message %d from kfwclientV3.cat.\n";
const nl_catd kNoCat = reinterpret_cast<nl_catd>(-1);
constexpr size_t kPendingMax = 1280;
// Identifier of three letters and four digits, the severity letter and a blank.
constexpr size_t kPrefixLength = 9;

struct LanguageRow {
    const char* code;
    const char* locale;
};

const LanguageRow kLanguages[] = {
    {"Ja", "Ja_JP"}, {"Zh", "Zh_CN"}, {"de", "de_DE"}, {"en", "en_US"}, {"es", "es_ES"}, {"fr", "fr_FR"},
    {"it", "it_IT"}, {"ja", "ja_JP"}, {"ko", "ko_KR"}, {"pt", "pt_BR"}, {"zh", "zh_CN"},
};

// Severity letter to code; -1 corrupt, -2 the "M" letter (no message).
int severityCode(char letter) {
    static const char kLetters[] = "ZTRKIWESL";
    if (letter == 'M') return -2;
    if (letter < 'E' || letter > 'Z') return -1;
    const char* hit = strchr(kLetters, letter);
    return hit ? static_cast<int>(hit - kLetters) : -1;
}

bool identifierKept(int code) {
    return code >= NL_SEV_K && code <= NL_SEV_S;
}

nlsObject_t gNls;
MutexHandle gNlsMutex = nullptr;
std::once_flag gMutexOnce;
std::string gForcedLanguage;
std::string gCurrentLanguage;

void createMutex() {
    std::call_once(gMutexOnce, [] { pkCreateMutex(&gNlsMutex); });
}

void setPending(const char* format, ...) __attribute__((format(printf, 1, 2)));
void setPending(const char* format, ...) {
    char text[kPendingMax];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    gNls.pendingText = text;
    gNls.pendingReport = true;
}

// Logs what the last lookup built; called after the NLS mutex is released,
// because the loggers take it again.
void reportPending(bool report, const std::string& text) {
    if (report) nlLogLibText(NL_SEV_E, text.c_str(), true);
}

// Holds the NLS mutex for one lookup. A failed release is reported as message 263
// once the lookup's own messages are out.
class NlsLock {
public:
    NlsLock() : held_(gNlsMutex != nullptr && pkAcquireMutex(gNlsMutex) == RC_OK) {
        if (!held_) TR_PRINTF(TR_NLS, "Unable to acquire NLS mutex\n");
    }
    ~NlsLock() { release(); }
    NlsLock(const NlsLock&) = delete;
    NlsLock& operator=(const NlsLock&) = delete;
    bool held() const { return held_; }
    // Releases and hands back the report the lookup left; false when the release failed.
    bool release(bool* report = nullptr, std::string* text = nullptr) {
        if (!held_) return true;
        if (report) {
            *report = gNls.pendingReport;
            *text = gNls.pendingText;
            gNls.pendingReport = false;
        }
        held_ = false;
        if (pkReleaseMutex(gNlsMutex) == RC_OK) return true;
        TR_PRINTF(TR_NLS, "Unable to release NLS mutex\n");
        nlIssue(263, NL_ERRORLOG | NL_SEVERITY, kModule, __LINE__, "Unable to release NLS mutex");
        return false;
    }

private:
    bool held_;
};

std::string joinPath(const char* dir, const char* lang, const char* name) {
    return std::string(dir) + "/" + lang + "/" + name;
}

nl_catd openOne(const std::string& path) {
    errno = 0;
    nl_catd cat = catopen(path.c_str(), NL_CAT_LOCALE);
    int err = errno;
    TR_PRINTF(TR_NLS, "catopen() returned %p (%d) errno = %d '%s'\n", static_cast<void*>(cat),
              cat == kNoCat ? -1 : 0, err, strerror(err));
    return cat;
}

std::string deriveLanguage(const char* lang) {
    if (strcmp(lang, "zh_TW.BIG5") == 0) return "Zh_TW";
    std::string derived(lang, strcspn(lang, "."));
    if (derived.size() != 2) return derived;
    for (const LanguageRow& row : kLanguages) {
        if (derived == row.code) return row.locale;
    }
    TR_PRINTF(TR_NLS, "Language specif" "ication \"%s\" not found, substituting US English\n", derived.c_str());
    return "en_US";
}

// For environment-driven clients the locale is set first. When the named locale
// is not installed, setlocale leaves "C"; the catalogue language then still
// follows the environment, as a user who sets LANG expects.
std::string environmentLanguage() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = getenv(name);
        if (value && *value) return value;
    }
    return std::string();
}

std::string localeLanguage(int32_t clientType) {
    bool fromEnvironment = clientType != 4 && clientType != 9;
    if (fromEnvironment) {
        setlocale(LC_ALL, "");
        setlocale(LC_MESSAGES, "");
    }
    const char* current = setlocale(LC_MESSAGES, nullptr);
    std::string lang = current ? current : "C";
    if (fromEnvironment && lang == "C" && !environmentLanguage().empty()) lang = environmentLanguage();
    return lang == "C" ? std::string("en_US") : lang;
}

int32_t openEnglish(const char* dir, const char* catalogName, const char* englishCatalogName, int32_t clientType) {
    bool ownEnglish = clientType == 9 || clientType == 10 || clientType == 11;
    const char* programName = (englishCatalogName && *englishCatalogName) ? englishCatalogName : catalogName;
    gNls.englishCatalogName = ownEnglish ? programName : NL_LIB_CATALOG;
    int32_t rc = openCat(dir, "en_US", gNls.englishCatalogName.c_str(), &gNls.englishCat);
    if (rc != RC_OK) {
        std::string path = joinPath(dir, "en_US", gNls.englishCatalogName.c_str());
        setPending("KRN0101E Unable to open English message repository '%s'.\n", path.c_str());
        gNls.pendingReport = false;
        nlLogLibText(NL_SEV_E, gNls.pendingText.c_str(), false);
        rc = RC_NLS_INIT_FAILED;
    }
    return rc;
}

void openLocal(const char* dir, const char* catalogName, std::string* languageOut) {
    std::string lang = gForcedLanguage.empty() ? localeLanguage(gNls.settings.clientType) : gForcedLanguage;
    *languageOut = lang;
    gCurrentLanguage = lang;
    if (openCat(dir, lang.c_str(), catalogName, &gNls.localCat) == RC_OK) return;
    gCurrentLanguage = "en_US";
    gNls.localCat = gNls.englishCat;
    std::string path = joinPath(dir, lang.c_str(), catalogName);
    if (path.size() > NL_NAME_MAX) path = "???";
    setPending("KRN0102W Unable to open the message repository %s. The American English repository will be used "
               "instead.\n", path.c_str());
    gNls.pendingReport = false;
}

void freeList(NLSMsg** list) {
    while (*list) {
        NLSMsg* msg = *list;
        nlsObject_t::DeleteList(list, msg);
        free(msg);
    }
}

// Splits the severity letter off a stored text; -1 for a corrupt identifier.
int parseIdentifier(const char* raw, size_t length, size_t* letterAt) {
    size_t i = 4;
    while (i < length && raw[i] >= '0' && raw[i] <= '9') ++i;
    *letterAt = i;
    return i < length ? severityCode(raw[i]) : -1;
}

void cutTrailer(std::string* text, char* trailer) {
    trailer[0] = '\0';
    size_t stop = text->size() > 7 ? text->size() - 7 : 0;
    for (size_t i = text->size(); i > stop; --i) {
        if (static_cast<unsigned char>((*text)[i - 1]) != NL_TRAILER_MARK) continue;
        snprintf(trailer, 8, "%s", text->c_str() + i);
        text->resize(i - 1);
        return;
    }
}

enum BuildResult { kBuilt, kNoMemory, kCorrupt };

BuildResult allocateMsg(uint16_t number, int code, const std::string& text, size_t bodyOffset, const char* trailer,
                        NLSMsg** out) {
    void* block = malloc(sizeof(NLSMsg) + text.size() + 1);
    if (!block) return kNoMemory;
    NLSMsg* msg = new (block) NLSMsg();
    msg->text = reinterpret_cast<char*>(msg + 1);
    memcpy(msg->text, text.data(), text.size());
    msg->text[text.size()] = '\0';
    msg->number = number;
    msg->severity = static_cast<uint8_t>(code);
    snprintf(msg->trailer, sizeof(msg->trailer), "%s", trailer);
    msg->length = static_cast<uint32_t>(text.size());
    msg->bodyOffset = static_cast<uint32_t>(bodyOffset);
    if (!nlParseCompiled(msg->text + bodyOffset, text.size() - bodyOffset, &msg->compiled)) {
        free(block);
        return kCorrupt;
    }
    *out = msg;
    return kBuilt;
}

// Turns a stored catalogue text into a cache entry; null (with pendingText) on failure.
NLSMsg* buildMsg(uint16_t number, const char* raw) {
    size_t length = strlen(raw);
    size_t letterAt = 0;
    int code = length >= 5 ? parseIdentifier(raw, length, &letterAt) : -1;
    if (code == -2) return nullptr;
    std::string text(raw, length);
    char trailer[8];
    cutTrailer(&text, trailer);
    // A trailer mark inside the identifier leaves no whole identifier behind.
    if (text.size() <= letterAt) code = -1;
    if (code >= 0 && identifierKept(code) && letterAt > 7) text.erase(3, letterAt - 7);
    size_t bodyOffset = identifierKept(code) ? kPrefixLength : letterAt + 2;
    if (code < 0 || text.size() <= bodyOffset) {
        setPending("KRN9999E %s(%u): Message No %u is corrupted.\n", kModule, __LINE__, number);
        return nullptr;
    }
    if (!identifierKept(code)) {
        text.erase(0, bodyOffset);
        bodyOffset = 0;
    }
    std::string body = text.substr(bodyOffset);
    nlDecodeStandins(&body);
    text.replace(bodyOffset, std::string::npos, body);
    NLSMsg* msg = nullptr;
    BuildResult result = allocateMsg(number, code, text, bodyOffset, trailer, &msg);
    if (result == kCorrupt) setPending("KRN9999E %s(%u): Message No %u is corrupted.\n", kModule, __LINE__, number);
    if (result == kNoMemory) setPending("KRN0109E Insufficient memory for allocation of message structure.\n");
    return msg;
}

}  // namespace

NLSMsg* nlBuildMsg(uint16_t number, const char* raw) { return buildMsg(number, raw); }

namespace {

NLSMsg* loadMsg(nl_catd cat, uint16_t number) {
    TR_PRINTF(TR_NLS, "Going to catgets() for localCatP = %p (%d)\n", static_cast<void*>(cat), number);
    errno = 0;
    const char* raw = catgets(cat, gNls.settings.catalogSet, number, kDefaultText);
    if (raw == nullptr || strcmp(raw, kDefaultText) == 0) {
        int err = errno;
        TR_PRINTF(TR_NLS, "Returned from catgets() errno = %d/%s\n", err, strerror(err));
        setPending("KRN9999E %s(%u): Message No %u could not be found.\n", kModule, __LINE__, number);
        return nullptr;
    }
    TR_PRINTF(TR_NLS, "Returned from catgets() msgP = %s\n", raw);
    return buildMsg(number, raw);
}

// The list head of the entry and how many entries it has, or the matching entry.
NLSMsg* findInList(NLSMsg* head, uint16_t number, uint32_t* count) {
    *count = 0;
    NLSMsg* p = head;
    if (!p) return nullptr;
    do {
        ++*count;
        if (p->number == number) return p;
        p = p->next;
    } while (p != head);
    return nullptr;
}

}  // namespace

nlsObject_t* nlsObject() {
    return &gNls;
}

MutexHandle nlsMutex() {
    return gNlsMutex;
}

void nlsObject_t::AddList(NLSMsg** list, NLSMsg* nlsMsgP) {
    assert(nlsMsgP->next == NULL);
    if (*list == nullptr) {
        nlsMsgP->next = nlsMsgP;
        nlsMsgP->prev = nlsMsgP;
    } else {
        nlsMsgP->next = *list;
        nlsMsgP->prev = (*list)->prev;
        (*list)->prev->next = nlsMsgP;
        (*list)->prev = nlsMsgP;
    }
    *list = nlsMsgP;
}

void nlsObject_t::DeleteList(NLSMsg** list, NLSMsg* nlsMsgP) {
    assert(nlsMsgP->next != NULL);
    assert(nlsMsgP->prev != NULL);
    if (nlsMsgP->next == nlsMsgP) {
        *list = nullptr;
    } else {
        nlsMsgP->prev->next = nlsMsgP->next;
        nlsMsgP->next->prev = nlsMsgP->prev;
        if (*list == nlsMsgP) *list = nlsMsgP->next;
    }
    nlsMsgP->next = nullptr;
    nlsMsgP->prev = nullptr;
}

NLSMsg* nlsObject_t::GetMsg(uint16_t number) {
    TR_PRINTF(TR_NLS, "Searching for message number: %d\n", number);
    bool english = useEnglishOnce == 1;
    useEnglishOnce = 0;
    NLSMsg** list = english ? &englishCache : &localCache;
    nl_catd cat = english ? englishCat : localCat;
    uint32_t count = 0;
    NLSMsg* msg = started ? findInList(*list, number, &count) : nullptr;
    if (msg) {
        TR_PRINTF(TR_NLS, "Found message: %d in cache.\n", number);
        DeleteList(list, msg);
        AddList(list, msg);
        return msg;
    }
    msg = (started && cat != kNoCat) ? loadMsg(cat, number) : nullptr;
    if (!msg) return nullptr;
    if (count >= cacheMax && *list) {
        NLSMsg* oldest = (*list)->prev;
        TR_PRINTF(TR_NLS, "Deleting message: %d from the cache.\n", oldest->number);
        DeleteList(list, oldest);
        free(oldest);
    }
    TR_PRINTF(TR_NLS, "Adding message: %d to the cache.\n", number);
    AddList(list, msg);
    return msg;
}

int32_t openCat(const char* dir, const char* lang, const char* catalogName, nl_catd* catalogHandleOut) {
    TR_PRINTF(TR_NLS, "openCat(): lang: '%s', reposFile: '%s', kfdir: '%s', eitherCatP: %p\n", lang, catalogName, dir,
              static_cast<void*>(catalogHandleOut));
    const char* name = (catalogName && *catalogName) ? catalogName : NL_LIB_CATALOG;
    size_t longer = std::max(strlen(name), strlen(NL_LIB_CATALOG));
    if (strlen(dir) + strlen(lang) + longer + 2 >= kPendingMax) {
        TR_PRINTF(TR_NLS, "openCat(): The passed arguments are too long\n");
        return RC_CAT_NOT_OPENED;
    }
    nl_catd cat = openOne(joinPath(dir, lang, name));
    if (cat == kNoCat) cat = openOne(name);
    std::string derived;
    if (cat == kNoCat) {
        derived = deriveLanguage(lang);
        if (strlen(dir) + derived.size() + strlen(name) + 2 > NL_NAME_MAX) {
            TR_PRINTF(TR_NLS, "openCat(): The passed arguments are too long\n");
            return RC_CAT_NOT_OPENED;
        }
        cat = openOne(joinPath(dir, derived.c_str(), name));
        if (cat == kNoCat) gNls.missingCatalogPath = joinPath(dir, derived.c_str(), name);
    }
    if (cat == kNoCat) return RC_CAT_NOT_OPENED;
    *catalogHandleOut = cat;
    return RC_OK;
}

int32_t nlsInit(const char* catalogName, const char* messageDir, const char* englishCatalogName,
                const NlsSettings& settings, std::string* languageOut) {
    if (gNls.started) return RC_OK;
    catalogName = catalogName ? catalogName : "";
    englishCatalogName = englishCatalogName ? englishCatalogName : "";
    messageDir = messageDir ? messageDir : "";
    if (strlen(catalogName) > NL_NAME_MAX || strlen(englishCatalogName) > NL_NAME_MAX ||
        strlen(messageDir) > NL_DIR_MAX) {
        return RC_NLS_INIT_FAILED;
    }
    gNls.localCat = kNoCat;
    gNls.cacheMax = settings.cacheMax;
    gNls.settings = settings;
    createMutex();
    int32_t rc = openEnglish(messageDir, catalogName, englishCatalogName, settings.clientType);
    if (rc == RC_OK && *catalogName) {
        std::string language;
        openLocal(messageDir, catalogName, &language);
        if (languageOut) *languageOut = language;
    } else if (rc == RC_OK) {
        gNls.localCat = gNls.englishCat;
    }
    gNls.started = rc == RC_OK ? 1 : 0;
    return rc;
}

void nlsTerminate() {
    createMutex();
    NlsLock lock;
    freeList(&gNls.localCache);
    freeList(&gNls.englishCache);
    if (gNls.localCat != kNoCat && gNls.localCat != gNls.englishCat) catclose(gNls.localCat);
    if (gNls.englishCat != kNoCat) catclose(gNls.englishCat);
    gNls.localCat = kNoCat;
    gNls.englishCat = kNoCat;
    gNls.missingCatalogPath.clear();
    gNls.pendingText.clear();
    gNls.pendingReport = false;
    gNls.useEnglishOnce = 0;
    gNls.started = 0;
    gCurrentLanguage.clear();
}

int32_t nlsStatus() {
    return gNls.started;
}

void nlSetLanguage(const char* language) {
    gForcedLanguage = language ? language : "";
}

std::string nlCurrentLanguage() {
    return gCurrentLanguage;
}

void nlUseEnglishOnce() {
    createMutex();
    NlsLock lock;
    gNls.useEnglishOnce = 1;
}

NlsSettings nlSettings() {
    return gNls.settings;
}

uint8_t nlGetSeverity(uint16_t number) {
    TR_PRINTF(TR_MESSAGES, "Getting severity for message %d\n", number);
    if (!gNls.started) return NL_SEV_UNKNOWN;
    NlsLock lock;
    if (!lock.held()) return NL_SEV_E;
    NLSMsg* msg = gNls.GetMsg(number);
    uint8_t severity = msg ? msg->severity : static_cast<uint8_t>(NL_SEV_UNKNOWN);
    bool report = false;
    std::string text;
    if (!lock.release(&report, &text)) severity = NL_SEV_UNKNOWN;
    reportPending(report, text);
    TR_PRINTF(TR_MESSAGES, "Severity is %d\n", severity);
    return severity;
}

namespace {

template <typename Buffer, typename Text>
int32_t msgText(uint16_t number, Text* text, va_list args) {
    if (!gNls.started) return RC_MSG_NOT_FOUND;
    NlsLock lock;
    if (!lock.held()) return RC_MSG_NOT_FOUND;
    int32_t rc = RC_MSG_NOT_FOUND;
    NLSMsg* msg = gNls.GetMsg(number);
    if (msg) {
        Buffer buffer;
        buffer.append(msg->text, msg->bodyOffset);
        nlOrderInsert(msg->compiled, &buffer, args);
        *text = buffer.text();
        rc = RC_OK;
    }
    bool report = false;
    std::string pending;
    lock.release(&report, &pending);
    reportPending(report, pending);
    return rc;
}

uint8_t messageTypeFor(uint8_t severity) {
    switch (severity) {
        case NL_SEV_T: return 7;
        case NL_SEV_I: return 2;
        case NL_SEV_W: return 3;
        case NL_SEV_E: return 4;
        case NL_SEV_S: return 5;
        default: return 0;
    }
}

// The argument descriptors of a message; a fast-path format is read for them.
size_t argumentsOf(const NlCompiled& msg, NlCompiled::Arg* args) {
    if (msg.kind != NL_KIND_FASTPATH) {
        for (uint8_t i = 0; i < msg.count; ++i) args[i] = msg.args[i];
        return msg.count;
    }
    size_t n = 0;
    size_t avail = strlen(msg.format);
    for (size_t i = 0; i < avail && n < NL_MAX_INSERTS; ++i) {
        if (msg.format[i] != '%') continue;
        NlConversion conv;
        if (i + 1 < avail && msg.format[i + 1] == '%') {
            ++i;
        } else if (nlParseConversion(msg.format + i, avail - i, &conv)) {
            args[n++] = NlCompiled::Arg{conv.stars, conv.type, msg.format + i, conv.wide};
            i += conv.length - 1;
        }
    }
    return n;
}

// Takes the list by pointer: va_arg must advance the caller's list on every ABI.
NlInsertValue fetchValue(const NlCompiled::Arg& arg, va_list* args) {
    NlInsertValue value;
    value.type = arg.type;
    switch (arg.type) {
        case NL_ARG_INT: value.integer = va_arg(*args, int); break;
        case NL_ARG_UINT: value.integer = va_arg(*args, unsigned); break;
        case NL_ARG_LONG: value.integer = va_arg(*args, long); break;
        case NL_ARG_DOUBLE: value.real = va_arg(*args, double); break;
        default: value.pointer = va_arg(*args, const void*); break;
    }
    bool narrowString = arg.type == NL_ARG_PTR && !arg.wide && strchr(arg.conv, 's') != nullptr;
    if (narrowString) value.text = value.pointer ? static_cast<const char*>(value.pointer) : "(null)";
    return value;
}

void collectInserts(const NLSMsg& msg, NlInserts* inserts, va_list* args) {
    NlCompiled::Arg descriptors[NL_MAX_INSERTS];
    size_t n = argumentsOf(msg.compiled, descriptors);
    inserts->messageType = messageTypeFor(msg.severity);
    for (size_t i = 0; i < n; ++i) {
        for (uint8_t s = 0; s < descriptors[i].stars; ++s) {
            inserts->values.push_back(fetchValue(NlCompiled::Arg{0, NL_ARG_INT, "%d", false}, args));
            inserts->size += sizeof(int32_t);
        }
        NlInsertValue value = fetchValue(descriptors[i], args);
        bool isText = value.pointer != nullptr && !value.text.empty();
        bool wideWord = value.type == NL_ARG_LONG || value.type == NL_ARG_DOUBLE || value.type == NL_ARG_PTR;
        inserts->size += isText ? value.text.size() + 1 : (wideWord ? 8 : 4);
        inserts->values.push_back(value);
    }
}

}  // namespace

int32_t nlMsgText(uint16_t number, std::string* text, va_list args) {
    return msgText<nlsCharBuffer>(number, text, args);
}

int32_t nlMsgTextW(uint16_t number, std::wstring* text, va_list args) {
    return msgText<nlsWcharBuffer>(number, text, args);
}

int32_t nlGetText(std::string* text, uint32_t number, ...) {
    va_list args;
    va_start(args, number);
    int32_t rc = nlMsgText(static_cast<uint16_t>(number), text, args);
    va_end(args);
    return rc;
}

int32_t nlGetInserts(uint16_t number, NlInserts* inserts, va_list args) {
    *inserts = NlInserts();
    if (!gNls.started) {
        inserts->text = "??????";
        return RC_MISSING_ARG;
    }
    NlsLock lock;
    NLSMsg* msg = lock.held() ? gNls.GetMsg(number) : nullptr;
    int32_t rc = msg ? RC_OK : RC_MSG_NOT_FOUND;
    if (msg) {
        va_list copy;
        va_copy(copy, args);
        collectInserts(*msg, inserts, &copy);
        va_end(copy);
    } else {
        inserts->text = "?????";
    }
    bool report = false;
    std::string pending;
    lock.release(&report, &pending);
    reportPending(report, pending);
    return rc;
}
