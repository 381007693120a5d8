// The signal policy, exercised in forked children so the test process keeps its
// own signal dispositions: the shutdown wait, SIGUSR1 ending one thread, and a
// fatal trap ending the process.
#include "BKVlib/common/unx/linux86/psunxthr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <string>

#include "BKVlib/common/unx/psthread.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;

namespace {

class PsUnxThrTest : public ::testing::Test {
protected:
    // Runs body in a child tracing THREAD and ERROR to path_ and returns its wait
    // status. Once the body calls ready(fd), the parent sends signal (if any).
    int runChild(const std::function<int(int readyFd)>& body, int signal = 0) {
        int pipeFds[2];
        if (pipe(pipeFds) != 0) return -1;
        fflush(stdout);
        pid_t child = fork();
        if (child == 0) {
            close(pipeFds[0]);
            alarm(30);
            resetTrace();
            trSetLibFlags("THREAD ERROR -TIMESTAMP -PREFIX", 0);
            trBegin(path_.c_str(), 0);
            int rc = body(pipeFds[1]);
            trEnd(1);
            _exit(rc);
        }
        close(pipeFds[1]);
        char byte = 0;
        if (read(pipeFds[0], &byte, 1) == 1 && signal) kill(child, signal);
        close(pipeFds[0]);
        int status = 0;
        waitpid(child, &status, 0);
        return status;
    }
    static void ready(int fd) {
        if (write(fd, "r", 1) != 1) _exit(90);
    }
    TempDir dir_;
    std::string path_ = dir_.file("signals.trc");
};

TEST_F(PsUnxThrTest, ShutdownSignalEndsTheWait) {
    const struct {
        int signal;  // 0: the process asks for its own shutdown
        const char* line;
    } cases[] = {
        {SIGINT, "YRRO shutting down, signal SIGINT (2) \n"},
        {SIGQUIT, "YRRO shutting down, signal SIGQUIT (3) \n"},
        {0, "YRRO shutting down, signal SIGTERM (15) \n"},
    };
    for (const auto& c : cases) {
        int status = runChild(
            [&](int readyFd) {
                PsSignalSets sets;
                if (psSetupSignals(&sets) != 0) return 3;
                psSetMultiThreaded(1);
                ready(readyFd);
                if (!c.signal && psRequestShutdown(1) != 0) return 4;
                return psWaitShutdown(&sets) == 0 && psShutdownBegun() ? 0 : 5;
            },
            c.signal);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c.line << status;
        std::string text = readFile(path_);
        EXPECT_THAT(text, HasSubstr("psWaitShutdown: sigwait returned(0), reason(Success)")) << c.line;
        EXPECT_THAT(text, HasSubstr(c.line));
        unlink(path_.c_str());
    }
}

std::atomic<bool> gStopSecond{false};
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
    int status = runChild([](int readyFd) {
        PsSignalSets sets;
        psSetupSignals(&sets);
        pthread_t first = startJoinable([](void*) -> void* {
            for (;;) pause();
        });
        pthread_t second = startJoinable([](void*) -> void* {
            for (; !gStopSecond; ++gSecondTicks) psThreadDelay(1);
            return nullptr;
        });
        ready(readyFd);
        if (psSignalThread(first, SIGUSR1) != 0) return 11;
        pthread_join(first, nullptr);
        for (long before = gSecondTicks; gSecondTicks < before + 5;) psThreadDelay(1);
        gStopSecond = true;
        pthread_join(second, nullptr);
        return 0;
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_THAT(readFile(path_), testing::MatchesRegex("(.|\n)*Unknown thread 0x[^\n]* terminating on signal 10\n(.|\n)*"));
}

TEST_F(PsUnxThrTest, OtherTrapSignalEndsTheProcess) {
    int status = runChild([](int readyFd) {
        struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        PsSignalSets sets;
        psSetupSignals(&sets);
        ready(readyFd);
        return raise(SIGFPE);
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGFPE) << status;
    EXPECT_THAT(readFile(path_), HasSubstr("Unknown thread, fatal error, signal 8\n"));
}

}  // namespace
