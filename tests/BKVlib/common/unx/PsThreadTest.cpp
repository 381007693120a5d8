// Thread start, delays and signalling one thread, observed through the trace.
#include "BKVlib/common/unx/psthread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;

namespace {

TEST(PsDelayTest, SplitsIntoSecondsAndMicroseconds) {
    const struct { int32_t ms; long seconds, micros; } cases[] = {{1500, 1, 500000}, {999, 0, 999000}, {1000, 1, 0}, {0, 0, 0}, {2001, 2, 1000}};
    for (const auto& c : cases) {
        long seconds = -1, micros = -1;
        psDelaySplit(c.ms, &seconds, &micros);
        EXPECT_EQ(c.seconds, seconds) << c.ms;
        EXPECT_EQ(c.micros, micros) << c.ms;
    }
}

std::atomic<int32_t> gRegistered{0};

TEST(PsThreadTest, StartedThreadIsRegisteredRunsAndTracesItsExit) {
    TempDir dir;
    std::string path = dir.file("thread.trc");
    resetTrace();
    trSetMaxMB(1);  // the wrap mutex orders the detached thread's last record before our reads
    ASSERT_EQ(0, trBegin(path.c_str(), 0));
    trSetLibFlags("THREAD ERROR -TIMESTAMP -PREFIX", 0);
    EXPECT_EQ(RC_MISSING_ARG, psThreadStart(nullptr, "none"));
    psSetThreadRegisterHook([](int32_t number) { gRegistered = number; });
    std::atomic<int32_t> ran{0};
    pthread_t thread;
    PsThreadStartRec record = {&thread, nullptr,
                               [](void* arg) -> void* {
                                   *static_cast<std::atomic<int32_t>*>(arg) = psThreadNumber();
                                   return nullptr;
                               },
                               &ran, -1, 256 * 1024};
    ASSERT_EQ(0, psThreadStart(&record, "worker"));
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, record.detachState);
    bool exited = false;
    for (int i = 0; i < 500 && !exited; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        exited = ran && readFile(path).find("Thread " + std::to_string(ran) + " exit called.\n") != std::string::npos;
    }
    EXPECT_TRUE(exited);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the record's writer return
    EXPECT_EQ(ran.load(), gRegistered.load());
    psSetThreadRegisterHook(nullptr);
    EXPECT_EQ(-1, psSignalThread(pthread_self(), 4096));
    EXPECT_THAT(readFile(path), HasSubstr("Starting thread worker\npthread_attr_setstacksize: new stacksize=262144\n"));
    EXPECT_THAT(readFile(path), HasSubstr("Called with invalid signal (4096).\n"));
    resetTrace();
}

}  // namespace
