// Mutexes with owner tracking, try-lock across threads and the single-threaded skip;
// the delay split the thread layer's waits use.
#include "BKVlib/common/thrd/pkthread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"

namespace {

TEST(PkThreadTest, TryLockHeldElsewhereIsBusyAndOwnerIsReported) {
    psSetMultiThreaded(1);
    MutexHandle mutex = nullptr;
    ASSERT_EQ(RC_OK, pkCreateMutex(&mutex));
    std::atomic<int32_t> holder{0};
    std::atomic<bool> release{false};
    std::thread other([&] {
        pkAcquireMutex(mutex);
        holder = psThreadNumber();
        while (!release) std::this_thread::yield();
        pkReleaseMutex(mutex);
    });
    while (!holder) std::this_thread::yield();
    EXPECT_EQ(RC_MUTEX_BUSY, pkTryMutex(mutex));
    EXPECT_EQ(holder, pkMutexOwner(mutex));
    EXPECT_EQ(0, pkMutexHeldBySelf(mutex));
    psSetMultiThreaded(0);  // one thread: locking is skipped
    EXPECT_EQ(RC_OK, pkTryMutex(mutex));
    EXPECT_EQ(RC_OK, pkReleaseMutex(mutex));
    psSetMultiThreaded(1);
    release = true;
    other.join();
    EXPECT_EQ(RC_OK, pkTryMutex(mutex));
    EXPECT_EQ(psThreadNumber(), pkMutexOwner(mutex));
    EXPECT_EQ(EDEADLK, pkAcquireMutex(mutex));
    EXPECT_EQ(RC_OK, pkReleaseMutex(mutex));
    EXPECT_EQ(0, pkMutexOwner(mutex));
    EXPECT_EQ(-1, pkTryMutex(nullptr));
    EXPECT_EQ(RC_OK, pkDestroyMutex(&mutex));
    EXPECT_EQ(nullptr, mutex);
}

TEST(PsDelayTest, SplitsIntoSecondsAndMicroseconds) {
    const struct { int32_t ms; long seconds, micros; } cases[] = {
        {1500, 1, 500000}, {999, 0, 999000}, {1000, 1, 0}, {0, 0, 0}, {2001, 2, 1000}};
    for (const auto& c : cases) {
        long seconds = -1, micros = -1;
        psDelaySplit(c.ms, &seconds, &micros);
        EXPECT_EQ(c.seconds * 1000000 + c.micros, seconds * 1000000 + micros) << c.ms;
        EXPECT_LT(micros, 1000000) << c.ms;
    }
}

}  // namespace
