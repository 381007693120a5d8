// The whole run of the program: set-up, validation, action, job file, clean-up.
#ifndef PATHPLANNER_RUNPATHPLANNER_H
#define PATHPLANNER_RUNPATHPLANNER_H

#include <cstdint>

// Returns the exit status.
int32_t runPathPlanner(int argc, const char* const* argv);

#endif
