// The one line a failed run shows a person at a terminal: the exit status, what it
// means, and the reason the run noted. The agent never has a terminal on standard
// error, so for it nothing changes.
#ifndef PATHPLANNER_EXITLINE_H
#define PATHPLANNER_EXITLINE_H

#include <cstdint>
#include <string>

// What rc means as an exit status of the tool. afterRescan says rc is the result of
// a bus rescan that ran, where a small number is the rescan script's own status.
const char* exitMeaning(int32_t rc, bool afterRescan);
// "PathPlanner failed with exit status 1 (the rescan script failed): <reason>",
// without ": <reason>" when reason is empty; empty for rc 0.
std::string exitLine(int32_t rc, bool afterRescan, const std::string& reason);
// Writes exitLine with the run's noted failure, and a line end, to standard error
// when that is a terminal.
void showExitLine(int32_t rc, bool afterRescan);

#endif
