// Mutexes with owner tracking, try-lock across threads and the single-threaded skip.
#include "BKVlib/common/thrd/pkthread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"

namespace {

class PkThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        psSetMultiThreaded(1);
        ASSERT_EQ(RC_OK, pkCreateMutex(&mutex_));
    }
    void TearDown() override {
        psSetMultiThreaded(1);
        EXPECT_EQ(RC_OK, pkDestroyMutex(&mutex_));
        EXPECT_EQ(nullptr, mutex_);
    }
    MutexHandle mutex_ = nullptr;
};

TEST_F(PkThreadTest, TryLockHeldElsewhereIsBusyAndOwnerIsReported) {
    std::atomic<int32_t> holder{0};
    std::atomic<bool> release{false};
    std::thread other([&] {
        pkAcquireMutex(mutex_);
        holder = psThreadNumber();
        while (!release) std::this_thread::yield();
        pkReleaseMutex(mutex_);
    });
    while (!holder) std::this_thread::yield();
    EXPECT_EQ(RC_MUTEX_BUSY, pkTryMutex(mutex_));
    EXPECT_EQ(holder, pkMutexOwner(mutex_));
    EXPECT_EQ(0, pkMutexHeldBySelf(mutex_));
    psSetMultiThreaded(0);  // one thread: locking is skipped
    EXPECT_EQ(RC_OK, pkTryMutex(mutex_));
    EXPECT_EQ(RC_OK, pkReleaseMutex(mutex_));
    psSetMultiThreaded(1);
    release = true;
    other.join();
    EXPECT_EQ(RC_OK, pkTryMutex(mutex_));
    EXPECT_EQ(psThreadNumber(), pkMutexOwner(mutex_));
    EXPECT_EQ(EDEADLK, pkAcquireMutex(mutex_));
    EXPECT_EQ(RC_OK, pkReleaseMutex(mutex_));
    EXPECT_EQ(0, pkMutexOwner(mutex_));
    EXPECT_EQ(-1, pkTryMutex(nullptr));
}

}  // namespace
