#include "BKVlib/common/thrd/pkthread.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

// The owner fields are read by other threads for reports, hence atomic.
struct MutexDesc {
    pthread_mutex_t mutex;
    std::atomic<int32_t> ownerNumber{0};
    std::atomic<unsigned long> ownerThread{0};
};

struct CondDesc {
    pthread_cond_t cond;
};

namespace {

// Shutdown paths must not block on mutexes held by threads that no longer run.
bool lockingSkipped() { return psIsSingleThreaded() || psShutdownBegun(); }

void markOwner(MutexHandle mutex) {
    mutex->ownerThread.store(static_cast<unsigned long>(pthread_self()));
    mutex->ownerNumber.store(psThreadNumber());
}

void clearOwner(MutexHandle mutex) {
    mutex->ownerNumber.store(0);
    mutex->ownerThread.store(0);
}

}  // namespace

int32_t pkCreateMutex(MutexHandle* mutex) {
    MutexDesc* desc = new (std::nothrow) MutexDesc;
    int32_t rc = desc ? psMutexInit(&desc->mutex) : RC_NO_MEMORY;
    if (rc != RC_OK) {
        PS_THREAD_ERROR("Create Mutex failed: %d.\n", rc);
        delete desc;
    } else {
        *mutex = desc;
    }
    return rc;
}

int32_t pkAcquireMutex(MutexHandle mutex) {
    if (!mutex) {
        PS_THREAD_ERROR("Acquire Mutex failed: invalid mutex.\n");
        return -1;
    }
    if (lockingSkipped()) return RC_OK;
    int32_t rc = psMutexLock(&mutex->mutex);
    if (rc == RC_OK) {
        markOwner(mutex);
    } else if (rc == EDEADLK) {
        PS_THREAD_ERROR("Acquire Mutex failed.\n");
    } else {
        PS_THREAD_ERROR("Acquire Mutex failed: .\n");
    }
    return rc;
}

int32_t pkTryMutex(MutexHandle mutex) {
    if (mutex && lockingSkipped()) return RC_OK;
    int rc = mutex ? psMutexTryLock(&mutex->mutex) : EINVAL;
    int32_t result = -1;
    if (rc == 0) {
        markOwner(mutex);
        result = RC_OK;
    } else if (rc == EBUSY) {
        result = RC_MUTEX_BUSY;
    } else {
        PS_THREAD_ERROR("Try Mutex failed: .\n");
    }
    return result;
}

int32_t pkReleaseMutex(MutexHandle mutex) {
    if (!mutex) return -1;
    if (lockingSkipped()) return RC_OK;
    clearOwner(mutex);
    int32_t rc = psMutexUnlock(&mutex->mutex);
    if (rc != RC_OK) PS_THREAD_ERROR("Release Mutex failed: %d.\n", rc);
    return rc;
}

int32_t pkDestroyMutex(MutexHandle* mutex) {
    if (!mutex || !*mutex) return RC_OK;
    int32_t rc = psMutexDestroy(&(*mutex)->mutex);
    if (rc != RC_OK) PS_THREAD_ERROR("Destroy Mutex failed: %d.\n", rc);
    delete *mutex;
    *mutex = nullptr;
    return rc;
}

int32_t pkMutexHeldBySelf(MutexHandle mutex) {
    if (!mutex || mutex->ownerNumber.load() == 0) return 0;
    return pthread_equal(static_cast<pthread_t>(mutex->ownerThread.load()), pthread_self()) ? 1 : 0;
}

int32_t pkMutexOwner(MutexHandle mutex) {
    int32_t number = mutex ? mutex->ownerNumber.load() : 0;
    if (number != 0) {
        TR_PRINTF(TR_THREAD, "Mutex held by thread %d (%x)\n", number,
                  static_cast<unsigned>(mutex->ownerThread.load()));
    } else {
        TR_PRINTF(TR_THREAD, "Mutex held by no thread.\n");
    }
    return number;
}

int32_t pkCreateCondition(CondHandle* cond) {
    CondDesc* desc = new (std::nothrow) CondDesc;
    int32_t rc = desc ? pthread_cond_init(&desc->cond, nullptr) : RC_NO_MEMORY;
    if (rc != RC_OK) {
        PS_THREAD_ERROR("Create condition failed: %d.\n", rc);
        delete desc;
    } else {
        *cond = desc;
    }
    return rc;
}

int32_t pkWaitCondition(CondHandle cond, MutexHandle mutex) {
    if (!cond || !pkMutexHeldBySelf(mutex)) {
        PS_THREAD_ERROR("Mutex not held on condition wait.\n");
        return -1;
    }
    clearOwner(mutex);
    int rc = EINTR;
    while (rc == EINTR) rc = pthread_cond_wait(&cond->cond, &mutex->mutex);
    markOwner(mutex);
    if (rc != 0) TR_PRINTF(TR_THREAD, "Condition wait failed: error %d\n", rc);
    return rc == 0 ? RC_OK : RC_COND_WAIT_FAILED;
}

int32_t pkSignalCondition(CondHandle cond) {
    int32_t rc = cond ? pthread_cond_signal(&cond->cond) : EINVAL;
    if (rc != RC_OK) PS_THREAD_ERROR("Signal condition failed: %d.\n", rc);
    return rc;
}

int32_t pkDestroyCondition(CondHandle* cond) {
    if (!cond || !*cond) return RC_OK;
    int32_t rc = pthread_cond_destroy(&(*cond)->cond);
    if (rc != RC_OK) PS_THREAD_ERROR("Destroy condition failed: %d.\n", rc);
    delete *cond;
    *cond = nullptr;
    return rc;
}
