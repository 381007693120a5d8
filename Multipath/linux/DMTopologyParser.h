// Pure readers of the device-mapper multipath tools' text: the listing of
// "multipath -ll -v2" into path records, and the "dmsetup" answers the queueing
// switch needs. Text in, results out; nothing here runs a command.
#ifndef MULTIPATH_LINUX_DMTOPOLOGYPARSER_H
#define MULTIPATH_LINUX_DMTOPOLOGYPARSER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Multipath/MultipathDriver.h"

// What the listing command's result means, checked in this order.
enum class DmListingStatus {
    kParsed,        // exit code 0: the output is a listing (possibly of no maps)
    kNoDriver,      // no multipath tools installed; nothing was run
    kNotRun,        // the command could not be run
    kEmpty,         // nothing on standard output
    kNotLoaded,     // the output says the kernel driver is not loaded
    kNoConfigFile,  // the output complains about multipath.conf
    kFailed,        // any other non-zero exit code
};

// Classifies the listing command's exit code and standard output (kParsed through kFailed).
DmListingStatus dmClassifyListing(int32_t exitCode, const std::string& sysOut);

// "Device Mapper Multipath Version " and the package line from its first decimal
// digit on (nothing after the prefix when the line has no digit).
std::string dmDriverText(const std::string& version);

// Adds one record per path line of a "multipath -ll -v2" listing to *topology (a
// later line for the same device replaces the earlier record), then marks the
// paths of each map's best-weighted group as preferred. Both layouts are read:
// bracketed (up to 0.4.8) and tree (0.4.9 on). Lines it cannot read are traced
// and skipped; any text is accepted.
void dmParseTopology(std::string_view listing, const std::string& driverText, Topology* topology);

// Names of the multipath maps in a "dmsetup ls" answer, in its order: from each line
// that mentions "mpath", its leading run of lower-case letters and digits.
std::vector<std::string> dmMapNames(std::string_view lsOutput);

// True when the first line of a "dmsetup table" answer carries queue_if_no_path.
bool dmTableQueues(std::string_view tableOutput);

#endif
