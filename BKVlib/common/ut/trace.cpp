// Minimal trace facility: plain files and flag lists. Wrapping, segments and the
// console destination are completed behind these same calls.
#include "BKVlib/common/ut/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

unsigned char trFlags[TR_LIB_NAMED_COUNT + 8];

namespace {

const TraceClass kLibClasses[] = {
    {"ERROR", &trFlags[TR_ERROR], 0},
    {"ADMIN", &trFlags[TR_ADMIN], 0},
    {"CLIENTTYPE", &trFlags[TR_CLIENTTYPE], 0},
    {"COMM", &trFlags[TR_COMM], 1},
    {"COMMDETAIL", &trFlags[TR_COMMDETAIL], 1},
    {"COMMFULL", &trFlags[TR_COMMFULL], 1},
    {"CONFIG", &trFlags[TR_CONFIG], 0},
    {"DEBUG", &trFlags[TR_DEBUG], 0},
    {"DIROPS", &trFlags[TR_DIROPS], 0},
    {"FDB", &trFlags[TR_FDB], 0},
    {"EXCLUDECACHE", &trFlags[TR_EXCLUDECACHE], 0},
    {"FILEOPS", &trFlags[TR_FILEOPS], 0},
    {"GENERAL", &trFlags[TR_GENERAL], 0},
    {"FILELINK", &trFlags[TR_FILELINK], 0},
    {"INCR", &trFlags[TR_INCR], 0},
    {"MEMORY", &trFlags[TR_MEMORY], 0},
    {"PROXY", &trFlags[TR_PROXY], 0},
    {"PROXY_DETAIL", &trFlags[TR_PROXY_DETAIL], 0},
    {"SESSION", &trFlags[TR_SESSION], 0},
    {"TXN", &trFlags[TR_TXN], 0},
    {"NLS", &trFlags[TR_NLS], 0},
    {"COMPRESS", &trFlags[TR_COMPRESS], 0},
    {"COMPRESS_DETAIL", &trFlags[TR_COMPRESS_DETAIL], 0},
    {"FS", &trFlags[TR_FS], 0},
    {"ENTER", &trFlags[TR_ENTER], 0},
    {"MESSAGES", &trFlags[TR_MESSAGES], 0},
    {"TRUSTED", &trFlags[TR_TRUSTED], 0},
    {"MEMDETAIL", &trFlags[TR_MEMDETAIL], 0},
    {"AUDIT", &trFlags[TR_AUDIT], 0},
    {"AUDIT_LIST", &trFlags[TR_AUDIT_LIST], 0},
    {"SMSDEBUG", &trFlags[TR_SMSDEBUG], 0},
    {"SMS_DETAIL", &trFlags[TR_SMS_DETAIL], 0},
    {"POLICY", &trFlags[TR_POLICY], 0},
    {"API", &trFlags[TR_API], 0},
    {"VERBADMIN", &trFlags[TR_VERBADMIN], 0},
    {"VERBINFO", &trFlags[TR_VERBINFO], 0},
    {"TIMESTAMP", &trFlags[TR_TIMESTAMP], 0},
    {"PREFIX", &trFlags[TR_PREFIX], 0},
    {"SESSVERB", &trFlags[TR_SESSVERB], 0},
    {"FIOATTRIBS", &trFlags[TR_FIOATTRIBS], 0},
    {"EXIT", &trFlags[TR_EXIT], 0},
    {"SM", &trFlags[TR_SM], 0},
    {"SMVERBOSE", &trFlags[TR_SMVERBOSE], 0},
    {"NTREGISTRY", &trFlags[TR_NTREGISTRY], 0},
    {"DIRDETAIL", &trFlags[TR_DIRDETAIL], 0},
    {"PID", &trFlags[TR_PID], 0},
    {"FSPS", &trFlags[TR_FSPS], 0},
    {"TEST", &trFlags[TR_TEST], 0},
    {"STATS", &trFlags[TR_STATS], 0},
    {"CONFIRM", &trFlags[TR_CONFIRM], 0},
    {"EVENT", &trFlags[TR_EVENT], 0},
    {"SMLOG", &trFlags[TR_SMLOG], 0},
    {"DMI", &trFlags[TR_DMI], 0},
    {"DOMAIN", &trFlags[TR_DOMAIN], 0},
    {"THREAD", &trFlags[TR_THREAD], 0},
    {"THREAD_STATUS", &trFlags[TR_THREAD_STATUS], 0},
    {"95REGISTRY", &trFlags[TR_95REGISTRY], 0},
    {"EVENTLOG", &trFlags[TR_EVENTLOG], 0},
    {"TID", &trFlags[TR_TID], 0},
    {"DFS", &trFlags[TR_DFS], 0},
    {"API_DETAIL", &trFlags[TR_API_DETAIL], 0},
    {"WIN2K", &trFlags[TR_WIN2K], 0},
    {"VSS", &trFlags[TR_VSS], 0},
    {"VSS_DETAIL", &trFlags[TR_VSS_DETAIL], 0},
    {"OBJENUM", &trFlags[TR_OBJENUM], 0},
    {"LOGREPLACEONREBOOT", &trFlags[TR_LOGREPLACEONREBOOT], 0},
    {"IMAGE", &trFlags[TR_IMAGE], 0},
    {"APPL", &trFlags[TR_APPL], 0},
    {"PVR", &trFlags[TR_PVR], 0},
    {"PVRBUF", &trFlags[TR_PVRBUF], 0},
    {"PVRDEV", &trFlags[TR_PVRDEV], 0},
    {"QUERY", &trFlags[TR_QUERY], 0},
    {"PFM", &trFlags[TR_PFM], 0},
    {"PFM_DETAIL", &trFlags[TR_PFM_DETAIL], 0},
    {"DELTA", &trFlags[TR_DELTA], 1},
    {"DELTASTAT", &trFlags[TR_DELTASTAT], 1},
    {"ENCRYPT", &trFlags[TR_ENCRYPT], 0},
    {"ENCRYPTDETAIL", &trFlags[TR_ENCRYPTDETAIL], 0},
    {"ACL", &trFlags[TR_ACL], 0},
    {"PSTAPE", &trFlags[TR_PSTAPE], 0},
    {"RECOV", &trFlags[TR_RECOV], 0},
    {"IMAGE_DETAIL", &trFlags[TR_IMAGE_DETAIL], 0},
    {"IMAGETHREAD", &trFlags[TR_IMAGETHREAD], 0},
    {"SDB", &trFlags[TR_SDB], 0},
    {"VERBDETAIL", &trFlags[TR_VERBDETAIL], 0},
    {"UNICODE", &trFlags[TR_UNICODE], 0},
    {"CADSCHED", &trFlags[TR_CADSCHED], 0},
    {"RESTORE", &trFlags[TR_RESTORE], 0},
    {"PASSWORD", &trFlags[TR_PASSWORD], 0},
    {"SYSTEMOBJECT", &trFlags[TR_SYSTEMOBJECT], 0},
    {"JBBSERVICE", &trFlags[TR_JBBSERVICE], 0},
    {"JBBDAEMON", &trFlags[TR_JBBDAEMON], 0},
    {"JBBCOMM", &trFlags[TR_JBBCOMM], 0},
    {"JBBFIFO", &trFlags[TR_JBBFIFO], 0},
    {"JBBFILEMON", &trFlags[TR_JBBFILEMON], 0},
    {"JBBFILEMONCSV", &trFlags[TR_JBBFILEMONCSV], 0},
    {"JBBFSNOTIFY", &trFlags[TR_JBBFSNOTIFY], 0},
    {"JBBDBACCESS", &trFlags[TR_JBBDBACCESS], 0},
    {"JBBDBINSERTS", &trFlags[TR_JBBDBINSERTS], 0},
    {"JBBDBDELETES", &trFlags[TR_JBBDBDELETES], 0},
    {"JBBQUERY", &trFlags[TR_JBBQUERY], 0},
    {"JBBNPCOMM", &trFlags[TR_JBBNPCOMM], 0},
    {"JBBVERBINFO", &trFlags[TR_JBBVERBINFO], 0},
    {"JBBDBINFO", &trFlags[TR_JBBDBINFO], 0},
    {"JOURNAL", &trFlags[TR_JOURNAL], 0},
    {"NAS", &trFlags[TR_NAS], 0},
    {"NAS_DETAIL", &trFlags[TR_NAS_DETAIL], 0},
    {"MAC_DETAIL", &trFlags[TR_MAC_DETAIL], 0},
    {"DISKMAP", &trFlags[TR_DISKMAP], 0},
    {"DISKMAP_DETAIL", &trFlags[TR_DISKMAP_DETAIL], 0},
    {"INCLEXCL", &trFlags[TR_INCLEXCL], 0},
    {"INCLEXCL_DETAIL", &trFlags[TR_INCLEXCL_DETAIL], 0},
    {"INSTRUMENT", &trFlags[TR_INSTRUMENT], 0},
    {"EXTRC", &trFlags[TR_EXTRC], 0},
    {"EXTRC_DETAIL", &trFlags[TR_EXTRC_DETAIL], 0},
    {"COMGUI", &trFlags[TR_COMGUI], 0},
    {"SNAPSHOT", &trFlags[TR_SNAPSHOT], 0},
    {"SNAPSHOT_DETAIL", &trFlags[TR_SNAPSHOT_DETAIL], 0},
    {"SNAPSHOT_DRIVER", &trFlags[TR_SNAPSHOT_DRIVER], 0},
    {"SNAPSHOT_DRIVER_DETAIL", &trFlags[TR_SNAPSHOT_DRIVER_DETAIL], 0},
    {"MEMLEAK", &trFlags[TR_MEMLEAK], 0},
    {"GROUPS", &trFlags[TR_GROUPS], 0},
    {"SCHED", &trFlags[TR_SCHED], 0},
    {"CLUSTER", &trFlags[TR_CLUSTER], 0},
    {"NODEACCESS", &trFlags[TR_NODEACCESS], 0},
    {"NAMEDPIPES", &trFlags[TR_NAMEDPIPES], 0},
    {"FIFO", &trFlags[TR_FIFO], 0},
    {"DOM", &trFlags[TR_DOM], 0},
    {"DOM_DETAIL", &trFlags[TR_DOM_DETAIL], 0},
    {"HCI", &trFlags[TR_HCI], 0},
    {"HCI_DETAIL", &trFlags[TR_HCI_DETAIL], 0},
    {"HDW", &trFlags[TR_HDW], 0},
    {"HDW_DETAIL", &trFlags[TR_HDW_DETAIL], 0},
    {"HWVM", &trFlags[TR_HWVM], 0},
    {"UTIL", &trFlags[TR_UTIL], 0},
    {"C2C", &trFlags[TR_C2C], 0},
    {"SBRM", &trFlags[TR_SBRM], 0},
    {"LSM", &trFlags[TR_LSM], 0},
    {"XATTR", &trFlags[TR_XATTR], 0},
    {"XATTR_DETAIL", &trFlags[TR_XATTR_DETAIL], 0},
    {"RESTFILECOPY", &trFlags[TR_RESTFILECOPY], 0},
    {"STATUSLOG", &trFlags[TR_STATUSLOG], 0},
    {"CACHEDB", &trFlags[TR_CACHEDB], 0},
    {"BACACHE", &trFlags[TR_BACACHE], 0},
    {"DBPERF", &trFlags[TR_DBPERF], 0},
    {"DBSTATS", &trFlags[TR_DBSTATS], 0},
    {"BTREEDB", &trFlags[TR_BTREEDB], 0},
    {"SMWIN", &trFlags[TR_SMWIN], 0},
    {nullptr, nullptr, 0},
};

const TraceAggregate kLibAggregates[] = {
    {nullptr, nullptr},
};

FILE* gStream = nullptr;
bool gActive = false;
bool gFirstFlags = true;

void clearFlags() {
    for (size_t i = 1; i < sizeof(trFlags); ++i) trFlags[i] = 0;
}

int32_t applyList(const char* text, bool enable, int32_t quiet, const TraceClass* classes,
                  const TraceAggregate* aggregates) {
    std::string list = text ? text : "";
    size_t pos = 0;
    while (true) {
        pos = list.find_first_not_of(' ', pos);
        if (pos == std::string::npos) break;
        size_t end = list.find(' ', pos);
        std::string word = list.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end;
        for (char& c : word) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        bool negated = word[0] == '-';
        if (negated) word.erase(0, 1);
        unsigned char value = (enable && !negated) ? 1 : 0;
        bool found = false;
        if (word == "ALL") {
            for (const TraceClass* c = classes; c->name; ++c)
                if (c->flag != &trFlags[TR_TIMESTAMP] && c->flag != &trFlags[TR_PREFIX]) *c->flag = value;
            found = true;
        }
        for (const TraceAggregate* a = aggregates; !found && a && a->name; ++a) {
            if (word == a->name) {
                applyList(a->members, enable && !negated, quiet, classes, aggregates);
                found = true;
            }
        }
        for (const TraceClass* c = classes; !found && c->name; ++c) {
            if (word == c->name) {
                *c->flag = value;
                found = true;
            }
        }
        if (!found) {
            if (!quiet) printf("Invalid trace flag: %s\n", word.c_str());
            return -1;
        }
        if (pos == std::string::npos) break;
    }
    return 0;
}

}  // namespace

int32_t trInit(int32_t, unsigned long, ThreadTagFn) {
    clearFlags();
    gFirstFlags = true;
    return 0;
}

int32_t trSetFlags(const char* text, int32_t quiet, const TraceClass* classTable,
                   const TraceAggregate* aggregateTable) {
    int savedErrno = errno;
    if (gFirstFlags) {
        trFlags[TR_TIMESTAMP] = 1;
        trFlags[TR_PREFIX] = 1;
        gFirstFlags = false;
    }
    int32_t rc = applyList(text, true, quiet, classTable, aggregateTable);
    errno = savedErrno;
    return rc;
}

int32_t trSetLibFlags(const char* text, int32_t quiet) {
    return trSetFlags(text, quiet, kLibClasses, kLibAggregates);
}

int32_t trSetMaxMB(uint32_t) { return 0; }
int32_t trSetSegSizeMB(uint32_t) { return 0; }
int32_t trSetFileName(const char*) { return 0; }
void trSetConsoleSink(ConsoleSink, void*) {}

int32_t trBegin(const char* name, int32_t) {
    if (!name || !*name) return -1;
    if (gStream) return 0;
    if (strcmp(name, "STDOUT") == 0) {
        gStream = stdout;
    } else if (strcmp(name, "STDERR") == 0) {
        gStream = stderr;
    } else {
        gStream = fopen(name, "ae");
        if (!gStream) return 426;
        fprintf(gStream, "QLX Trace   ZOR Quillon 5.2.8.0  \nBuild Date: %s\nBEGINNING NEW TRACE\n\n", PP_BUILD_DATE);
    }
    gActive = true;
    return 0;
}

int32_t trVPrintf(const char* file, uint32_t line, const char* format, va_list args) {
    if (!trIsActive()) return 0;
    int savedErrno = errno;
    int n = 0;
    if (trFlags[TR_PREFIX]) n += fprintf(gStream, "%-20s(%4u): ", file, line);
    n += vfprintf(gStream, format, args);
    size_t len = strlen(format);
    if (len == 0 || format[len - 1] != '\n') n += fputc('\n', gStream) == EOF ? 0 : 1;
    fflush(gStream);
    errno = savedErrno;
    return n;
}

int32_t trPrintf(const char* file, uint32_t line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t n = trVPrintf(file, line, format, args);
    va_end(args);
    return n;
}

int32_t trWPrintf(const char*, uint32_t, const wchar_t*, ...) { return 0; }

int32_t trRawPrintf(const char* format, ...) {
    if (!trIsActive()) return 0;
    va_list args;
    va_start(args, format);
    int n = vfprintf(gStream, format, args);
    va_end(args);
    fflush(gStream);
    return n;
}

void trDumpMemory(const void*, int32_t, int32_t) {}
void trDumpHex(const void*, int32_t, int32_t) {}

int32_t trIsActive() { return gStream && gActive ? 1 : 0; }

int32_t trEnd(int32_t close) {
    clearFlags();
    if (close && gStream) {
        if (gStream != stdout && gStream != stderr) fclose(gStream);
        gStream = nullptr;
    }
    gActive = false;
    gFirstFlags = true;
    return 0;
}

int32_t trTerminate() {
    clearFlags();
    return 0;
}

int32_t trQuery(int32_t, char*) { return 0; }
void trShowTables() {}
void trLogEnabledClasses() {}
int32_t trStatusLog(const char*, const char*, char*) { return 0; }
