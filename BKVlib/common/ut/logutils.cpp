#include "BKVlib/common/ut/logutils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "BKVlib/common/ut/trace.h"
#include "PathPlannerVersion.h"

#ifndef PP_BUILD_DATE
#define PP_BUILD_DATE "unknown"
#endif

namespace {

constexpr off_t kMinLogBytes = 10;

// Reads a decimal number of at most 32 bits, as "%u" would but refusing a sign or an
// overflow, so a damaged header cannot place the next write at a wrapped-around offset.
bool consumeNumber(const char** p, const char* end, uint32_t* value) {
    uint64_t v = 0;
    const char* s = *p;
    while (s < end && *s >= '0' && *s <= '9' && v <= UINT32_MAX) v = v * 10 + static_cast<uint64_t>(*s++ - '0');
    if (s == *p || v > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(v);
    *p = s;
    return true;
}

const char* skipBlanks(const char* p, const char* end) {
    while (p < end && (*p == ' ' || *p == '\t')) ++p;
    return p;
}

}  // namespace

// ---------------------------------------------------------------------------------
// Header

LogHeader utParseLogHeader(const char* line, size_t length) {
    LogHeader header;
    const char* end = line + length;
    if (length < kLogHeaderTagLen || memcmp(line, kLogHeaderTag, kLogHeaderTagLen) != 0) return header;
    header.present = 1;
    const char* p = skipBlanks(line + kLogHeaderTagLen, end);
    if (p == line + kLogHeaderTagLen) return header;
    header.valid = consumeNumber(&p, end, &header.nextWrite) ? 1 : 0;
    const char* afterBlanks = skipBlanks(p, end);
    if (header.valid && afterBlanks > p) {
        header.hasMax = consumeNumber(&afterBlanks, end, &header.maxBytes) ? 1 : 0;
    }
    return header;
}

std::string utFormatLogHeader(uint32_t nextWrite, uint32_t maxBytes) {
    char buf[160];
    int n = snprintf(buf, sizeof(buf), "%s %-12lu%-10lu ZOR Quillon " PP_VERSION "               %s\n\n", kLogHeaderTag,
                     static_cast<unsigned long>(nextWrite), static_cast<unsigned long>(maxBytes), PP_BUILD_DATE);
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

// ---------------------------------------------------------------------------------
// Record settings and small operations

void utSetLogSettings(LogFile* log, uint32_t maxBytes, const char* saveName, uint32_t retentionDays,
                      char pruneMode, int32_t binaryModes, int32_t quiet) {
    log->maxBytes = maxBytes;
    log->saveName = saveName ? saveName : "";
    log->retentionDays = retentionDays;
    log->pruneMode = pruneMode;
    log->binaryModes = binaryModes;
    log->quiet = quiet;
}

int32_t utCloseLog(LogFile* log) {
    int32_t rc = 0;
    if (log->stream) {
        bool ok = fflush(log->stream) == 0;
        ok = fclose(log->stream) == 0 && ok;
        rc = ok ? 0 : utLogFail(log, errno);
    }
    log->stream = nullptr;
    log->wrapping = 0;
    return rc;
}

int32_t utRemoveIfEmpty(const char* path) {
    struct stat st;
    int32_t rc = 0;
    if (path && stat(path, &st) == 0 && S_ISREG(st.st_mode) && st.st_size < kMinLogBytes) {
        rc = unlink(path) == 0 ? 0 : -1;
    }
    return rc;
}

// ---------------------------------------------------------------------------------
// Writing to a wrapping log

namespace {

// Length of the first line of the open log, newline included; 0 when it cannot be read.
size_t headerLineOf(FILE* fp, char* buf, size_t size) {
    ssize_t n;
    do {
        n = pread(fileno(fp), buf, size - 1, 0);
    } while (n < 0 && errno == EINTR);
    const char* newline = n > 0 ? static_cast<const char*>(memchr(buf, '\n', static_cast<size_t>(n))) : nullptr;
    return newline ? static_cast<size_t>(newline - buf) + 1 : 0;
}

// nextWrite as another writer of the same file may have left it.
int32_t rereadNextWrite(LogFile* log) {
    char line[kLogMaxHeaderLine + 1];
    size_t length = headerLineOf(log->stream, line, sizeof(line));
    LogHeader header = utParseLogHeader(line, length);
    if (header.valid) log->nextWrite = header.nextWrite;
    return header.valid ? 0 : utLogFail(log, length == 0 && errno ? errno : EINVAL);
}

// Marks the wrap point and pads to exactly maxBytes, then restarts after the header line.
int32_t wrapToTop(LogFile* log) {
    FILE* fp = log->stream;
    bool ok = fseeko(fp, log->nextWrite, SEEK_SET) == 0 && fprintf(fp, "%s\n", kLogWrapMarker) > 0;
    off_t remaining = ok ? static_cast<off_t>(log->maxBytes) - ftello(fp) : 0;
    if (ok && remaining == 1) ok = fputc('\n', fp) != EOF;
    if (ok && remaining > 1) ok = fprintf(fp, "%*s\n", static_cast<int>(remaining - 1), "*") > 0;
    // An oversized entry may have pushed the file beyond maxBytes; cut it back.
    ok = ok && fflush(fp) == 0 && (remaining >= 0 || ftruncate(fileno(fp), ftello(fp)) == 0);
    if (ok && remaining > 0) ok = ftruncate(fileno(fp), log->maxBytes) == 0;
    char line[kLogMaxHeaderLine + 1];
    size_t headerLine = ok ? headerLineOf(fp, line, sizeof(line)) : 0;
    if (headerLine > 0) log->nextWrite = static_cast<uint32_t>(headerLine);
    return headerLine > 0 ? 0 : utLogWriteFailed(log);
}

int32_t writeNextWrite(LogFile* log, uint32_t nextWrite) {
    FILE* fp = log->stream;
    log->nextWrite = nextWrite;
    bool ok = fseeko(fp, 0, SEEK_SET) == 0 && fprintf(fp, "%s %-12lu", kLogHeaderTag, static_cast<unsigned long>(nextWrite)) > 0 &&
              fflush(fp) == 0 && fseeko(fp, nextWrite, SEEK_SET) == 0;
    TR_PRINTF(TR_GENERAL, "utSetNextWrite(): nextWrite for END OF DATA is %d .\n", static_cast<int>(nextWrite));
    ok = ok && fprintf(fp, "%s\n", kLogEndMarker) > 0 && fflush(fp) == 0;
    return ok ? 0 : utLogWriteFailed(log);
}

}  // namespace

int32_t utWrapCheck(LogFile* log, uint32_t length) {
    if (!log->wrapping || !log->stream) return 0;
    int32_t rc = rereadNextWrite(log);
    int64_t need = static_cast<int64_t>(log->nextWrite) + length + strlen(kLogEndMarker) + 1;
    int64_t room = static_cast<int64_t>(log->maxBytes) - static_cast<int64_t>(strlen(kLogWrapMarker)) - 1;
    if (rc == 0 && need > room) rc = wrapToTop(log);
    if (rc == 0 && fseeko(log->stream, log->nextWrite, SEEK_SET) != 0) rc = utLogWriteFailed(log);
    return rc;
}

int32_t utSetNextWrite(LogFile* log) {
    if (!log->wrapping || !log->stream) return 0;
    off_t pos = ftello(log->stream);
    return pos < 0 ? utLogWriteFailed(log) : writeNextWrite(log, static_cast<uint32_t>(pos));
}

int32_t utLogWrite(LogFile* log, const char* text, size_t length) {
    if (!log->stream) return utLogFail(log, EBADF);
    int32_t rc = utWrapCheck(log, static_cast<uint32_t>(length));
    if (rc == 0 && (!utLogPut(log->stream, text, length) || fflush(log->stream) != 0)) rc = utLogWriteFailed(log);
    if (rc == 0) rc = utSetNextWrite(log);
    return rc;
}
