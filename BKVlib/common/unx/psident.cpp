#include "BKVlib/common/unx/psident.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

std::atomic<int32_t> psthread_flags::singleThreaded{0};
std::atomic<int32_t> psthread_flags::shutdownBegun{0};

namespace {

// A trace record needs both ids; asking the kernel each time would cost more
// than the rest of the record's prefix.
thread_local int32_t tlsThreadNumber = 0;
std::atomic<int32_t> gProcessId{0};
pthread_once_t gForkHandlerOnce = PTHREAD_ONCE_INIT;

void forgetIdsInChild() {
    tlsThreadNumber = 0;
    gProcessId.store(0);
}

void installForkHandler() { pthread_atfork(nullptr, nullptr, forgetIdsInChild); }

}  // namespace

void psSetShutdownBegun() { psthread_flags::shutdownBegun.store(1); }

int32_t psThreadNumber() {
    if (tlsThreadNumber == 0) {
        pthread_once(&gForkHandlerOnce, installForkHandler);
        tlsThreadNumber = static_cast<int32_t>(syscall(SYS_gettid));
    }
    return tlsThreadNumber;
}

int32_t psProcessId() {
    int32_t pid = gProcessId.load(std::memory_order_relaxed);
    if (pid == 0) {
        pthread_once(&gForkHandlerOnce, installForkHandler);
        pid = static_cast<int32_t>(getpid());
        gProcessId.store(pid, std::memory_order_relaxed);
    }
    return pid;
}
