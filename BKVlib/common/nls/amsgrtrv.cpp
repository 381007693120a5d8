#include "BKVlib/common/nls/amsgrtrv.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "BKVlib/common/nls/amsgnote.h"
#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

const char* const NL_LIB_CATALOG = "kfwclientV3.cat";

namespace {

const char* const kModule = "BKVlib/common/nls/amsgrtrv";
const char* const kDefaultText = "KRN1111M Error retrieving message %d from kfwclientV3.cat.\n";
const nl_catd kNoCat = reinterpret_cast<nl_catd>(-1);
constexpr size_t kPendingMax = 1280;

struct LanguageRow {
    const char* code;
    const char* locale;
};

const LanguageRow kLanguages[] = {
    {"Ja", "Ja_JP"}, {"Zh", "Zh_CN"}, {"de", "de_DE"}, {"en", "en_US"}, {"es", "es_ES"}, {"fr", "fr_FR"},
    {"it", "it_IT"}, {"ja", "ja_JP"}, {"ko", "ko_KR"}, {"pt", "pt_BR"}, {"zh", "zh_CN"},
};

nlsObject_t gNls;
MutexHandle gNlsMutex = nullptr;
std::once_flag gMutexOnce;
std::string gForcedLanguage;
std::string gCurrentLanguage;

void createMutex() {
    std::call_once(gMutexOnce, [] { pkCreateMutex(&gNlsMutex); });
}

// Logs what the last lookup built; called after the NLS mutex is released,
// because the loggers take it again.
void reportPending(bool report, const std::string& text) {
    if (report) nlNoteLibText(NL_SEV_E, text.c_str(), true);
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
        nlNote(263, NL_ERRORLOG | NL_SEVERITY, kModule, __LINE__, "Unable to release NLS mutex");
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
        nlSetPending("KRN0101E Unable to open English message repository '%s'.\n", path.c_str());
        gNls.pendingReport = false;
        nlNoteLibText(NL_SEV_E, gNls.pendingText.c_str(), false);
        rc = RC_NLS_INIT_FAILED;
    }
    return rc;
}

void openLocal(const char* dir, const char* catalogName, std::string* languageOut) {
    std::string lang = gForcedLanguage.empty() ? localeLanguage(gNls.settings.clientType) : gForcedLanguage;
    *languageOut = lang;
    gCurrentLanguage = lang;
    // English asked for, from the file the English catalogue already has open:
    // one handle serves both, as it does after a fallback.
    if (lang == "en_US" && gNls.englishCatalogName == catalogName && gNls.englishCat != kNoCat) {
        gNls.localCat = gNls.englishCat;
        return;
    }
    if (openCat(dir, lang.c_str(), catalogName, &gNls.localCat) == RC_OK) return;
    gCurrentLanguage = "en_US";
    gNls.localCat = gNls.englishCat;
    std::string path = joinPath(dir, lang.c_str(), catalogName);
    if (path.size() > NL_NAME_MAX) path = "???";
    nlSetPending("KRN0102W Unable to open the message repository %s. The American English repository will be used "
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

}  // namespace


namespace {

NLSMsg* loadMsg(nl_catd cat, uint16_t number) {
    TR_PRINTF(TR_NLS, "Going to catgets() for localCatP = %p (%d)\n", static_cast<void*>(cat), number);
    errno = 0;
    const char* raw = catgets(cat, gNls.settings.catalogSet, number, kDefaultText);
    if (raw == nullptr || strcmp(raw, kDefaultText) == 0) {
        int err = errno;
        TR_PRINTF(TR_NLS, "Returned from catgets() errno = %d/%s\n", err, strerror(err));
        nlSetPending("KRN9999E %s(%u): Message No %u could not be found.\n", kModule, __LINE__, number);
        return nullptr;
    }
    TR_PRINTF(TR_NLS, "Returned from catgets() msgP = %s\n", raw);
    return nlBuildMsg(number, raw);
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

void nlSetPending(const char* format, ...) {
    char text[kPendingMax];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    gNls.pendingText = text;
    gNls.pendingReport = true;
}

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
        nlCollectInserts(*msg, inserts, &copy);
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
