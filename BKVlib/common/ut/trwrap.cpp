// The wrapping trace file: records written at the offset kept in its header, the
// wrap back to the data start or on to the next segment, and the locks that keep
// threads and other processes sharing the file from writing over each other.
#include "BKVlib/common/ut/trace.h"

#include <sys/file.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "BKVlib/common/ut/trstate.h"

namespace {

// Bytes a record leaves free under the limit for whatever may follow it: the end
// marker (14), the close marker (22) or the line that says where the trace
// continues (33, or up to 46 with a segment number). A file that ends up even a
// byte over its limit is not continued by the next start, so the room is kept for
// the longest of them.
constexpr size_t kWrapSlack = 48;
constexpr size_t kJoinedRecordMax = 2048;

int32_t writeAt(int fd, const struct iovec* parts, int count, uint32_t offset) {
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += parts[i].iov_len;
    ssize_t n = count == 1 ? pwrite(fd, parts[0].iov_base, total, static_cast<off_t>(offset))
                           : pwritev(fd, parts, count, static_cast<off_t>(offset));
    if (n >= 0 && static_cast<size_t>(n) != total && errno == 0) errno = ENOSPC;
    return n >= 0 && static_cast<size_t>(n) == total ? 0 : -1;
}

// Closes the full segment and begins the next one, created anew.
void switchSegment() {
    trState.continuing = 1;
    FILE* old = trState.stream;
    trState.stream = nullptr;
    trState.header.unmap();
    if (old) fclose(old);
    trState.prevSeg = trState.curSeg;
    trState.curSeg = trState.curSeg % trState.segCount + 1;
    std::string name = trState.givenName;
    trBegin(name.c_str(), 1);
    trState.continuing = 0;
}

int lockFile(int fd, int operation) {
    int rc;
    do {
        rc = flock(fd, operation);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

uint64_t wrapLimitBytes() { return static_cast<uint64_t>(trWrapLimitMB()) * kTrMiB; }

}  // namespace

ReentrantHold::ReentrantHold(TrMutexHandle mutex) : mutex_(mutex), acquired_(false) {
    if (mutex_ && !trMutexHeldBySelf(mutex_)) acquired_ = trMutexAcquire(mutex_) == 0;
}

ReentrantHold::~ReentrantHold() {
    if (acquired_) trMutexRelease(mutex_);
}

TraceFileLock::TraceFileLock(FILE* stream) : outermost_(trState.fileLockDepth == 0) {
    ++trState.fileLockDepth;
    if (!outermost_ || !trIsFileStream(stream)) return;
    fd_ = fileno(stream);
    generation_ = trState.fileGeneration;
    // A file system without locks still gets the record, unserialised as before.
    if (lockFile(fd_, LOCK_EX) != 0) fd_ = -1;
    trWrapRereadOffset();
}

TraceFileLock::~TraceFileLock() {
    --trState.fileLockDepth;
    // A failed write may have closed the file meanwhile, and its descriptor number
    // may already belong to another file.
    if (fd_ >= 0 && generation_ == trState.fileGeneration) lockFile(fd_, LOCK_UN);
}

AppendLock::AppendLock(FILE* stream) : fd_(trIsFileStream(stream) ? fileno(stream) : -1) {
    if (fd_ >= 0 && lockFile(fd_, LOCK_EX) != 0) fd_ = -1;
}

AppendLock::~AppendLock() {
    if (fd_ >= 0) lockFile(fd_, LOCK_UN);
}

uint32_t trWrapLimitMB() {
    if (trState.segCount >= 2) return trState.curSeg == trState.segCount ? trState.lastSegMB : trState.segSizeMB;
    return trState.maxMB != 0 ? trState.maxMB : trState.segSizeMB;
}

int32_t trWrapPut(const char* text, size_t length) {
    FILE* stream = trState.stream;
    struct iovec part = {const_cast<char*>(text), length};
    errno = 0;
    int32_t rc = stream ? writeAt(fileno(stream), &part, 1, trState.nextWrite) : -1;
    if (rc == 0) trState.nextWrite += static_cast<uint32_t>(length);
    return rc;
}

int32_t trWrapStoreOffset() {
    FILE* stream = trState.stream;
    // "%-12lu": the digits, then blanks to the field's end.
    char field[kTrOffsetFieldLength];
    char digits[kTrOffsetFieldLength];
    size_t count = 0;
    uint32_t value = trState.nextWrite;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (size_t i = 0; i < sizeof(field); ++i) field[i] = i < count ? digits[count - 1 - i] : ' ';
    if (stream && trState.header.writeField(field)) return 0;
    struct iovec part = {field, sizeof(field)};
    errno = 0;
    return stream ? writeAt(fileno(stream), &part, 1, kTrOffsetField) : -1;
}

void trWrapRereadOffset() {
    FILE* stream = trState.stream;
    char field[kTrOffsetFieldLength];
    if (!stream) return;
    if (!trState.header.readField(field) &&
        pread(fileno(stream), field, sizeof(field), kTrOffsetField) != static_cast<ssize_t>(sizeof(field))) {
        return;
    }
    uint64_t value = 0;
    size_t digits = 0;
    while (digits < sizeof(field) && isdigit(static_cast<unsigned char>(field[digits]))) {
        value = value * 10 + static_cast<uint64_t>(field[digits++] - '0');
    }
    bool blanksAfter = true;
    for (size_t i = digits; i < sizeof(field); ++i) blanksAfter = blanksAfter && field[i] == ' ';
    if (digits > 0 && blanksAfter && value >= trState.dataStart && value <= wrapLimitBytes()) {
        trState.nextWrite = static_cast<uint32_t>(value);
    }
}

int32_t trWrapPutMarker(const char* text, size_t length) {
    FILE* stream = trState.stream;
    uint64_t limit = wrapLimitBytes();
    uint64_t room = trState.nextWrite < limit ? limit - trState.nextWrite : 0;
    struct iovec part = {const_cast<char*>(text), length < room ? length : static_cast<size_t>(room)};
    errno = 0;
    if (!stream) return -1;
    return part.iov_len == 0 ? 0 : writeAt(fileno(stream), &part, 1, trState.nextWrite);
}

int32_t trWrapCheck(size_t length) {
    double neededMB = (static_cast<double>(trState.nextWrite) + static_cast<double>(length) + kWrapSlack) / kTrMiB;
    if (neededMB <= trWrapLimitMB()) return 0;
    char text[96];
    if (trState.segCount >= 2) {
        snprintf(text, sizeof(text), "\nContinued at beginning of segment %lu\n\n",
                 static_cast<unsigned long>(trState.curSeg % trState.segCount + 1));
    } else {
        snprintf(text, sizeof(text), "\nContinued at beginning of file\n\n");
    }
    // An offset taken over from an earlier file may sit closer to the limit than
    // this tool leaves it; the line is then cut rather than the file grown.
    if (trWrapPutMarker(text, strlen(text)) != 0) return -1;
    trState.nextWrite = trState.dataStart;
    if (trState.segCount >= 2) switchSegment();
    return 0;
}

int32_t trWrapWrite(const char* prefix, size_t prefixLength, const char* text, size_t length) {
    ReentrantHold hold(trState.wrapMutex);
    // The trace may have ended, or moved to the next segment, while this thread waited.
    if (!trIsFileStream(trState.stream) || !trState.wrapping) return 0;
    TraceFileLock fileHold(trState.stream);
    if (trWrapCheck(prefixLength + length) != 0) return -1;
    FILE* stream = trState.stream;
    if (!stream) return 0;
    struct iovec parts[3] = {{const_cast<char*>(prefix), prefixLength},
                             {const_cast<char*>(text), length},
                             {const_cast<char*>(kTrEndMarker), sizeof(kTrEndMarker) - 1}};
    // The kernel takes one piece faster than three; a usual record is copied into one.
    char joined[kJoinedRecordMax];
    struct iovec whole = {joined, prefixLength + length + parts[2].iov_len};
    bool join = whole.iov_len <= sizeof(joined);
    if (join) {
        size_t at = 0;
        for (const struct iovec& part : parts) {
            memcpy(joined + at, part.iov_base, part.iov_len);
            at += part.iov_len;
        }
    }
    errno = 0;
    if (writeAt(fileno(stream), join ? &whole : parts, join ? 1 : 3, trState.nextWrite) != 0) return -1;
    trState.nextWrite += static_cast<uint32_t>(prefixLength + length);
    if (trWrapStoreOffset() != 0) return -1;
    return static_cast<int32_t>(prefixLength + length);
}
