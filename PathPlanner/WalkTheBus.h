// The rescan vehicle: makes the host discover newly mapped LUNs and then lets the
// multipath driver (if any) reconfigure itself.
#ifndef PATHPLANNER_WALKTHEBUS_H
#define PATHPLANNER_WALKTHEBUS_H

#include <cstdint>
#include <memory>
#include <utility>

#include "Multipath/MultipathDriver.h"

class WalkTheBus {
public:
    // Takes over the driver; null when the host has none.
    explicit WalkTheBus(std::unique_ptr<MultipathDriver> driver) : multipathDriver(std::move(driver)) {}
    virtual ~WalkTheBus() = default;
    WalkTheBus(const WalkTheBus&) = delete;
    WalkTheBus& operator=(const WalkTheBus&) = delete;

    // 0 on success, else the failing step's result.
    virtual int32_t walkTheBus() = 0;

protected:
    int32_t reserved = 0;
    std::unique_ptr<MultipathDriver> multipathDriver;
};

#endif
