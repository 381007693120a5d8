// The agent's catalogue messages: each name expands to its catalogue number and key,
// so a call reads logMsg(activityLog, AGT0429I, "PathPlanner", echo).
#ifndef COMMON_AGENTMESSAGEIDS_H
#define COMMON_AGENTMESSAGEIDS_H

#define STA0356E 649, "STA0356E"   // command could not be run: command line
#define STA0523E 858, "STA0523E"   // command failed: command line
#define AGT0272E 1668, "AGT0272E"  // option value missing: option name, rc text
#define AGT0398E 1751, "AGT0398E"  // not a valid multipath option: token
#define AGT0412E 1772, "AGT0412E"  // command line rejected: current argument
#define AGT0429I 1804, "AGT0429I"  // start of work: component, command-line echo
#define AGT0430I 1805, "AGT0430I"  // end of work: component, rc (int)
#define AGT0445I 1821, "AGT0445I"  // cancelled by a stop request
#define AGT0452E 2364, "AGT0452E"  // no vendor device: device name
#define AGT0453E 2365, "AGT0453E"  // vendor command failed on a device: device name
#define AGT0454I 2366, "AGT0454I"  // driver cannot set this policy
#define AGT0456E 2368, "AGT0456E"  // no multipath driver
#define AGT0458I 2370, "AGT0458I"  // policy change: policy name, device echo
#define AGT0459I 2371, "AGT0459I"  // rescan starts
#define AGT0463I 2374, "AGT0463I"  // DM driver installed but not loaded
#define AGT0464I 2375, "AGT0464I"  // multipath.conf missing
#define AGT0470I 2380, "AGT0470I"  // path offline: user, device, map, adapter WWPN
#define AGT0471I 2381, "AGT0471I"  // path online: user, device, map, adapter WWPN
#define AGT0472E 2382, "AGT0472E"  // path change failed: user, device, map, "offline"/"online", reason
#define AGT0473W 2383, "AGT0473W"  // offline refused: adapter WWPN, map names

#endif
