// Who and how the process runs, asked on every trace record and every lock: the
// threading-mode flags and the cached thread and process ids. Nothing here locks or
// traces, so the trace and the thread layer can both stand on it.
#ifndef BKVLIB_COMMON_UNX_PSIDENT_H
#define BKVLIB_COMMON_UNX_PSIDENT_H

#include <atomic>
#include <cstdint>

// The mode flags, set only through psSetMultiThreaded and psSetShutdownBegun. Every
// lock and unlock reads them, so the reads are inline: calls into this file for them
// were about half of what a skipped lock cost.
namespace psthread_flags {
extern std::atomic<int32_t> singleThreaded;
extern std::atomic<int32_t> shutdownBegun;
}  // namespace psthread_flags
inline int32_t psIsSingleThreaded() { return psthread_flags::singleThreaded.load(); }
// 1 once the shutdown wait has returned; locking is skipped from then on.
inline int32_t psShutdownBegun() { return psthread_flags::shutdownBegun.load(); }
void psSetShutdownBegun();

// Small number naming the calling thread in traces (the kernel thread id), and
// the process id. Both are cached and refreshed in the child after fork.
int32_t psThreadNumber();
int32_t psProcessId();

#endif
