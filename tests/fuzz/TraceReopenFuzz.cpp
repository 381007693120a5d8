// libFuzzer target for the two files the tool reads back from disk: an existing
// trace file, reopened as the next start does (its header line with the recorded
// offset and maximum), and a wrapping log opened by its "LOGHEADERREC" header. The
// bytes, padded with a chosen run of zero bytes so that recorded offsets can land
// near the limits, are the file's contents; records and entries are then written.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "BKVlib/common/ut/logutils.h"
#include "Common/AgentTrace.h"

namespace {

constexpr off_t kTraceLimit = 1048576;  // the smallest trace maximum, 1 MB
constexpr uint32_t kLogLimit = 8192;
std::string gDir;

void writeContents(const std::string& path, const std::string& contents, off_t padding) {
    FILE* file = fopen(path.c_str(), "we");
    if (!file) abort();
    fwrite(contents.data(), 1, contents.size(), file);
    if (ftruncate(fileno(file), static_cast<off_t>(contents.size()) + padding) != 0) abort();
    fclose(file);
}

off_t sizeOf(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

// Whatever was there, the trace that this start leaves stays within its maximum.
void reopenTrace(const std::string& contents, off_t padding) {
    std::string path = gDir + "/multipath.trace";
    writeContents(path, contents, padding);
    if (initTrace(path, "MAX", 1024) != 0) abort();
    for (int i = 0; i < 3; ++i) NA_TRACE_MAX("record %d of a fuzzed start\n", i);
    endTrace();
    if (sizeOf(path) > kTraceLimit) __builtin_trap();
}

void reopenLog(const std::string& contents, off_t padding) {
    std::string path = gDir + "/multipath.log";
    writeContents(path, contents, padding % kLogLimit);
    LogFile log;
    utSetLogSettings(&log, kLogLimit, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    if (utWrapFile(&log, path.c_str(), 1) == 0) {
        const char entry[] = "2026-11-24 03:00:00 AGT0429I a fuzzed entry\n";
        for (int i = 0; i < 3; ++i) utLogWrite(&log, entry, sizeof(entry) - 1);
    }
    utCloseLog(&log);
}

// Emptied after every input: a log converted to a wrapping one keeps its old lines in
// multipath.log.sav, which would otherwise grow in memory-backed /dev/shm all run long.
void removeFiles() {
    for (const char* name : {"/multipath.trace", "/multipath.log", "/multipath.log.sav"}) {
        unlink((gDir + name).c_str());
    }
}

void removeDirectory() {
    removeFiles();
    rmdir(gDir.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char pattern[] = "/dev/shm/pp-reopen-fuzz-XXXXXX";
    if (!mkdtemp(pattern)) abort();
    gDir = pattern;
    atexit(removeDirectory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    off_t padding = input.ConsumeIntegralInRange<off_t>(0, kTraceLimit + 64);
    bool log = input.ConsumeBool();
    std::string contents = input.ConsumeRemainingBytesAsString();
    if (log) {
        reopenLog(contents, padding);
    } else {
        reopenTrace(contents, padding);
    }
    removeFiles();
    return 0;
}
