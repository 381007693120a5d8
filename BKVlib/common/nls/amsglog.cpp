// Minimal placeholder: library messages are made from the catalogue once the
// message repository is in place behind this call.
#include "BKVlib/common/nls/amsglog.h"

int32_t nlIssue(uint16_t, uint8_t, ...) {
    return 0;
}
