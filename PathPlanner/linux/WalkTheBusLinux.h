// The Linux rescan vehicle: writes the bus-rescan script to /tmp/rescanScript<pid>,
// runs it, lets the system settle and then has the multipath driver reconfigure.
#ifndef PATHPLANNER_LINUX_WALKTHEBUSLINUX_H
#define PATHPLANNER_LINUX_WALKTHEBUSLINUX_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "PathPlanner/WalkTheBus.h"

// Waits the given number of seconds. The product waits for real; tests count.
typedef std::function<void(uint32_t seconds)> Sleeper;

// Sleeps the whole duration, resuming with the time left whenever a signal
// interrupts the sleep.
void waitThrough(std::chrono::milliseconds duration);
// The product's sleeper: waitThrough for that many seconds.
void waitSeconds(uint32_t seconds);

// The bash script that rescans the SCSI and Fibre Channel buses.
extern const char kRescanScript[];
// The mode the script gets: decimal 755 (octal 1363), or 0700 in a build with
// PP_PRIVATE_RESCAN_SCRIPT.
extern const mode_t kRescanScriptMode;

class WalkTheBusLinux : public WalkTheBus {
public:
    // Takes over driver (null when the host has none). sleeper and script are seams
    // for tests; the product passes neither.
    explicit WalkTheBusLinux(std::unique_ptr<MultipathDriver> driver, Sleeper sleeper = waitSeconds,
                             std::string script = kRescanScript);

    // RC_OK; RC_CANCELLED when the script cannot be written; -1 when its mode cannot
    // be set; the executor's result when the script fails; else the driver's
    // reconfiguration result. Without a driver there is no wait and no reconfiguration.
    int32_t walkTheBus() override;
    // Writes the script to a new file at rescanFile that this process created
    // exclusively, after removing whatever was there; never blocks. RC_OK,
    // RC_CANCELLED (not created, or not written and removed) or -1 (mode).
    int32_t writeScript();
    // "/tmp/rescanScript" followed by this process's id.
    std::string getRescanFile();

    const std::string& scriptPath() const { return rescanFile; }
    MultipathDriver* driver() const { return multipathDriver.get(); }

private:
    int32_t runScript();

    std::string rescanFile;
    Sleeper sleeper_;
    std::string script_;
};

#endif
