// Tests that check which messages reach the activity log open the catalogue the
// build made, as the installed tool opens its own.
#ifndef TESTS_SUPPORT_TESTCATALOG_H
#define TESTS_SUPPORT_TESTCATALOG_H

#include <string>

#include "Common/AgentMessages.h"

// Opens build/nls/en_US/qlxna.cat once per test process; returns initMessages' result.
inline int useBuiltCatalog() {
    static const int rc = initMessages(std::string(PP_BINARY_DIR) + "/nls", "", "qlxna.cat", "en_US");
    return rc;
}

#endif
