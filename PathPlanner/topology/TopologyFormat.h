// How PathPlannerTopology prints a device-mapper topology: a JSON array with one
// object per path record, or an aligned table. Pure: text out, nothing else.
#ifndef PATHPLANNER_TOPOLOGY_TOPOLOGYFORMAT_H
#define PATHPLANNER_TOPOLOGY_TOPOLOGYFORMAT_H

#include <string>

#include "Multipath/MultipathDriver.h"

// A JSON string literal, quotes included. Valid UTF-8 passes through; control
// characters are escaped and bytes that are not UTF-8 become U+FFFD.
std::string topologyJsonString(const std::string& text);

// One JSON array of the records in device-name order, keys named as the record's
// fields, ending in a line feed. No records: "[]\n".
std::string topologyToJson(const Topology& topology);

// A header line and one line per record in device-name order, columns aligned.
std::string topologyToTable(const Topology& topology);

#endif
