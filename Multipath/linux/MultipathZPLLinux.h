// The vendor multipath driver ZPL on Linux: its package query, its reconfiguration
// command and the colon-separated WWPNs that lunctl prints there.
#ifndef MULTIPATH_LINUX_MULTIPATHZPLLINUX_H
#define MULTIPATH_LINUX_MULTIPATHZPLLINUX_H

#include <cstdint>
#include <string>
#include <vector>

#include "Multipath/MultipathZPL.h"

constexpr size_t kMinWwpnChars = 14;

class MultipathZPLLinux : public MultipathZPL {
public:
    MultipathZPLLinux() = default;
    ~MultipathZPLLinux() override = default;

    // Runs cfglundev: RC_OK, RC_RECONFIG_NOT_RUN when it cannot run, or
    // RC_DRIVER_CMD_FAILED when it exits with any other status.
    int32_t performDynamicReconfiguration() override;
    // "1234567890abcdef" becomes "12:34:56:78:90:ab:cd:ef"; characters after the
    // sixteenth are dropped. Empty for a WWPN that canFormatWWPN refuses.
    std::string formatWWPN(const std::string& wwpn) override;
    // The form needs at least the first seven pairs: kMinWwpnChars characters.
    bool canFormatWWPN(const std::string& wwpn) override;
    // "rpm", "-q ZORzpl".
    std::vector<std::string> getVersionCommand() override;
};

#endif
