// Where the trace goes: size limits and segments, the destination's name, opening
// a plain or wrapping file or a standard stream, and ending the trace.
#include "BKVlib/common/ut/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/pathname.h"
#include "BKVlib/common/ut/trstate.h"
#include "PathPlannerVersion.h"

namespace {

constexpr uint32_t kDefaultSegmentMB = 1000;
constexpr const char kPlainHeader[] = "QLX Trace   ZOR Quillon " PP_VERSION "  \nBuild Date: %s\nBEGINNING NEW TRACE\n\n";
constexpr const char kWrapTag[] = "QLX Trace   ";
constexpr const char kOffsetPlaceholder[] = "123456789012";
constexpr const char kWrapHeaderRest[] = "%-10lu ZOR Quillon " PP_VERSION "   Build date: %s\n";
constexpr const char kBegunText[] = "BEGINNING NEW TRACE\n\n";
constexpr long kOffsetFieldEnd = 24;
constexpr size_t kFirstLineMax = 256;

void createWrapMutexOnce() {
    if (!trState.wrapMutex) trMutexCreate(&trState.wrapMutex);
}

void computeSegments(uint32_t segMB) {
    if (trState.maxMB != 0) {
        if (segMB > trState.maxMB) segMB = trState.maxMB;
        trState.segCount = static_cast<int32_t>((trState.maxMB - 1) / segMB + 1);
        trState.lastSegMB = trState.maxMB % segMB == 0 ? segMB : trState.maxMB % segMB;
    } else {
        trState.segCount = -1;
        trState.lastSegMB = segMB;
    }
    trState.segSizeMB = segMB;
    trState.wrapping = 1;
    trState.maxSet = 1;
    createWrapMutexOnce();
}

// A name in one pair of single or double quotation marks is taken without them.
std::string unquote(const char* name) {
    std::string text = name;
    size_t n = text.size();
    if (n >= 2 && (text[0] == '"' || text[0] == '\'') && text[n - 1] == text[0]) text = text.substr(1, n - 2);
    return text;
}

bool isStandardName(const std::string& name) {
    return name == "STDOUT" || name == "STDERR" || name == "CONSOLE";
}

std::string fullPath(const std::string& name) {
    if (!name.empty() && name[0] == '/') return name;
    char cwd[4096];
    std::string dir = getcwd(cwd, sizeof(cwd)) ? cwd : ".";
    return dir + "/" + name;
}

// 0, or the library message number that says why the directory cannot be used,
// with the error behind it in *error.
uint16_t directoryProblem(const std::string& dir, int* error) {
    struct stat info {};
    uint16_t msgNum = 0;
    if (stat(dir.c_str(), &info) != 0) {
        msgNum = 238;
    } else if (!S_ISDIR(info.st_mode)) {
        msgNum = 239;
        errno = ENOTDIR;
    } else if (access(dir.c_str(), W_OK | X_OK) != 0) {
        msgNum = 241;
    }
    *error = errno;
    return msgNum;
}

int32_t openFailed(const std::string& name) {
    if (trState.stdEcho) printf("Unable to open trace output file %s\n", name.c_str());
    trEnd(1);
    return RC_TRACE_OPEN_FAILED;
}

int32_t beginConsole() {
    if (!trState.consoleSink) return 0;
    if (trState.consoleSink(0, nullptr, trState.consoleContext) == 0) {
        trState.consoleMode = 1;
        trState.stdEcho = 0;
        trState.active = 1;
        trState.stream = stderr;
        trRawPrintf("Tracing to stderr\n");
    }
    return 0;
}

int32_t beginStandard(bool toStdout) {
    trState.wrapping = 0;
    trState.stream = toStdout ? stdout : stderr;
    trPrintf(__FILE__, __LINE__, toStdout ? "Tracing to stdout\n" : "Tracing to stderr\n");
    return 0;
}

// Local file systems append each write under the inode's lock, so one write of a
// record never interleaves with another process's. Network and user-space file
// systems make no such promise and keep the lock around every record.
bool appendsWhole(int fd) {
    constexpr unsigned long kWholeAppendTypes[] = {0xEF53, 0x58465342, 0x9123683E, 0x01021994, 0x794C7630};
    struct statfs info {};
    if (fstatfs(fd, &info) != 0) return false;
    for (unsigned long type : kWholeAppendTypes) {
        if (static_cast<unsigned long>(info.f_type) == type) return true;
    }
    return false;
}

int32_t beginPlainFile() {
    FILE* file = fopen(trState.fileName.c_str(), "ae");
    if (!file) return openFailed(trState.fileName);
    trState.appendsWhole = appendsWhole(fileno(file));
    fprintf(file, kPlainHeader, PP_BUILD_DATE);
    fflush(file);
    trState.stream = file;
    return 0;
}

// The first line of a wrapping file: "QLX Trace   <nextWrite> <maxMB> ...".
struct WrapHeader {
    bool parsed = false;
    unsigned nextWrite = 0;
    unsigned maxMB = 0;
    size_t lineLength = 0;
};

WrapHeader readWrapHeader(FILE* file) {
    WrapHeader header;
    char line[kFirstLineMax + 1] = "";
    if (fgets(line, sizeof(line), file) && strchr(line, '\n')) {
        // The offset field is written "%-12lu", so a plain %u read finds both numbers.
        header.parsed = sscanf(line, "QLX Trace   %u %u", &header.nextWrite, &header.maxMB) == 2;
        header.lineLength = strlen(line);
    }
    return header;
}

bool reusable(const WrapHeader& header, off_t size) {
    uint64_t limit = static_cast<uint64_t>(trWrapLimitMB()) * kTrMiB;
    return header.parsed && static_cast<uint64_t>(size) <= limit && header.maxMB <= trState.maxMB &&
           trState.segCount < 2 && header.nextWrite >= header.lineLength &&
           static_cast<off_t>(header.nextWrite) <= size;
}

// Continues the earlier wrapping trace in file when it was written for this limit.
bool reuseWrapFile(FILE* file) {
    struct stat info {};
    fstat(fileno(file), &info);
    WrapHeader header = readWrapHeader(file);
    if (!reusable(header, info.st_size)) return false;
    trState.dataStart = static_cast<uint32_t>(header.lineLength);
    trState.nextWrite = header.nextWrite;
    char rest[128];
    int n = snprintf(rest, sizeof(rest), kWrapHeaderRest, static_cast<unsigned long>(trState.maxMB), PP_BUILD_DATE);
    return pwrite(fileno(file), rest, static_cast<size_t>(n), kOffsetFieldEnd) == n;
}

bool createWrapFile(FILE* file) {
    std::string header = std::string(kWrapTag) + kOffsetPlaceholder;
    char rest[128];
    snprintf(rest, sizeof(rest), kWrapHeaderRest, static_cast<unsigned long>(trState.maxMB), PP_BUILD_DATE);
    header += rest;
    header += "\n";
    // Only a regular file has old contents to drop; a device such as /dev/null has none.
    struct stat info {};
    bool regular = fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode);
    if ((regular && ftruncate(fileno(file), 0) != 0) ||
        pwrite(fileno(file), header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) {
        return false;
    }
    trState.dataStart = trState.nextWrite = static_cast<uint32_t>(header.size());
    trWrapStoreOffset();
    return true;
}

// Opened without truncating: other processes may be writing to the file, and
// whether it is continued or started anew is decided under its lock.
FILE* openWrapFile() {
    int fd = open(trState.fileName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    FILE* file = fd >= 0 ? fdopen(fd, "r+") : nullptr;
    if (fd >= 0 && !file) close(fd);
    return file;
}

int32_t writeFirstRecord() {
    int32_t rc = 0;
    if (trState.continuing) {
        char text[80];
        int n = snprintf(text, sizeof(text), "Continued from end of segment %lu\n\n",
                         static_cast<unsigned long>(trState.prevSeg));
        rc = trWrapWrite("", 0, text, static_cast<size_t>(n));
    } else {
        size_t n = strlen(kBegunText);
        rc = trWrapCheck(n);
        if (rc >= 0) rc = trWrapPut(kBegunText, n);
        if (rc >= 0) rc = trWrapStoreOffset();
    }
    return rc;
}

int32_t beginWrapFile() {
    FILE* file = openWrapFile();
    bool ready = false;
    int32_t rc = 0;
    if (file) {
        ++trState.fileGeneration;
        trState.stream = file;
        TraceFileLock fileHold(file);
        ready = (trState.segCount < 2 && reuseWrapFile(file)) || createWrapFile(file);
        if (ready) rc = writeFirstRecord();
        if (ready && rc >= 0 && trState.stream == file) trState.header.map(fileno(file));
    }
    if (file && !ready) {
        trState.stream = nullptr;
        fclose(file);
    }
    if (!ready) return openFailed(trState.fileName);
    if (rc < 0) trDisableAfterWriteFailure(0, errno);
    // A failed first write has already ended tracing; the open itself worked.
    return 0;
}

void announceFile() {
    trPrintf(__FILE__, __LINE__, "Tracing to file: %s\n", trState.fileName.c_str());
    trPrintf(__FILE__, __LINE__, "Tracefile maximum length set to %lu MB.\n",
             static_cast<unsigned long>(trState.maxMB));
    time_t now = time(nullptr);
    char date[32];
    char clock[32];
    trFormatDateTime(now, date, sizeof(date), clock, sizeof(clock));
    trPrintf(__FILE__, __LINE__, "----------------------------------------------------------------\n%s %s - Trace begun.\n",
             date, clock);
}

int32_t beginFile(int32_t announce) {
    int32_t rc = trState.wrapping ? beginWrapFile() : beginPlainFile();
    if (rc == 0 && trState.stream) {
        if (trState.maxSet) {
            trState.active = 1;
            trFlags[TR_TIMESTAMP] = 1;
            trFlags[TR_PREFIX] = 1;
        }
        if (announce) announceFile();
    }
    return rc;
}

// Runs under both mutexes; the destination is not open yet.
int32_t openDestination(const std::string& name, int32_t announce) {
    if (name == "CONSOLE") return beginConsole();
    if (name == "STDOUT" || name == "STDERR") return beginStandard(name == "STDOUT");
    std::string path = fullPath(name);
    if (trState.givenName.empty()) trState.givenName = path;
    trState.fileName = path;
    if (trState.segCount >= 2) trState.fileName += "." + std::to_string(trState.curSeg);
    return beginFile(announce);
}

void closeWrapFile(FILE* file) {
    if (trState.wrapping && !trState.continuing) {
        TraceFileLock fileHold(file);
        // The close below reports the failure that matters.
        trWrapPutMarker(kTrCloseMarker, strlen(kTrCloseMarker));
    }
}

void closeDestination() {
    if (trState.consoleMode && !trState.continuing) {
        if (trState.consoleSink) trState.consoleSink(2, nullptr, trState.consoleContext);
        trState.consoleMode = 0;
    }
    FILE* file = trState.stream;
    if (trIsFileStream(file)) {
        closeWrapFile(file);
        trState.header.unmap();
        ++trState.fileGeneration;
        if (fclose(file) != 0) {
            printf("Unable to close trace output file %s: %s \n", trState.fileName.c_str(), strerror(errno));
        }
    }
    trState.stream = nullptr;
    trState.active = 0;
    trState.fileName.clear();
}

}  // namespace

void trNotify(uint16_t msgNum, bool toErrorLog, const char* insert1, const char* insert2) {
    TraceNoticeFn sink = trState.noticeSink;
    if (sink) sink(msgNum, toErrorLog, insert1, insert2);
}

int32_t trSetMaxMB(uint32_t mb) {
    ErrnoSaver keepErrno;
    if (mb == 0) {
        trState.wrapping = 0;
        trState.maxMB = 0;
        trState.maxSet = 1;
        return 0;
    }
    trState.maxMB = mb;
    trState.wrapping = 1;
    trState.maxSet = 1;
    if (trState.segSizeMB != 0 || mb > kDefaultSegmentMB) {
        computeSegments(trState.segSizeMB != 0 ? trState.segSizeMB : kDefaultSegmentMB);
    }
    createWrapMutexOnce();
    return 0;
}

int32_t trSetSegSizeMB(uint32_t mb) {
    ErrnoSaver keepErrno;
    if (mb != 0) {
        computeSegments(mb);
    } else {
        trState.segSizeMB = 0;
        trState.segCount = 0;
        trState.prevSeg = 0;
        trState.lastSegMB = 0;
        trState.curSeg = 1;
    }
    return 0;
}

int32_t trSetFileName(const char* name) {
    ErrnoSaver keepErrno;
    if (!name || !*name || strlen(name) > TR_MAX_NAME) {
        trNotify(236, true, name ? name : "");
        return -1;
    }
    TrMutexLock lock(trState.stateMutex);
    std::string given = unquote(name);
    int32_t rc = 0;
    if (!trState.givenName.empty()) {
        rc = 0;
    } else if (isStandardName(given)) {
        trState.givenName = given;
    } else {
        std::string path = fullPath(given);
        std::string dir = utDirName(path);
        int error = 0;
        uint16_t problem = directoryProblem(dir, &error);
        if (problem != 0) {
            trNotify(problem, true, dir.c_str(), strerror(error));
            rc = RC_TRACE_DIR_UNUSABLE;
        } else {
            trState.givenName = path;
        }
    }
    return rc;
}

void trSetNoticeSink(TraceNoticeFn sink) {
    trState.noticeSink = sink;
}

void trSetConsoleSink(ConsoleSink sink, void* context) {
    trState.consoleSink = sink;
    trState.consoleContext = context;
}

int32_t trBegin(const char* name, int32_t announce) {
    ErrnoSaver keepErrno;
    if (!name || !*name || strlen(name) > TR_MAX_NAME) {
        printf("Invalid trace file name");
        return -1;
    }
    std::string given = unquote(name);
    ReentrantHold wrapHold(trState.wrapMutex);
    ReentrantHold stateHold(trState.stateMutex);
    int32_t rc = 0;
    if (!trState.stream) {
        rc = openDestination(given, announce);
        if (rc == 0 && trState.stream) trState.active = 1;
    }
    return rc;
}

int32_t trEnd(int32_t close) {
    ErrnoSaver keepErrno;
    ReentrantHold wrapHold(trState.wrapMutex);
    ReentrantHold stateHold(trState.stateMutex);
    trClearClassFlags();
    if (close) closeDestination();
    trState.maxMB = trState.segSizeMB = 0;
    trState.wrapping = 0;
    trState.maxSet = 0;
    trState.firstFlags = 1;
    trState.givenName.clear();
    if (!trState.continuing) {
        // Without this a later plain trace would still get a segment suffix.
        trState.segCount = 0;
        trState.curSeg = 1;
        trState.prevSeg = 0;
        trState.lastSegMB = 0;
    }
    return 0;
}

int32_t trTerminate() {
    ErrnoSaver keepErrno;
    {
        ReentrantHold wrapHold(trState.wrapMutex);
        ReentrantHold stateHold(trState.stateMutex);
        closeDestination();
    }
    trMutexDestroy(&trState.stateMutex);
    trMutexDestroy(&trState.wrapMutex);
    trState.initialised = false;
    trState.givenName.clear();
    trState.maxMB = trState.segSizeMB = trState.lastSegMB = 0;
    trState.maxSet = 0;
    trState.wrapping = 0;
    trState.segCount = 0;
    trState.consoleSink = nullptr;
    trState.consoleContext = nullptr;
    trState.threadTagFn = nullptr;
    trClearClassFlags();
    trState.statusLogRunning = false;
    return 0;
}

int32_t trIsActive() {
    FILE* stream = trState.stream.load(std::memory_order_relaxed);
    if (!stream || !trState.active.load(std::memory_order_relaxed)) return 0;
    return (trState.stdEcho || trState.consoleMode || trIsFileStream(stream)) ? 1 : 0;
}
