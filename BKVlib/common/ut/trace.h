// The runtime library's trace facility: named classes switched on by flag lists,
// records with a prefix (time, pid, thread, source file and line) written to one
// destination (plain, wrapping or segmented file, standard output or error, console).
// One process-wide state, guarded by its state mutex; wrapping files by the wrap mutex
// within the process and by a lock on the file between processes that share it.
// No function here changes the errno its caller sees.
#ifndef BKVLIB_COMMON_UT_TRACE_H
#define BKVLIB_COMMON_UT_TRACE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cwchar>

// One row of a class table; a table ends with a row whose name is null.
// Several tables may point at the same flag byte.
struct TraceClass {
    const char* name;
    unsigned char* flag;
    uint32_t mark;
};

// One row of an aggregate table; members is a flag list in the user grammar.
struct TraceAggregate {
    const char* name;
    const char* members;
};

// Index of each row of the library's class table, in table order.
enum TraceClassId {
    TR_ERROR,
    TR_ADMIN,
    TR_CLIENTTYPE,
    TR_COMM,
    TR_COMMDETAIL,
    TR_COMMFULL,
    TR_CONFIG,
    TR_DEBUG,
    TR_DIROPS,
    TR_FDB,
    TR_EXCLUDECACHE,
    TR_FILEOPS,
    TR_GENERAL,
    TR_FILELINK,
    TR_INCR,
    TR_MEMORY,
    TR_PROXY,
    TR_PROXY_DETAIL,
    TR_SESSION,
    TR_TXN,
    TR_NLS,
    TR_COMPRESS,
    TR_COMPRESS_DETAIL,
    TR_FS,
    TR_ENTER,
    TR_MESSAGES,
    TR_TRUSTED,
    TR_MEMDETAIL,
    TR_AUDIT,
    TR_AUDIT_LIST,
    TR_SMSDEBUG,
    TR_SMS_DETAIL,
    TR_POLICY,
    TR_API,
    TR_VERBADMIN,
    TR_VERBINFO,
    TR_TIMESTAMP,
    TR_PREFIX,
    TR_SESSVERB,
    TR_FIOATTRIBS,
    TR_EXIT,
    TR_SM,
    TR_SMVERBOSE,
    TR_NTREGISTRY,
    TR_DIRDETAIL,
    TR_PID,
    TR_FSPS,
    TR_TEST,
    TR_STATS,
    TR_CONFIRM,
    TR_EVENT,
    TR_SMLOG,
    TR_DMI,
    TR_DOMAIN,
    TR_THREAD,
    TR_THREAD_STATUS,
    TR_95REGISTRY,
    TR_EVENTLOG,
    TR_TID,
    TR_DFS,
    TR_API_DETAIL,
    TR_WIN2K,
    TR_VSS,
    TR_VSS_DETAIL,
    TR_OBJENUM,
    TR_LOGREPLACEONREBOOT,
    TR_IMAGE,
    TR_APPL,
    TR_PVR,
    TR_PVRBUF,
    TR_PVRDEV,
    TR_QUERY,
    TR_PFM,
    TR_PFM_DETAIL,
    TR_DELTA,
    TR_DELTASTAT,
    TR_ENCRYPT,
    TR_ENCRYPTDETAIL,
    TR_ACL,
    TR_PSTAPE,
    TR_RECOV,
    TR_IMAGE_DETAIL,
    TR_IMAGETHREAD,
    TR_SDB,
    TR_VERBDETAIL,
    TR_UNICODE,
    TR_CADSCHED,
    TR_RESTORE,
    TR_PASSWORD,
    TR_SYSTEMOBJECT,
    TR_JBBSERVICE,
    TR_JBBDAEMON,
    TR_JBBCOMM,
    TR_JBBFIFO,
    TR_JBBFILEMON,
    TR_JBBFILEMONCSV,
    TR_JBBFSNOTIFY,
    TR_JBBDBACCESS,
    TR_JBBDBINSERTS,
    TR_JBBDBDELETES,
    TR_JBBQUERY,
    TR_JBBNPCOMM,
    TR_JBBVERBINFO,
    TR_JBBDBINFO,
    TR_JOURNAL,
    TR_NAS,
    TR_NAS_DETAIL,
    TR_MAC_DETAIL,
    TR_DISKMAP,
    TR_DISKMAP_DETAIL,
    TR_INCLEXCL,
    TR_INCLEXCL_DETAIL,
    TR_INSTRUMENT,
    TR_EXTRC,
    TR_EXTRC_DETAIL,
    TR_COMGUI,
    TR_SNAPSHOT,
    TR_SNAPSHOT_DETAIL,
    TR_SNAPSHOT_DRIVER,
    TR_SNAPSHOT_DRIVER_DETAIL,
    TR_MEMLEAK,
    TR_GROUPS,
    TR_SCHED,
    TR_CLUSTER,
    TR_NODEACCESS,
    TR_NAMEDPIPES,
    TR_FIFO,
    TR_DOM,
    TR_DOM_DETAIL,
    TR_HCI,
    TR_HCI_DETAIL,
    TR_HDW,
    TR_HDW_DETAIL,
    TR_HWVM,
    TR_UTIL,
    TR_C2C,
    TR_SBRM,
    TR_LSM,
    TR_XATTR,
    TR_XATTR_DETAIL,
    TR_RESTFILECOPY,
    TR_STATUSLOG,
    TR_CACHEDB,
    TR_BACACHE,
    TR_DBPERF,
    TR_DBSTATS,
    TR_BTREEDB,
    TR_SMWIN,
    // Rows named after the maker's other products.
    TR_DEF27431,
    TR_VAULTDB,
    TR_VAULTDB_DETAIL,
    TR_HARBOR,
    TR_HARBOR_DETAIL,
    TR_HARBOR_COMM,
    TR_LIB_CLASS_COUNT
};
// Rows up to SMWIN are the library's own topics; product rows follow them.
constexpr int TR_LIB_NAMED_COUNT = TR_SMWIN + 1;

// The library's flag bytes, indexed by TraceClassId. All off at start.
extern unsigned char trFlags[];
// The library's class table (row i flags trFlags[i]) and aggregate table, each
// ended by a row with a null name.
extern const TraceClass trLibClasses[];
extern const TraceAggregate trLibAggregates[];

// Fills banner (a thread-change banner, empty when the thread did not change) and
// tag (the "[tid] " text) for the calling thread. Sizes are the buffer capacities.
// trFormatThreadTag does the standard filling for a callback that knows its thread.
typedef void (*ThreadTagFn)(char* banner, size_t bannerSize, char* tag, size_t tagSize);
void trFormatThreadTag(unsigned long threadId, char* banner, size_t bannerSize, char* tag, size_t tagSize);
// The standard filling for whichever thread is calling, by its thread number.
void trCallerThreadTag(char* banner, size_t bannerSize, char* tag, size_t tagSize);
// Catalogue messages the trace has for the user: a bad destination name (236, the
// name), an unusable directory (the directory, the error text) and the headings of
// a query (no inserts; standard output only, toErrorLog false). The message layer
// traces, so the trace cannot issue them itself: whoever starts the trace installs
// the sink, which stays until replaced. Without one the notices are dropped
// and the return codes still tell.
typedef void (*TraceNoticeFn)(uint16_t msgNum, bool toErrorLog, const char* insert1, const char* insert2);
void trSetNoticeSink(TraceNoticeFn sink);
// CONSOLE destination: op 0 open (0 accepts), 1 write text, 2 close.
typedef int32_t (*ConsoleSink)(int32_t op, const char* text, void* context);

// Longest destination name, terminator excluded.
constexpr size_t TR_MAX_NAME = 1023;
// Capacity a trQuery or trStatusLog caller's buffer must have.
constexpr size_t TR_QUERY_BUFFER_SIZE = 16384;
constexpr size_t TR_PATH_BUFFER_SIZE = TR_MAX_NAME + 1;
// trQuery kinds.
constexpr int32_t TR_QUERY_ENABLED = 101;
constexpr int32_t TR_QUERY_DISABLED = 102;
constexpr int32_t TR_QUERY_ALL = 103;

// Creates the state once (a second call returns 0 and changes nothing) and
// switches every class but ERROR off. threadId is the caller's thread number.
int32_t trInit(int32_t clientType, unsigned long threadId, ThreadTagFn threadTagFn);
// Applies a flag list ("SERVICE -TIMESTAMP"): classes, aggregates, ALL and "-"
// negations. 0, or -1 at the first unknown word (earlier words keep their effect).
int32_t trSetFlags(const char* text, int32_t quiet, const TraceClass* classTable,
                   const TraceAggregate* aggregateTable);
int32_t trSetLibFlags(const char* text, int32_t quiet);
// Size limits of a file destination, set before trBegin. Above 1000 MB, or with a
// segment size, the trace is split into segment files name.1, name.2, ...
int32_t trSetMaxMB(uint32_t mb);
int32_t trSetSegSizeMB(uint32_t mb);
// Records the destination before trBegin: 0, -1 for no or a too long name,
// RC_TRACE_DIR_UNUSABLE when its directory cannot be written.
int32_t trSetFileName(const char* name);
void trSetConsoleSink(ConsoleSink sink, void* context);
// Opens "STDOUT", "STDERR", "CONSOLE" or a file and begins tracing. 0, -1 for a
// bad name, RC_TRACE_OPEN_FAILED when the file cannot be opened.
int32_t trBegin(const char* name, int32_t announce);
// Returns the length written, 0 when tracing is not active, RC_NO_MEMORY without memory.
// Every writing call leaves errno as it found it.
int32_t trPrintf(const char* file, uint32_t line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int32_t trVPrintf(const char* file, uint32_t line, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
int32_t trWPrintf(const char* file, uint32_t line, const wchar_t* format, ...);
// A record for signal handlers: built without heap memory, its text cut to fit
// TR_SIGNAL_RECORD bytes.
constexpr size_t TR_SIGNAL_RECORD = 1024;
int32_t trSignalPrintf(const char* file, uint32_t line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// A record written as formatted: no prefix, no newline added.
int32_t trRawPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void trDumpMemory(const void* address, int32_t length, int32_t bytesPerLine);
void trDumpHex(const void* buffer, int32_t length, int32_t mode);
int32_t trIsActive();
// Switches every class but ERROR off; with close = 1 also closes the destination
// and forgets the size limits. Do not call while other threads still write.
int32_t trEnd(int32_t close);
int32_t trTerminate();
// Status and class report into buffer (TR_QUERY_BUFFER_SIZE bytes) or, with a
// null buffer, on standard output.
int32_t trQuery(int32_t kind, char* buffer);
void trShowTables();
void trLogEnabledClasses();
// Whether a status log started by trStatusLog carries the record prefix (default 1).
void trSetStatusLogPrefix(int32_t on);
// resultPath must hold TR_PATH_BUFFER_SIZE bytes.
int32_t trStatusLog(const char* directory, const char* fileName, char* resultPath);

// Library call sites: one byte test, then the record with the caller's file and line.
#define TR_PRINTF(cls, ...)                                   \
    do {                                                      \
        if (trFlags[cls]) trPrintf(__FILE__, __LINE__, __VA_ARGS__); \
    } while (0)

#endif
