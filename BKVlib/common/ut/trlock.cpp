#include "BKVlib/common/ut/trlock.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "BKVlib/common/unx/psident.h"
#include "BKVlib/common/ut/ReturnCodes.h"

// The owner is read by other threads asking whether they hold the mutex.
struct TrMutex {
    pthread_mutex_t mutex;
    std::atomic<bool> owned{false};
    std::atomic<pthread_t> owner{};
};

namespace {

bool lockingSkipped() { return psIsSingleThreaded() || psShutdownBegun(); }

int32_t initErrorChecking(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attr;
    int32_t rc = pthread_mutexattr_init(&attr);
    if (rc == 0) {
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        rc = pthread_mutex_init(mutex, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    return rc;
}

}  // namespace

int32_t trMutexCreate(TrMutexHandle* mutex) {
    TrMutex* created = new (std::nothrow) TrMutex;
    int32_t rc = created ? initErrorChecking(&created->mutex) : RC_NO_MEMORY;
    if (rc == RC_OK) {
        *mutex = created;
    } else {
        delete created;
    }
    return rc;
}

void trMutexDestroy(TrMutexHandle* mutex) {
    if (!mutex || !*mutex) return;
    pthread_mutex_destroy(&(*mutex)->mutex);
    delete *mutex;
    *mutex = nullptr;
}

int32_t trMutexAcquire(TrMutexHandle mutex) {
    if (!mutex) return -1;
    if (lockingSkipped()) return RC_OK;
    int32_t rc = pthread_mutex_lock(&mutex->mutex);
    if (rc == 0) {
        mutex->owner.store(pthread_self());
        mutex->owned.store(true);
    }
    return rc;
}

int32_t trMutexRelease(TrMutexHandle mutex) {
    if (!mutex) return -1;
    if (lockingSkipped()) return RC_OK;
    mutex->owned.store(false);
    return pthread_mutex_unlock(&mutex->mutex);
}

bool trMutexHeldBySelf(TrMutexHandle mutex) {
    return mutex && mutex->owned.load() && pthread_equal(mutex->owner.load(), pthread_self());
}
