// How PathPlannerTopology prints what it found and did: the nested view (JSON
// version 2), the flat path records (JSON array or table), the result of a path or
// queueing change, and the one error line. Text out, nothing else.
#ifndef PATHPLANNER_TOPOLOGY_TOPOLOGYFORMAT_H
#define PATHPLANNER_TOPOLOGY_TOPOLOGYFORMAT_H

#include <string>
#include <vector>

#include "Multipath/MultipathDriver.h"
#include "Multipath/linux/DMMapView.h"
#include "Multipath/linux/MultipathDMLinux.h"
#include "PathPlanner/topology/PathSwitch.h"

// A JSON string literal, quotes included. Valid UTF-8 passes through; control
// characters are escaped and bytes that are not UTF-8 become U+FFFD.
std::string topologyJsonString(const std::string& text);

// One JSON array of the records in device-name order, keys named as the record's
// fields, ending in a line feed. No records: "[]\n".
std::string topologyToJson(const Topology& topology);

// A header line and one line per record in device-name order, columns aligned.
std::string topologyToTable(const Topology& topology);

// {"version":2,"driver":...,"maps":[...]} with one map a line, ending in a line feed;
// fields the listing did not carry are null.
std::string mapViewToJson(const std::vector<DmViewMap>& maps, const std::string& driverText);

// {"changed":[...],"unchanged":[...],"refused":[...],"failed":[...]} ("dryRun":true
// first on a dry run); each entry {"map"[,"device"][,"dmState"][,"reason"]}.
std::string switchResultToJson(const PathSwitchResult& result);
// The same as an aligned table with a header line, one line per entry.
std::string switchResultToTable(const PathSwitchResult& result);

// The first line of a tool's standard error that is not a known warning every run
// prints, without its line end; empty when there is none.
std::string topologyExplainingLine(const std::string& text);

// The error line for a listing that did not produce a topology: the catalogue's
// text when the catalogue is started, else an English fallback.
std::string topologyListingError(const DmListingResult& result);

#endif
