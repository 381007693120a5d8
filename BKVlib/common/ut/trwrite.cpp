// Record side of the trace facility: formatting a record, its line prefix, the
// writers for each destination (the wrapping file is in trwrap.cpp) and the dumps.
#include "BKVlib/common/ut/trace.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "BKVlib/common/unx/psident.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/datefmt.h"
#include "BKVlib/common/ut/trstate.h"

namespace {

constexpr size_t kBannerReserve = 68;
constexpr size_t kMaxRecord = 64u * 1024u * 1024u;
constexpr size_t kWideBuffer = 4861;
constexpr int kLastClientType = 12;

const char* const kClientTags[] = {
    "[ctCLBackup  ]", "[ctCLAdmin   ]", "[ctGUIBackup ]", "[ctODBCDriver]", "[ctCLAPI     ]",
    "[ctCLSpaceMGT]", "[ctDICAD     ]", "[ctDIWebClien]", "[ctJBBDaemon ]", "[ctUtlAppl   ]",
    "[ctCLUtlAppl ]", "[ctGUIUtlAppl]", "[ctDIJavaGUI ]",
};
constexpr const char kUnknownClientTag[] = "[ctUnkown    ]";

const char* clientTag(int32_t clientType) {
    return clientType >= 0 && clientType <= kLastClientType ? kClientTags[clientType] : kUnknownClientTag;
}

const char* bannerWord(int32_t clientType) {
    if (clientType == 7 || clientType == 12) return "Agent  ";
    if (clientType == 6) return "CAD    ";
    return "       ";
}

// One record's text. A record starts in the caller's storage and moves to the heap
// only when that is too small; a fixed buffer never allocates and cuts what does
// not fit.
class RecordBuffer {
public:
    RecordBuffer(char* storage, size_t capacity, bool fixed) : data_(storage), capacity_(capacity), fixed_(fixed) {}
    ~RecordBuffer() {
        if (owned_) free(data_);
    }
    RecordBuffer(const RecordBuffer&) = delete;
    RecordBuffer& operator=(const RecordBuffer&) = delete;
    bool reserve(size_t capacity) {
        if (fixed_ || capacity <= capacity_) return true;
        char* grown = static_cast<char*>(owned_ ? realloc(data_, capacity) : malloc(capacity));
        if (grown && !owned_) memcpy(grown, data_, length);
        if (grown) {
            data_ = grown;
            capacity_ = capacity;
            owned_ = true;
        }
        return grown != nullptr;
    }
    char* data() { return data_; }
    size_t capacity() const { return capacity_; }
    bool fixed() const { return fixed_; }
    size_t length = 0;

private:
    char* data_;
    size_t capacity_;
    bool fixed_;
    bool owned_ = false;
};

// Formats into buffer at its current length, growing it until the text fits
// with room for a newline. False when memory runs out.
bool appendFormatted(RecordBuffer* buffer, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
bool appendFormatted(RecordBuffer* buffer, const char* format, va_list args) {
    bool ok = true;
    while (ok) {
        va_list copy;
        va_copy(copy, args);
        size_t room = buffer->capacity() - buffer->length;
        int n = vsnprintf(buffer->data() + buffer->length, room, format, copy);
        va_end(copy);
        size_t wanted = n < 0 ? buffer->capacity() * 2 : buffer->length + static_cast<size_t>(n) + 2;
        if (n >= 0 && wanted <= buffer->capacity()) {
            buffer->length += static_cast<size_t>(n);
            break;
        }
        if (buffer->fixed()) {
            buffer->length = room > 2 ? buffer->capacity() - 2 : buffer->length;
            break;
        }
        ok = wanted <= kMaxRecord && buffer->reserve(wanted);
    }
    return ok;
}

// The prefix is built from short pieces; copying them beats a formatter call each.
void appendText(RecordBuffer* buffer, const char* text, size_t length) {
    memcpy(buffer->data() + buffer->length, text, length);
    buffer->length += length;
}

void appendText(RecordBuffer* buffer, const char* text) { appendText(buffer, text, strlen(text)); }

bool appendf(RecordBuffer* buffer, const char* format, ...) __attribute__((format(printf, 2, 3)));
bool appendf(RecordBuffer* buffer, const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool ok = appendFormatted(buffer, format, args);
    va_end(args);
    return ok;
}

// "%-20s(%4u): " without a formatter call: every record of a trace carries it.
bool appendSourcePlace(RecordBuffer* buffer, const char* file, uint32_t line) {
    constexpr size_t kFileWidth = 20;
    constexpr size_t kLineWidth = 4;
    size_t fileLength = strlen(file);
    if (fileLength + kFileWidth + 16 > buffer->capacity() - buffer->length) {
        return appendf(buffer, "%-20s(%4u): ", file, line);
    }
    appendText(buffer, file, fileLength);
    for (size_t n = fileLength; n < kFileWidth; ++n) buffer->data()[buffer->length++] = ' ';
    char digits[16];
    size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + line % 10);
        line /= 10;
    } while (line != 0);
    buffer->data()[buffer->length++] = '(';
    for (size_t n = count; n < kLineWidth; ++n) buffer->data()[buffer->length++] = ' ';
    while (count > 0) buffer->data()[buffer->length++] = digits[--count];
    appendText(buffer, "): ", 3);
    return true;
}

// The record text: "file(line): " when PREFIX is on, the formatted text, and a
// newline when the format does not end in one.
bool formatRecord(RecordBuffer* buffer, const char* file, uint32_t line, bool addNewline, const char* format,
                  va_list args) __attribute__((format(printf, 5, 0)));
bool formatRecord(RecordBuffer* buffer, const char* file, uint32_t line, bool addNewline, const char* format,
                  va_list args) {
    bool ok = buffer->reserve(kTrFirstBuffer);
    if (ok && trFlags[TR_PREFIX]) ok = appendSourcePlace(buffer, file ? file : "", line);
    if (ok) ok = appendFormatted(buffer, format, args);
    if (ok && addNewline) buffer->data()[buffer->length++] = '\n';
    if (ok) buffer->data()[buffer->length] = '\0';
    return ok;
}

bool endsInNewline(const char* format) {
    size_t n = strlen(format);
    return n > 0 && format[n - 1] == '\n';
}

// Writes every byte of parts with as few calls as the kernel allows; false on an error.
bool writeAll(int fd, struct iovec* parts, int count) {
    while (count > 0) {
        ssize_t n = writev(fd, parts, count);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        size_t done = static_cast<size_t>(n);
        while (count > 0 && done >= parts->iov_len) {
            done -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + done;
            parts->iov_len -= done;
        }
    }
    return true;
}

// A plain trace file is opened for appending and every record is flushed, so its
// stdio buffer is always empty here: prefix and text go out in one writev, which
// the kernel appends whole. The file's lock is taken only where appends of other
// processes may interleave with it.
int32_t plainFileWrite(FILE* stream, const char* prefix, size_t prefixLength, const char* text, size_t length) {
    AppendLock fileHold(trState.appendsWhole ? nullptr : stream);
    struct iovec parts[2] = {{const_cast<char*>(prefix), prefixLength}, {const_cast<char*>(text), length}};
    bool ok = writeAll(fileno(stream), parts, 2);
    return ok ? static_cast<int32_t>(prefixLength + length) : -1;
}

// Standard streams: one write of prefix and text under the stream's lock, flushed.
int32_t streamWrite(FILE* stream, const char* prefix, size_t prefixLength, const char* text, size_t length) {
    flockfile(stream);
    bool ok = fwrite_unlocked(prefix, 1, prefixLength, stream) == prefixLength;
    ok = fwrite_unlocked(text, 1, length, stream) == length && ok;
    ok = fflush_unlocked(stream) == 0 && ok;
    funlockfile(stream);
    return ok ? static_cast<int32_t>(prefixLength + length) : -1;
}

int32_t consoleWrite(const char* prefix, size_t prefixLength, const char* text, size_t length) {
    std::string line(prefix, prefixLength);
    line.append(text, length);
    ConsoleSink sink = trState.consoleSink;
    if (sink) sink(1, line.c_str(), trState.consoleContext);
    return static_cast<int32_t>(line.size());
}

// Sends one text to the destination; a failed write ends tracing.
int32_t emit(const char* prefix, size_t prefixLength, const char* text, size_t length, int32_t raw) {
    FILE* stream = trState.stream;
    int32_t written = 0;
    if (trState.consoleMode) {
        written = consoleWrite(prefix, prefixLength, text, length);
    } else if (!stream) {
        written = 0;
    } else if (!trIsFileStream(stream)) {
        if (trState.stdEcho) written = streamWrite(stream, prefix, prefixLength, text, length);
    } else if (trState.wrapping) {
        written = trWrapWrite(prefix, prefixLength, text, length);
    } else {
        written = plainFileWrite(stream, prefix, prefixLength, text, length);
    }
    if (written < 0) {
        trDisableAfterWriteFailure(raw, errno);
        written = 0;
    }
    return written;
}

int32_t emitBanner(const char* banner) {
    size_t length = strlen(banner);
    if (trState.wrapping && trIsFileStream(trState.stream)) {
        ReentrantHold hold(trState.wrapMutex);
        TraceFileLock fileHold(trState.stream);
        if (trWrapCheck(kBannerReserve) < 0) return -1;
    }
    return emit("", 0, banner, length, 0);
}

void appendTimestamp(RecordBuffer* prefix) {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    char date[32];
    char clock[32];
    trFormatDateTime(now.tv_sec, date, sizeof(date), clock, sizeof(clock));
    unsigned long ms = static_cast<unsigned long>(now.tv_nsec / 1000000);
    const char fraction[] = {'.', static_cast<char>('0' + ms / 100), static_cast<char>('0' + ms / 10 % 10),
                             static_cast<char>('0' + ms % 10), ' '};
    appendText(prefix, date);
    appendText(prefix, " ", 1);
    appendText(prefix, clock);
    appendText(prefix, fraction, sizeof(fraction));
}

void appendProcessId(RecordBuffer* prefix) {
    thread_local int32_t textPid = 0;
    thread_local char text[32];
    thread_local size_t textLength = 0;
    int32_t pid = psProcessId();
    if (pid != textPid) {
        textLength = static_cast<size_t>(snprintf(text, sizeof(text), "[%.6u] ", static_cast<unsigned>(pid)));
        textPid = pid;
    }
    appendText(prefix, text, textLength);
}

// Line prefix in its fixed order: time, process, thread, client type, ": ".
// Its pieces are bounded, so the caller's 256 bytes always hold it.
bool buildLinePrefix(RecordBuffer* prefix) {
    if (trFlags[TR_TIMESTAMP]) appendTimestamp(prefix);
    if (trFlags[TR_PID]) appendProcessId(prefix);
    ThreadTagFn tagFn = trState.threadTagFn;
    if (trFlags[TR_TID] && tagFn) {
        char banner[128] = "";
        char tag[64] = "";
        tagFn(banner, sizeof(banner), tag, sizeof(tag));
        if (banner[0]) emitBanner(banner);
        appendText(prefix, tag, strnlen(tag, sizeof(tag) - 1));
    }
    if (trFlags[TR_CLIENTTYPE]) appendText(prefix, clientTag(trState.clientType));
    if (trFlags[TR_TIMESTAMP] || trFlags[TR_PID] || trFlags[TR_TID]) appendText(prefix, ": ", 2);
    prefix->data()[prefix->length] = '\0';
    return true;
}

int32_t writeLine(const char* text, size_t length) {
    char storage[256];
    RecordBuffer prefix(storage, sizeof(storage), true);
    if (!buildLinePrefix(&prefix)) return RC_NO_MEMORY;
    return emit(prefix.data(), prefix.length, text, length, 0);
}

void appendPointer(std::string* out, const void* address) {
    char text[32];
    // "%08p" as the C library prints it: "0x" counted in the width, "(nil)" for null.
    if (address) {
        snprintf(text, sizeof(text), "%#08lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address)));
    } else {
        snprintf(text, sizeof(text), "%8s", "(nil)");
    }
    *out += text;
}

void appendDumpChars(std::string* out, const unsigned char* bytes, int32_t count) {
    *out += "    ";
    for (int32_t i = 0; i < count; ++i) {
        bool shown = isprint(bytes[i]) && bytes[i] != ' ';
        *out += shown ? static_cast<char>(bytes[i]) : '.';
    }
}

}  // namespace

namespace {

void copyBounded(char* out, size_t outSize, const char* text) {
    if (outSize == 0) return;
    size_t n = strnlen(text, outSize - 1);
    memcpy(out, text, n);
    out[n] = '\0';
}

}  // namespace

void trFormatDateTime(time_t seconds, char* date, size_t dateSize, char* timeText, size_t timeSize) {
    // localtime_r takes a lock and reads the zone each time; records within one
    // second share the texts as long as the process's formats stay the same.
    thread_local time_t cachedSeconds = -1;
    thread_local const char* cachedDateFormat = nullptr;
    thread_local const char* cachedTimeFormat = nullptr;
    thread_local char cachedDate[32];
    thread_local char cachedTime[32];
    const char* dateFormat = utDateFormat();
    const char* timeFormat = utTimeFormat();
    if (seconds != cachedSeconds || dateFormat != cachedDateFormat || timeFormat != cachedTimeFormat) {
        struct tm local {};
        localtime_r(&seconds, &local);
        if (utFormatDate(&local, cachedDate, sizeof(cachedDate)) == 0) cachedDate[0] = '\0';
        if (utFormatTime(&local, cachedTime, sizeof(cachedTime)) == 0) cachedTime[0] = '\0';
        cachedSeconds = seconds;
        cachedDateFormat = dateFormat;
        cachedTimeFormat = timeFormat;
    }
    copyBounded(date, dateSize, cachedDate);
    copyBounded(timeText, timeSize, cachedTime);
}

bool trIsFileStream(FILE* stream) { return stream && stream != stdout && stream != stderr; }

int32_t trWriteRaw(const char* text, size_t length) {
    if (!trIsActive()) return 0;
    ErrnoSaver keepErrno;
    return emit("", 0, text, length, 1);
}

void trDisableAfterWriteFailure(int32_t raw, int error) {
    std::string name = trState.fileName;
    trEnd(1);
    if (raw) {
        printf("Unable to write to trace file %s error is (%d) %s. Tracing disabled.\n", name.c_str(), error,
               strerror(error));
    } else {
        printf("Unable to write to trace file %s. Tracing disabled.\n", name.c_str());
    }
    fflush(stdout);
}

void trFormatThreadTag(unsigned long threadId, char* banner, size_t bannerSize, char* tag, size_t tagSize) {
    unsigned long previous = trState.lastThread.exchange(threadId);
    if (previous != threadId) {
        // The number after the client word is always 0; readers key on the "New thread" text.
        snprintf(banner, bannerSize, "\n%32s thread %s%2d================>\n", "New", bannerWord(trState.clientType),
                 0);
    } else if (bannerSize > 0) {
        banner[0] = '\0';
    }
    // The tag of the calling thread's last record is reused rather than formatted again.
    thread_local unsigned long cachedId = 0;
    thread_local char cachedTag[24] = "";
    if (cachedId != threadId || cachedTag[0] == '\0') {
        snprintf(cachedTag, sizeof(cachedTag), "[%u] ", static_cast<unsigned>(threadId));
        cachedId = threadId;
    }
    copyBounded(tag, tagSize, cachedTag);
}

void trCallerThreadTag(char* banner, size_t bannerSize, char* tag, size_t tagSize) {
    trFormatThreadTag(static_cast<unsigned long>(psThreadNumber()), banner, bannerSize, tag, tagSize);
}

int32_t trVPrintf(const char* file, uint32_t line, const char* format, va_list args) {
    if (!trIsActive() || !format) return 0;
    ErrnoSaver keepErrno;
    char storage[kTrFirstBuffer];
    RecordBuffer record(storage, sizeof(storage), false);
    if (!formatRecord(&record, file, line, !endsInNewline(format), format, args)) return RC_NO_MEMORY;
    return writeLine(record.data(), record.length);
}

int32_t trSignalPrintf(const char* file, uint32_t line, const char* format, ...) {
    if (!trIsActive() || !format) return 0;
    ErrnoSaver keepErrno;
    char storage[kTrSignalRecord];
    RecordBuffer record(storage, sizeof(storage), true);
    va_list args;
    va_start(args, format);
    formatRecord(&record, file, line, !endsInNewline(format), format, args);
    va_end(args);
    return writeLine(record.data(), record.length);
}

int32_t trPrintf(const char* file, uint32_t line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t n = trVPrintf(file, line, format, args);
    va_end(args);
    return n;
}

namespace {

std::string narrowText(const wchar_t* wide) {
    std::string out;
    mbstate_t state{};
    char bytes[MB_LEN_MAX];
    for (const wchar_t* w = wide; *w; ++w) {
        size_t n = wcrtomb(bytes, *w, &state);
        if (n == static_cast<size_t>(-1)) {
            out += '?';
            state = mbstate_t{};
        } else {
            out.append(bytes, n);
        }
    }
    return out;
}

bool formatRecordf(RecordBuffer* buffer, const char* file, uint32_t line, bool addNewline, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
bool formatRecordf(RecordBuffer* buffer, const char* file, uint32_t line, bool addNewline, const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool ok = formatRecord(buffer, file, line, addNewline, format, args);
    va_end(args);
    return ok;
}

}  // namespace

int32_t trWPrintf(const char* file, uint32_t line, const wchar_t* format, ...) {
    if (!trIsActive() || !format) return 0;
    ErrnoSaver keepErrno;
    wchar_t wide[kWideBuffer];
    wide[0] = L'\0';
    va_list args;
    va_start(args, format);
    vswprintf(wide, kWideBuffer, format, args);
    va_end(args);
    wide[kWideBuffer - 1] = L'\0';
    size_t n = wcslen(format);
    bool addNewline = n == 0 || format[n - 1] != L'\n';
    char storage[kTrFirstBuffer];
    RecordBuffer record(storage, sizeof(storage), false);
    std::string narrow = narrowText(wide);
    if (!formatRecordf(&record, file, line, addNewline, "%s", narrow.c_str())) return RC_NO_MEMORY;
    return writeLine(record.data(), record.length);
}

int32_t trRawPrintf(const char* format, ...) {
    if (!trIsActive() || !format) return 0;
    ErrnoSaver keepErrno;
    char storage[kTrFirstBuffer];
    RecordBuffer record(storage, sizeof(storage), false);
    va_list args;
    va_start(args, format);
    bool ok = record.reserve(kTrFirstBuffer) && appendFormatted(&record, format, args);
    va_end(args);
    if (!ok) return RC_NO_MEMORY;
    return trWriteRaw(record.data(), record.length);
}

void trDumpMemory(const void* address, int32_t length, int32_t bytesPerLine) {
    if (!trIsActive() || !address || length <= 0) return;
    int32_t perLine = bytesPerLine > 0 ? bytesPerLine : 16;
    const unsigned char* bytes = static_cast<const unsigned char*>(address);
    std::string out = "\nDumping Memory Range ";
    appendPointer(&out, bytes);
    out += " - ";
    appendPointer(&out, bytes + length - 1);
    out += " (" + std::to_string(length) + " Bytes)\n\n\n\n";
    appendPointer(&out, bytes);
    out += ": ";
    char hex[32];
    for (int32_t i = 0; i < length; ++i) {
        snprintf(hex, sizeof(hex), "%02X ", bytes[i]);
        out += hex;
        bool lineFull = (i + 1) % perLine == 0;
        if (lineFull) appendDumpChars(&out, bytes + i + 1 - perLine, perLine);
        if (lineFull && i + 1 < length) {
            snprintf(hex, sizeof(hex), "\n%08lX: ", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(bytes + i + 1)));
            out += hex;
        }
    }
    int32_t tail = length % perLine;
    if (tail != 0) {
        out.append(static_cast<size_t>(perLine - tail) * 3, ' ');
        appendDumpChars(&out, bytes + length - tail, tail);
    }
    out += "\n\n";
    trRawPrintf("%s", out.c_str());
}

void trDumpHex(const void* buffer, int32_t length, int32_t mode) {
    if (!trIsActive() || !buffer || length <= 0) return;
    const unsigned char* bytes = static_cast<const unsigned char*>(buffer);
    bool grouped = mode == 3 && length > 4;
    std::string out;
    char hex[4];
    for (int32_t i = 0; i < length; ++i) {
        if (grouped && i > 0 && i % 4 == 0) out += ' ';
        if (grouped && i > 0 && i % 32 == 0) out += '\n';
        snprintf(hex, sizeof(hex), "%02X", bytes[i]);
        out += hex;
    }
    out += '\n';
    trRawPrintf("%s", out.c_str());
}
