#include "BKVlib/common/ut/GlobalRC.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "BKVlib/common/nls/amsgnote.h"
#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

namespace {

const char* const kModule = "BKVlib/common/ut/GlobalRC";
constexpr int32_t kMsgLogWriteFailed = 250;
constexpr int32_t kMsgInternalFailure = 263;

// Library messages that are warnings whatever their catalogue severity.
const int32_t kWarningMessages[] = {201, 202, 203, 204, 206, 207, 208, 209, 210, 212, 214, 215, 218, 219, 220,
                                    221, 222, 223, 230, 235, 249, 251, 252, 253, 254, 255, 256, 257, 258, 259,
                                    260, 261, 262, 266};

std::atomic<bool> gOverride250{false};
std::atomic<int32_t> gOverride250Value{0};

// Issuing message 263 sets the return code again, which may fail the same way;
// one report per thread at a time breaks that loop.
thread_local bool gReporting = false;

void reportFailure(int line, const char* text) {
    TR_PRINTF(TR_GENERAL, "%s\n", text);
    if (gReporting) return;
    gReporting = true;
    nlNote(kMsgInternalFailure, NL_ERRORLOG | NL_SEVERITY, kModule, line, text);
    gReporting = false;
}

int32_t severityRC(uint8_t severity) {
    switch (severity) {
        case NL_SEV_W: return GRC_ERROR;
        case NL_SEV_K:  // a K message counts as severe on purpose
        case NL_SEV_E:
        case NL_SEV_S: return GRC_SEVERE;
        default: return GRC_OK;
    }
}

}  // namespace

GlobalrC* GlobalrC::instance() {
    static GlobalrC* single = new GlobalrC();
    return single;
}

GlobalrC::GlobalrC() {
    pkCreateMutex(&mutex_);
}

void GlobalrC::setMsg250Override(bool enabled, int32_t value) {
    gOverride250Value = value;
    gOverride250 = enabled;
}

int32_t GlobalrC::msgRC(int32_t msgNum) {
    if (std::find(std::begin(kWarningMessages), std::end(kWarningMessages), msgNum) != std::end(kWarningMessages)) {
        return GRC_WARNING;
    }
    if (msgNum == kMsgLogWriteFailed) {
        int32_t value = gOverride250Value;
        return !gOverride250 ? GRC_SEVERE : (value < 1 ? GRC_ERROR : value);
    }
    if (msgNum == kMsgInternalFailure) return GRC_SEVERE;
    if (msgNum < 0 || msgNum > 0xFFFF) return GRC_OK;
    return severityRC(nlGetSeverity(static_cast<uint16_t>(msgNum)));
}

bool GlobalrC::lock(int line) {
    bool locked = pkAcquireMutex(mutex_) == RC_OK;
    if (!locked) reportFailure(line, "Unable to acquire global rc mutex");
    return locked;
}

void GlobalrC::unlock(bool locked, int line) {
    if (locked && pkReleaseMutex(mutex_) != RC_OK) reportFailure(line, "Unable to release global rc mutex");
}

int32_t GlobalrC::set(int32_t msgNum) {
    TR_PRINTF(TR_GENERAL, "GlobalrC::set() entry.\n");
    // Taken before the mutex: the severity lookup takes the NLS mutex and may
    // issue messages of its own.
    int32_t rc = msgRC(msgNum);
    if (!lock(__LINE__)) return 0;
    TR_PRINTF(TR_GENERAL, "msgNum = %d.\n", msgNum);
    traceValues("Before", 3);
    TR_PRINTF(TR_GENERAL, "msgRC = %d.\n", rc);
    int32_t changed = 0;
    if (rc > rc_) {
        TR_PRINTF(TR_GENERAL, "msgNum = %d changed the Global RC.\n", msgNum);
        TR_PRINTF(TR_GENERAL, "Old values: rc = %d, rcMacroMax = %d, rcMax = %d.\n", rc_, rcMacroMax_, rcMax_);
        rc_ = rc;
        rcMacroMax_ = std::max(rcMacroMax_, rc);
        rcMax_ = std::max(rcMax_, rc_);
        TR_PRINTF(TR_GENERAL, "New values: rc = %d, rcMacroMax = %d, rcMax = %d.\n", rc_, rcMacroMax_, rcMax_);
        changed = 1;
    }
    traceValues("After", 3);
    if (pkReleaseMutex(mutex_) != RC_OK) {
        reportFailure(__LINE__, "Unable to release global rc mutex");
        return 0;
    }
    TR_PRINTF(TR_GENERAL, "GlobalrC::set() exit.\n");
    return changed;
}

// The values a trace line shows: rc, then rcMacroMax, then rcMax, count of them.
void GlobalrC::traceValues(const char* when, int count) const {
    if (count == 1) {
        TR_PRINTF(TR_GENERAL, "%s processing, rc = %d.\n", when, rc_);
    } else if (count == 2) {
        TR_PRINTF(TR_GENERAL, "%s processing, rc = %d, rcMacroMax = %d.\n", when, rc_, rcMacroMax_);
    } else {
        TR_PRINTF(TR_GENERAL, "%s processing, rc = %d, rcMacroMax = %d, rcMax = %d.\n", when, rc_, rcMacroMax_,
                  rcMax_);
    }
}

int32_t GlobalrC::read(const char* name, const int32_t* value) {
    TR_PRINTF(TR_GENERAL, "GlobalrC::%s() entry.\n", name);
    bool locked = lock(__LINE__);
    int32_t copy = *value;
    unlock(locked, __LINE__);
    TR_PRINTF(TR_GENERAL, "rc = %d.\n", copy);
    TR_PRINTF(TR_GENERAL, "GlobalrC::%s() exit.\n", name);
    return copy;
}

// Zeroes the first count values: rc, then rcMacroMax, then rcMax.
int32_t GlobalrC::clear(const char* name, int count) {
    TR_PRINTF(TR_GENERAL, "GlobalrC::%s() entry.\n", name);
    bool locked = lock(__LINE__);
    traceValues("Before", count);
    int32_t* values[] = {&rc_, &rcMacroMax_, &rcMax_};
    for (int i = 0; i < count; ++i) *values[i] = 0;
    traceValues("After", count);
    unlock(locked, __LINE__);
    TR_PRINTF(TR_GENERAL, "GlobalrC::%s() exit.\n", name);
    return 1;
}

int32_t GlobalrC::get() { return read("get", &rc_); }
int32_t GlobalrC::getMacroMax() { return read("getMacroMax", &rcMacroMax_); }
int32_t GlobalrC::getMax() { return read("getMax", &rcMax_); }
int32_t GlobalrC::clearRC() { return clear("clearRC", 1); }
int32_t GlobalrC::clearMacroRC() { return clear("clearMacroRC", 2); }
int32_t GlobalrC::clearAllRC() { return clear("clearAllRC", 3); }
