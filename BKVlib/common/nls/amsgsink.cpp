// The library's log sinks. No log can be opened yet, so each sink finds its log
// closed and writes nothing.
#include "BKVlib/common/nls/amsglog.h"

#include "BKVlib/common/ut/ReturnCodes.h"

int32_t nlErrorLogWrite(const char*) {
    return RC_OK;
}

int32_t nlSchedLogWrite(const char*) {
    return RC_OK;
}

int32_t nlThirdLogWrite(const char*) {
    return RC_OK;
}

int32_t nlThirdLogWriteW(const wchar_t*) {
    return RC_OK;
}
