// The process's overall return code, raised as a side effect of every message
// the program issues: 0 success, 4 warning, 8 error, 12 severe. One instance,
// created on first use and never destroyed; its mutex guards all three values.
#ifndef BKVLIB_COMMON_UT_GLOBALRC_H
#define BKVLIB_COMMON_UT_GLOBALRC_H

#include <cstdint>

#include "BKVlib/common/thrd/pkthread.h"

constexpr int32_t GRC_OK = 0;
constexpr int32_t GRC_WARNING = 4;
constexpr int32_t GRC_ERROR = 8;
constexpr int32_t GRC_SEVERE = 12;

class GlobalrC {
public:
    static GlobalrC* instance();

    // Raises the values by the return code of message msgNum: 1 when rc changed,
    // else 0 (also when the mutex could not be taken).
    int32_t set(int32_t msgNum);
    int32_t get();          // since the last clearRC
    int32_t getMacroMax();  // since the last clearMacroRC
    int32_t getMax();       // since the start or the last clearAllRC
    // Each returns 1.
    int32_t clearRC();
    int32_t clearMacroRC();
    int32_t clearAllRC();

    // The return code of message 250 when enabled (values below 1 give 8); off by default.
    static void setMsg250Override(bool enabled, int32_t value);
    // The return code a message number stands for.
    static int32_t msgRC(int32_t msgNum);

    GlobalrC(const GlobalrC&) = delete;
    GlobalrC& operator=(const GlobalrC&) = delete;

private:
    GlobalrC();
    bool lock(int line);
    void unlock(bool locked, int line);
    // Each traces as the public call it serves (name), under the mutex.
    int32_t read(const char* name, const int32_t* value);
    int32_t clear(const char* name, int count);
    void traceValues(const char* when, int count) const;

    int32_t rc_ = 0;
    int32_t rcMacroMax_ = 0;
    int32_t rcMax_ = 0;
    MutexHandle mutex_ = nullptr;
};

#endif
