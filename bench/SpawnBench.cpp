// Starting and waiting for a program through the process layer beside posix_spawn.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include "Common/unix/psspawn.h"

extern char** environ;

namespace {

void BM_SpawnExternalProgramAndWait(benchmark::State& state) {
    const char* argv[] = {"/bin/true", nullptr};
    for (auto _ : state) {
        SpawnInfo info;
        int32_t code = -1;
        SpawnExternalProgram(argv, &info, false, false, false, nullptr);
        WaitForExternalProgram(&info, &code, 0);
    }
}

// The same shell command line started with posix_spawn.
void BM_PosixSpawnShellAndWaitpid(benchmark::State& state) {
    char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), const_cast<char*>("'/bin/true'"),
                    nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ);
        waitpid(pid, nullptr, 0);
    }
}

void BM_SpawnTaskAndWaitpid(benchmark::State& state) {
    const char* argv[] = {"/bin/true", nullptr};
    for (auto _ : state) {
        int32_t pid = 0;
        SpawnTask(argv, false, nullptr, &pid);
        waitpid(pid, nullptr, 0);
        WaitForChildProcesses(CHILD_LIST_REAP, 0);
    }
}

void BM_PosixSpawnAndWaitpid(benchmark::State& state) {
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ);
        waitpid(pid, nullptr, 0);
    }
}

BENCHMARK(BM_SpawnExternalProgramAndWait)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PosixSpawnShellAndWaitpid)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SpawnTaskAndWaitpid)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PosixSpawnAndWaitpid)->Unit(benchmark::kMicrosecond);

}  // namespace
