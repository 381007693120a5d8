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
using ::testing::Not;

namespace {

class PsThreadTest : public ::testing::Test {
protected:
    // A wrapping trace: its writes take the wrap mutex, which orders a detached
    // thread's last record before the flag changes of the next test.
    void SetUp() override {
        resetTrace();
        trSetMaxMB(1);
        ASSERT_EQ(0, trBegin(path_.c_str(), 0));
        trSetLibFlags("THREAD ERROR -TIMESTAMP -PREFIX", 0);
    }
    void TearDown() override { resetTrace(); }
    TempDir dir_;
    std::string path_ = dir_.file("thread.trc");
};

TEST(PsDelayTest, SplitsIntoSecondsAndMicroseconds) {
    const struct {
        int32_t ms;
        long seconds;
        long micros;
    } cases[] = {{1500, 1, 500000}, {999, 0, 999000}, {1000, 1, 0}, {0, 0, 0}, {2001, 2, 1000}};
    for (const auto& c : cases) {
        long seconds = -1;
        long micros = -1;
        psDelaySplit(c.ms, &seconds, &micros);
        EXPECT_EQ(c.seconds, seconds) << c.ms;
        EXPECT_EQ(c.micros, micros) << c.ms;
    }
}

TEST_F(PsThreadTest, LongDelaysAreTracedShortOnesAreNot) {
    auto start = std::chrono::steady_clock::now();
    psThreadDelay(999);
    psThreadDelay(1000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1999));
    std::string me = std::to_string(psThreadNumber());
    std::string text = readFile(path_);
    EXPECT_THAT(text, HasSubstr("Thread " + me + " delaying for 1000 milliseconds.\nThread " + me + " awakened.\n"));
    EXPECT_THAT(text, Not(HasSubstr("999 milliseconds")));
}

std::atomic<int32_t> gRegistered{0};
void registerThread(int32_t number) { gRegistered = number; }

TEST_F(PsThreadTest, StartedThreadIsRegisteredRunsAndTracesItsExit) {
    EXPECT_EQ(RC_MISSING_ARG, psThreadStart(nullptr, "none"));
    psSetThreadRegisterHook(registerThread);
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
    std::string exitLine;
    for (int i = 0; i < 500 && exitLine.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        int32_t number = ran;
        if (number && readFile(path_).find("Thread " + std::to_string(number) + " exit called.\n") != std::string::npos) {
            exitLine = "seen";
        }
    }
    EXPECT_EQ("seen", exitLine);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the record's writer return
    EXPECT_EQ(ran.load(), gRegistered.load());
    psSetThreadRegisterHook(nullptr);
    EXPECT_THAT(readFile(path_), HasSubstr("Starting thread worker\npthread_attr_setstacksize: new stacksize=262144\n"));
}

TEST_F(PsThreadTest, SignallingRejectsBadSignals) {
    EXPECT_EQ(-1, psSignalThread(pthread_self(), 0));
    EXPECT_EQ(-1, psSignalThread(pthread_self(), 4096));
    EXPECT_EQ(0, psSignalThread(pthread_self(), 0 + SIGURG));  // ignored by default
    EXPECT_THAT(readFile(path_), HasSubstr("Called with invalid signal (0).\nCalled with invalid signal (4096).\n"));
}

}  // namespace
