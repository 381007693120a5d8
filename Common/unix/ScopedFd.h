// The descriptor owner is shared with the runtime library's log keeping; it lives
// there so that the library need not reach up into the agent for it.
#ifndef COMMON_UNIX_SCOPEDFD_H
#define COMMON_UNIX_SCOPEDFD_H

#include "BKVlib/common/ut/ownedfile.h"

#endif
