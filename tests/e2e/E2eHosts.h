// Fake outside worlds shared by several end-to-end tests.
#ifndef TESTS_E2E_E2EHOSTS_H
#define TESTS_E2E_E2EHOSTS_H

#include <string>

#include "tests/e2e/NamespaceHarness.h"

// Finds the PathPlanner that runs a fake, as $p; works whether or not /proc is
// overlaid (new processes are reached through /proc/self/..).
inline const char kFindPlanner[] = R"SH(p=$PPID
while [ "$p" -gt 1 ] && [ "$(cat /proc/self/../$p/comm)" != PathPlanner ]; do
  p=$(cut -d' ' -f4 /proc/self/../$p/stat)
done
)SH";

// A captured device-mapper tool output.
inline std::string fixture(const std::string& name) { return testfiles::testData("Multipath/linux/data/" + name); }

// A SCSI subsystem where nothing new ever shows up: /proc/scsi and the SCSI and FC host
// classes, with adapter host0 in both when adapter. Returns host0's scan file, or "".
inline std::string placeScsi(NamespaceHarness* host, bool adapter = true) {
    testfiles::writeFile(host->makeHostDir("proc_scsi") + "/scsi", "Attached devices:\n");
    host->placeTree("/proc/scsi", host->makeHostDir("proc_scsi"));
    for (const std::string tree : {"scsi_host", "fc_host"}) host->placeTree("/sys/class/" + tree, host->makeHostDir(tree));
    if (!adapter) return "";
    testfiles::writeFile(host->makeHostDir("fc_host/host0") + "/issue_lip", "");
    testfiles::writeFile(host->makeHostDir("scsi_host/host0") + "/scan", "");
    return host->makeHostDir("scsi_host/host0") + "/scan";
}

// Package queries: the vendor package (when vendor) and the device-mapper tools (when
// dm), as "rpm -q ZORzpl" and "rpm -qa" piped into "rpm -q <name>" ask.
inline std::string rpmBody(bool vendor, bool dm) {
    std::string body = "case \"$*\" in\n";
    body += vendor ? "  '-q ZORzpl') echo ZORzpl-1.6.2.0-1 ;;\n"
                   : "  '-q ZORzpl') echo 'package ZORzpl is not installed'; exit 1 ;;\n";
    body += dm ? "  -qa) echo bash-5.2.15-2; echo device-mapper-multipath-0.4.9-123 ;;\n  *) echo \"$2\" ;;\n"
               : "  -qa) ;;\n  *) echo \"package $2 is not installed\"; exit 1 ;;\n";
    return body + "esac";
}

// Where multipath (dm) keeps the job file it saw, beside the harness's other trees.
inline std::string jobSeenBy(NamespaceHarness* host) { return host->makeHostDir("seen") + "/job"; }

// lunctl answers its two queries from the captured listings and accepts every change;
// multipath keeps the job file it saw.
inline void installDrivers(NamespaceHarness* host, bool vendor, bool dm) {
    host->addFakeTool("rpm", rpmBody(vendor, dm));
    if (vendor) {
        host->addFakeTool("lunctl", "[ \"$1\" = set ] || cat '" PP_TESTS_ROOT "/Multipath/data/lunctl-query-'\"$2\"'.txt'");
    }
    if (dm) {
        host->addFakeTool("multipath", "cat /opt/ZOR/QLX/agent/log/*.jobinfo > " + jobSeenBy(host));
    } else {
        host->hideSbinTool("multipath");
    }
}

// Fibre Channel ports of hosts 0 and 1 as sysfs shows them; host 7 has a port but no paths.
inline void placeFcPorts(NamespaceHarness* host) {
    const std::pair<std::string, std::string> ports[] = {
        {"host0", "0x21000024ff00aa00"}, {"host1", "0x21000024FF00AA01"}, {"host7", "0x21000024ff00aa07"}};
    for (const auto& [name, wwpn] : ports) {
        testfiles::writeFile(host->makeHostDir("fc_host/" + name) + "/port_name", wwpn + "\n");
    }
    host->placeTree("/sys/class/fc_host", host->makeHostDir("fc_host"));
}

#endif
