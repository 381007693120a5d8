// The thread layer: mutexes with owner tracking, try-lock across threads and the
// single-threaded skip; and the signal policy, in a forked child so the test process
// keeps its own signal dispositions: SIGUSR1 ends one thread and no other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/unx/linux86/psunxthr.h"
#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

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

class PsUnxThrTest : public ::testing::Test {
protected:
    // Runs body in a child tracing THREAD and ERROR to path_; returns its exit code.
    int runTraced(const std::function<int()>& body) {
        return runInChild([&] {
            resetTrace();
            trSetLibFlags("THREAD ERROR -TIMESTAMP -PREFIX", 0);
            trBegin(path_.c_str(), 0);
            int rc = body();
            trEnd(1);
            return rc;
        });
    }
    TempDir dir_;
    std::string path_ = dir_.file("signals.trc");
};

std::atomic<bool> gFirstRunning{false}, gStopSecond{false};
std::atomic<long> gSecondTicks{0};

pthread_t startJoinable(void* (*start)(void*)) {
    pthread_t thread{};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    PsThreadStartRec record = {&thread, &attr, start, nullptr, -1, 0};
    if (psThreadStart(&record, "worker") != 0) _exit(10);
    pthread_attr_destroy(&attr);
    return thread;
}

TEST_F(PsUnxThrTest, Sigusr1EndsOnlyTheSignalledThread) {
    EXPECT_EQ(0, runTraced([] {
        PsSignalSets sets;
        psSetupSignals(&sets);
        pthread_t first = startJoinable([](void*) -> void* {
            gFirstRunning = true;  // from here on it holds no lock the signal could leave taken
            for (;;) pause();
        });
        pthread_t second = startJoinable([](void*) -> void* {
            for (; !gStopSecond; ++gSecondTicks) psThreadDelay(1);
            return nullptr;
        });
        while (!gFirstRunning) psThreadDelay(1);
        if (psSignalThread(first, SIGUSR1) != 0) return 11;
        pthread_join(first, nullptr);
        for (long before = gSecondTicks; gSecondTicks < before + 5;) psThreadDelay(1);
        gStopSecond = true;
        pthread_join(second, nullptr);
        return 0;
    }));
    EXPECT_THAT(readFile(path_), testing::ContainsRegex("Unknown thread 0x[0-9a-f]+ terminating on signal 10\n"));
}

}  // namespace
