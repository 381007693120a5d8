// The wrapping file's offset field read and written through a shared mapping of
// the file's first page. Every record rereads and rewrites the field under the
// file's lock; through the mapping that costs no system call, where pread and
// pwrite cost two of the five a record took.
//
// A mapped page that the file no longer backs (someone cut the file to nothing
// without its lock) or that the file system cannot store (a full copy-on-write
// file system) faults with SIGBUS instead of failing a call. The access is made
// under a guard that turns that fault into a false return; the caller then uses
// pread or pwrite as before, and the mapping is dropped for good.
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "BKVlib/common/ut/trstate.h"

namespace {

constexpr size_t kMappedLength = kTrOffsetField + kTrOffsetFieldLength;

// Volatile: the stores around the copy must stay where they are, though nothing
// between them reads it but the signal handler.
thread_local sigjmp_buf* volatile busJump = nullptr;
struct sigaction earlierBusAction {};
bool busGuardInstalled = false;

void onBusError(int signal, siginfo_t* info, void* context) {
    if (busJump) siglongjmp(*busJump, 1);
    // Not a header access: the earlier action takes the fault when the instruction
    // runs again, or the signal at once when it was sent.
    sigaction(SIGBUS, &earlierBusAction, nullptr);
    if (info->si_code <= 0) raise(signal);
    (void)context;
}

// Runs under the trace's mutexes, so two threads never install it at once.
void installBusGuard() {
    if (busGuardInstalled) return;
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    // SA_NODEFER: leaving the handler by siglongjmp must not leave SIGBUS blocked.
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    busGuardInstalled = sigaction(SIGBUS, &action, &earlierBusAction) == 0;
}

// Byte by byte through volatile pointers: the copy must happen inside the guard,
// not be moved out of it or handed to a library call.
void copyBytes(volatile char* to, const volatile char* from, size_t length) {
    for (size_t i = 0; i < length; ++i) to[i] = from[i];
}

}  // namespace

TraceHeaderMap::~TraceHeaderMap() { unmap(); }

void TraceHeaderMap::map(int fd) {
    unmap();
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < static_cast<off_t>(kMappedLength)) return;
    installBusGuard();
    if (!busGuardInstalled) return;
    void* page = mmap(nullptr, kMappedLength, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (page != MAP_FAILED) page_ = static_cast<char*>(page);
}

void TraceHeaderMap::unmap() {
    if (page_) munmap(page_, kMappedLength);
    page_ = nullptr;
}

bool TraceHeaderMap::copy(char* to, const char* from) {
    sigjmp_buf jump;
    // savemask 0: no system call on the way in; the handler runs with SIGBUS unblocked.
    if (sigsetjmp(jump, 0) != 0) {
        busJump = nullptr;
        unmap();
        return false;
    }
    busJump = &jump;
    copyBytes(to, from, kTrOffsetFieldLength);
    busJump = nullptr;
    return true;
}

bool TraceHeaderMap::readField(char* field) { return page_ && copy(field, page_ + kTrOffsetField); }

bool TraceHeaderMap::writeField(const char* field) { return page_ && copy(page_ + kTrOffsetField, field); }
