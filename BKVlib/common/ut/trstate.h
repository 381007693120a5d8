// The trace facility's one process-wide state, shared by its set-up code (trace.cpp,
// trdest.cpp, trquery.cpp) and its record writers (trwrite.cpp). Not for other callers.
#ifndef BKVLIB_COMMON_UT_TRSTATE_H
#define BKVLIB_COMMON_UT_TRSTATE_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "BKVlib/common/ut/trace.h"
#include "BKVlib/common/ut/trlock.h"

// The wrapping file's next-write offset: "%-12lu" at byte 12 of its first line.
constexpr size_t kTrOffsetField = 12;
constexpr size_t kTrOffsetFieldLength = 12;

// The wrapping file's offset field through a shared
// mapping of the file's start, used under wrapMutex and the file's lock. Unmapped,
// or after the page faulted, the reads and writes say false and the caller uses
// pread and pwrite.
class TraceHeaderMap {
public:
    TraceHeaderMap() = default;
    ~TraceHeaderMap();
    TraceHeaderMap(const TraceHeaderMap&) = delete;
    TraceHeaderMap& operator=(const TraceHeaderMap&) = delete;
    // Maps a regular file whose header is already written; stays unmapped otherwise.
    void map(int fd);
    void unmap();
    bool readField(char* field);
    bool writeField(const char* field);

private:
    bool copy(char* to, const char* from);
    char* page_ = nullptr;
};

// Fields read by writers on any thread without the state mutex are atomic.
// stateMutex guards opening, closing and the names; wrapMutex guards the wrap
// offsets (dataStart, nextWrite) and the write sequence on a wrapping file.
// Lock order: wrapMutex before stateMutex.
struct TraceState {
    bool initialised = false;
    std::atomic<FILE*> stream{nullptr};
    uint32_t dataStart = 0;
    uint32_t nextWrite = 0;
    TrMutexHandle stateMutex = nullptr;
    TrMutexHandle wrapMutex = nullptr;
    std::atomic<unsigned long> lastThread{0};
    int32_t clientType = 0;
    int32_t markedActive = 0;
    std::atomic<int32_t> wrapping{0};
    int32_t firstFlags = 1;
    std::atomic<int32_t> stdEcho{1};
    std::string givenName;
    std::string fileName;
    uint32_t maxMB = 0;
    int32_t maxSet = 0;
    uint32_t segSizeMB = 0;
    int32_t segCount = 0;
    int32_t curSeg = 1;
    int32_t prevSeg = 0;
    uint32_t lastSegMB = 0;
    int32_t continuing = 0;
    std::atomic<int32_t> active{0};
    std::atomic<int32_t> consoleMode{0};
    ConsoleSink consoleSink = nullptr;
    void* consoleContext = nullptr;
    std::atomic<ThreadTagFn> threadTagFn{nullptr};
    std::atomic<TraceNoticeFn> noticeSink{nullptr};
    // The status log: a trace begun by trStatusLog and kept across its calls.
    bool statusLogRunning = false;
    int32_t statusLogPrefix = 1;
    std::string statusLogPath;
    // Cross-process lock on the wrapping file: how deeply this thread holds it and
    // which opening of the file it was taken on (both under wrapMutex).
    int32_t fileLockDepth = 0;
    uint32_t fileGeneration = 0;
    TraceHeaderMap header;
    // The plain file lies on a file system that appends each write whole, so
    // processes sharing it need no lock around a record.
    std::atomic<bool> appendsWhole{false};
};

extern TraceState trState;

constexpr size_t kTrFirstBuffer = 4862;
constexpr size_t kTrSignalRecord = TR_SIGNAL_RECORD;
constexpr uint32_t kTrMiB = 1048576;
constexpr const char kTrEndMarker[] = "\nEND OF DATA\n\n";
constexpr const char kTrCloseMarker[] = "\nEND OF DATA - close\n\n";

// Tracing never changes the errno its caller sees.
class ErrnoSaver {
public:
    ErrnoSaver() : saved_(errno) {}
    ~ErrnoSaver() { errno = saved_; }
    ErrnoSaver(const ErrnoSaver&) = delete;
    ErrnoSaver& operator=(const ErrnoSaver&) = delete;

private:
    int saved_;
};

// Holds a mutex unless the calling thread already does: a segment switch begins
// the trace again from inside the writer, and a failing write ends it from there.
class ReentrantHold {
public:
    explicit ReentrantHold(TrMutexHandle mutex);
    ~ReentrantHold();
    ReentrantHold(const ReentrantHold&) = delete;
    ReentrantHold& operator=(const ReentrantHold&) = delete;

private:
    TrMutexHandle mutex_;
    bool acquired_;
};

// Holds the open trace file's lock against other processes for one record and its
// offset update, with the offset other writers left rereaded on the way in. The
// caller holds wrapMutex; nested holds (a wrap inside a record, a first record
// inside the opening) share the outermost one.
class TraceFileLock {
public:
    explicit TraceFileLock(FILE* stream);
    ~TraceFileLock();
    TraceFileLock(const TraceFileLock&) = delete;
    TraceFileLock& operator=(const TraceFileLock&) = delete;

private:
    int fd_ = -1;
    uint32_t generation_ = 0;
    bool outermost_ = false;
};

// Plain files on file systems that may interleave appends (network and user-space
// ones): the record is appended under the file's lock. A null stream holds nothing.
class AppendLock {
public:
    explicit AppendLock(FILE* stream);
    ~AppendLock();
    AppendLock(const AppendLock&) = delete;
    AppendLock& operator=(const AppendLock&) = delete;

private:
    int fd_;
};

// Every class but ERROR off.
void trClearClassFlags();
// Hands a notice to the installed sink, if any.
void trNotify(uint16_t msgNum, bool toErrorLog, const char* insert1 = nullptr, const char* insert2 = nullptr);

// The record prefix's date and time texts in the process's date and time formats
// (the agent's: "%Y-%m-%d", "%H:%M:%S").
void trFormatDateTime(time_t seconds, char* date, size_t dateSize, char* timeText, size_t timeSize);

bool trIsFileStream(FILE* stream);
// Size limit in MB of the current file or segment.
uint32_t trWrapLimitMB();
// Writes at nextWrite of the wrapping file and advances it; no marker, no check.
int32_t trWrapPut(const char* text, size_t length);
// Writes the next-write offset into the header's offset field.
int32_t trWrapStoreOffset();
// Takes over the next-write offset recorded in the header when it lies inside the
// data area; another process sharing the file may have moved it.
void trWrapRereadOffset();
// Writes text at nextWrite, cut to the room left under the limit; no advance. For
// the markers that follow the last record.
int32_t trWrapPutMarker(const char* text, size_t length);
// Makes room for length bytes: wraps to dataStart (or to the next segment).
int32_t trWrapCheck(size_t length);
// A record on the wrapping file: check, text, offset, end marker.
int32_t trWrapWrite(const char* prefix, size_t prefixLength, const char* text, size_t length);
// Writes text without any prefix; raw = 1 selects the raw writer's failure message.
int32_t trWriteRaw(const char* text, size_t length);
// Ends tracing after a failed write and says so on standard output.
void trDisableAfterWriteFailure(int32_t raw, int error);

#endif
