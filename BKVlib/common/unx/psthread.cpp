#include "BKVlib/common/unx/psthread.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <new>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

namespace {

std::atomic<int32_t> gMainPid{0};
std::atomic<pthread_t> gMainThread{};
std::atomic<PsThreadRegisterHook> gRegisterHook{nullptr};
thread_local bool tlsReporting = false;

// What the trampoline needs; freed by the new thread before it runs the function.
struct StartPair {
    void* (*start)(void*);
    void* arg;
};

void* trampoline(void* raw) {
    StartPair pair = *static_cast<StartPair*>(raw);
    delete static_cast<StartPair*>(raw);
    int32_t self = psThreadNumber();
    PsThreadRegisterHook hook = gRegisterHook.load();
    if (hook) hook(self);
    void* result = pair.start(pair.arg);
    TR_PRINTF(TR_THREAD, "Thread %d exit called.\n", self);
    return result;
}

// Without attributes of the caller's own, a detached thread with the wanted stack.
int32_t makeDefaultAttr(pthread_attr_t* attr, uint32_t stackSize) {
    int32_t rc = pthread_attr_init(attr);
    if (rc == 0) rc = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    if (rc == 0 && stackSize != 0) {
        int stackRc = pthread_attr_setstacksize(attr, stackSize);
        if (stackRc == 0) {
            TR_PRINTF(TR_THREAD, "pthread_attr_setstacksize: new stacksize=%u\n", stackSize);
        } else {
            TR_PRINTF(TR_THREAD, "pthread_attr_setstacksize failed: errno=%d\n", stackRc);
        }
    }
    return rc;
}

const char* killErrorName(int rc) {
    switch (rc) {
        case ESRCH: return "ESRCH";
        case EINVAL: return "EINVAL";
        default: return "unkown";
    }
}

}  // namespace

void psSetMultiThreaded(int32_t on) {
    if (on) {
        gMainThread.store(pthread_self());
        gMainPid.store(static_cast<int32_t>(getpid()));
        psthread_flags::singleThreaded.store(0);
    } else {
        psthread_flags::singleThreaded.store(1);
    }
}

int32_t psIsMainThread() {
    if (psthread_flags::singleThreaded.load()) return 1;
    return pthread_equal(gMainThread.load(), pthread_self()) ? 1 : 0;
}

int32_t psMainPid() { return gMainPid.load(); }

void psThreadReport(const char* file, uint32_t line, const char* format, ...) {
    if (tlsReporting || !trFlags[TR_ERROR]) return;
    tlsReporting = true;
    va_list args;
    va_start(args, format);
    trVPrintf(file, line, format, args);
    va_end(args);
    tlsReporting = false;
}

int32_t psMutexInit(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attr;
    int32_t rc = pthread_mutexattr_init(&attr);
    if (rc == 0) {
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        rc = pthread_mutex_init(mutex, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    return rc;
}

int32_t psMutexLock(pthread_mutex_t* mutex) {
    int32_t rc = pthread_mutex_lock(mutex);
    if (rc == EDEADLK) {
        PS_THREAD_ERROR("psMutexLock: Deadlock condition\n");
    } else if (rc == ENOMEM || rc == EAGAIN) {
        PS_THREAD_ERROR("psMutexLock: rc = %d Out of memory\n", rc);
    }
    return rc;
}

int32_t psMutexTryLock(pthread_mutex_t* mutex) { return pthread_mutex_trylock(mutex); }
int32_t psMutexUnlock(pthread_mutex_t* mutex) { return pthread_mutex_unlock(mutex); }
int32_t psMutexDestroy(pthread_mutex_t* mutex) { return pthread_mutex_destroy(mutex); }

int32_t psThreadStart(PsThreadStartRec* record, const char* name) {
    if (!record) return RC_MISSING_ARG;
    TR_PRINTF(TR_THREAD, "Starting thread %s\n", name ? name : "");
    StartPair* pair = new (std::nothrow) StartPair{record->start, record->arg};
    if (!pair) return -1;
    pthread_attr_t ownAttr;
    const pthread_attr_t* attr = record->attr;
    int32_t rc = 0;
    if (!attr) {
        rc = makeDefaultAttr(&ownAttr, record->stackSize);
        attr = &ownAttr;
    }
    int detach = PTHREAD_CREATE_JOINABLE;
    if (rc == 0) pthread_attr_getdetachstate(attr, &detach);
    record->detachState = detach;
    if (rc == 0) rc = pthread_create(record->thread, attr, trampoline, pair);
    if (rc != 0) delete pair;
    if (!record->attr) pthread_attr_destroy(&ownAttr);
    return rc;
}

void psSetThreadRegisterHook(PsThreadRegisterHook hook) { gRegisterHook.store(hook); }

void psDelaySplit(int32_t milliseconds, long* seconds, long* microseconds) {
    *seconds = milliseconds / 1000;
    *microseconds = (milliseconds % 1000) * 1000L;
}

void psThreadDelay(int32_t milliseconds) {
    long seconds = 0;
    long microseconds = 0;
    psDelaySplit(milliseconds, &seconds, &microseconds);
    bool traced = milliseconds >= 1000;
    if (traced) {
        TR_PRINTF(TR_THREAD, "Thread %d delaying for %d milliseconds.\n", psThreadNumber(), milliseconds);
    }
    // A signal may cut the sleep short; sleeping on for the remainder keeps the delay whole.
    struct timespec left = {seconds, microseconds * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    if (traced) TR_PRINTF(TR_THREAD, "Thread %d awakened.\n", psThreadNumber());
}

int32_t psSignalThread(pthread_t thread, int32_t signal) {
    if (signal <= 0 || signal >= NSIG) {
        PS_THREAD_ERROR("Called with invalid signal (%d).\n", signal);
        return -1;
    }
    int32_t rc = pthread_kill(thread, signal);
    if (rc != 0) PS_THREAD_ERROR("pthread_kill argument invalid: %s\n", killErrorName(rc));
    return rc;
}
