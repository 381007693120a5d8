// libFuzzer target for catalogue entries: the bytes up to the first zero byte are a
// stored entry as the catalogue hands it over; a usable entry is then expanded,
// narrow and wide, with arguments of every kind, and each expansion is timed.
#include <sys/mman.h>

#include <clocale>
#include <ctime>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BKVlib/common/nls/amsgfmt.h"
#include "BKVlib/common/nls/amsgrtrv.h"
#include "Common/AgentTrace.h"

namespace {

// A message takes at most 15 inserts with two star values each. Every argument slot
// gets the same 64-bit word, so whichever type an entry says it wants, the read
// stays defined: the word is the address of a page holding a short text that reads
// as narrow and as wide text, and its low 32 bits, read as a width, stay small.
constexpr uintptr_t kArgumentPage = 0x10000;
constexpr int kSlots = 48;
const void* gArgument = nullptr;
// Processor time, so that a loaded machine does not make a fast expansion look slow.
constexpr double kSlowExpansionSeconds = 1.0;

double threadSeconds() {
    struct timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

const void* mapArgumentPage() {
    void* page = mmap(reinterpret_cast<void*>(kArgumentPage), 4096, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (page != reinterpret_cast<void*>(kArgumentPage)) abort();
    // "ab" then zero bytes: narrow "ab"; wide, one character and a terminator.
    memcpy(page, "ab", 2);
    return page;
}

template <typename Buffer>
int32_t expandVia(const NlCompiled& msg, Buffer* out, ...) {
    va_list args;
    va_start(args, out);
    int32_t added = nlOrderInsert(msg, out, args);
    va_end(args);
    return added;
}

#define NL_ARGS8(p) p, p, p, p, p, p, p, p
// Pointers fill the integer slots, doubles of the same bits the floating ones.
template <typename Buffer>
int32_t expandWithArguments(const NlCompiled& msg, Buffer* out) {
    const void* p = gArgument;
    double d = 0;
    memcpy(&d, &p, sizeof(d));
    static_assert(kSlots == 48, "six groups of eight of each kind");
    return expandVia(msg, out, NL_ARGS8(p), NL_ARGS8(p), NL_ARGS8(p), NL_ARGS8(p), NL_ARGS8(p), NL_ARGS8(p),
                     NL_ARGS8(d), NL_ARGS8(d), NL_ARGS8(d), NL_ARGS8(d), NL_ARGS8(d), NL_ARGS8(d));
}

template <typename Buffer>
void expandTimed(const NlCompiled& msg) {
    Buffer out;
    double start = threadSeconds();
    int32_t added = expandWithArguments(msg, &out);
    if (threadSeconds() - start > kSlowExpansionSeconds) __builtin_trap();
    if (added < 0 || static_cast<size_t>(added) != out.length()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setlocale(LC_ALL, "C.UTF-8");
    gArgument = mapArgumentPage();
    initTrace("/dev/null", "MAX", 1024);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string raw(reinterpret_cast<const char*>(data), size);
    raw.resize(strlen(raw.c_str()));
    NLSMsg* msg = nlBuildMsg(1, raw.c_str());
    if (msg) {
        if (msg->bodyOffset > msg->length) __builtin_trap();
        expandTimed<nlsCharBuffer>(msg->compiled);
        expandTimed<nlsWcharBuffer>(msg->compiled);
        free(msg);
    }
    return 0;
}
