// The thread layer's mutexes, as the activity log and the process list hold them
// through MutexLock.
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"

namespace {

// A second acquire by the holder is refused rather than hanging; the release frees
// the mutex for other threads; with one thread, locking is skipped.
TEST(PkThreadTest, RelockIsRefusedReleaseFreesAndOneThreadSkipsLocking) {
    psSetMultiThreaded(1);
    MutexHandle mutex = nullptr;
    ASSERT_EQ(RC_OK, pkCreateMutex(&mutex));
    {
        MutexLock lock(mutex);
        ASSERT_EQ(RC_OK, lock.status());
        EXPECT_EQ(EDEADLK, pkAcquireMutex(mutex));
    }
    int32_t elsewhere = -2;
    std::thread([&] { elsewhere = pkAcquireMutex(mutex) + pkReleaseMutex(mutex); }).join();
    EXPECT_EQ(RC_OK, elsewhere);
    psSetMultiThreaded(0);
    EXPECT_EQ(RC_OK, pkAcquireMutex(mutex) + pkAcquireMutex(mutex));
    psSetMultiThreaded(1);
    EXPECT_EQ(-1, pkAcquireMutex(nullptr));
    EXPECT_EQ(RC_OK, pkDestroyMutex(&mutex));
    EXPECT_EQ(nullptr, mutex);
}

}  // namespace
