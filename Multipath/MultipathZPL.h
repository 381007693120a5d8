// The vendor multipath driver ZPL, driven through its command-line tool lunctl:
// the logic every platform shares. Device and path numbers are found by searching
// the text of "lunctl query device" and "lunctl query wwpn".
#ifndef MULTIPATH_MULTIPATHZPL_H
#define MULTIPATH_MULTIPATHZPL_H

#include <cstdint>
#include <string>
#include <vector>

#include "Common/CmdExecer.h"
#include "Multipath/MultipathDriver.h"

// Searches over lunctl's text. They take text and run nothing, so they can be
// tested with nothing but strings; the driver adds the queries, caches and traces.
namespace zplText {

enum class Lookup {
    kFound,
    kNoName,      // the device name or serial is not in the text
    kNoAnchor,    // no device header ("DEV#"/"Dev#") before it, or no path on the adapter after it
    kNotANumber,  // the text where the number belongs holds none
};

struct IdLookup {
    Lookup outcome = Lookup::kNoName;
    int32_t id = -1;   // the number when kFound, else -1
    std::string text;  // the text that was read as a number (kNotANumber)
};

// A C "%d" read: leading white space, an optional sign, digits. False when no digit
// follows; values beyond 32 bits are clamped rather than left undefined.
bool readInt(const std::string& text, int32_t* value);
// The device number of the "DEV#" (else "Dev#") header before the device name. The
// name counts only whole, as the value of a name or serial label.
IdLookup findDevId(const std::string& deviceQuery, const std::string& device);
// The number that starts the line of the first path on adapter after serial (found
// as findDevId finds a name), within the device's own block: up to the next device
// header. The adapter counts only whole; an empty adapter never matches (kNoAnchor).
IdLookup findPathId(const std::string& deviceQuery, const std::string& serial, const std::string& adapter);
// The adapter name on the WWPN's line of the WWPN query, up to its first ":".
// False when the WWPN is not in the text.
bool findAdapterName(const std::string& wwpnQuery, const std::string& wwpn, std::string* adapter);
// Both texts read as "%d.%d.%d.%d": the difference of the first unequal pair of
// components (first minus second), 0 when all four are equal. Missing components
// count as 0.
int32_t compareVersions(const std::string& first, const std::string& second);

}  // namespace zplText

class MultipathZPL : public MultipathDriver {
public:
    MultipathZPL() = default;
    ~MultipathZPL() override = default;

    // One lunctl "set device N policy W" per device; W is "lb" for 2, "rr" for 3 and
    // "fo" for any other setting. RC_OK, RC_ZPL_DEVICE_NOT_FOUND (a device is not
    // listed) or RC_DRIVER_CMD_FAILED (a command failed; a command that cannot run at
    // all stops the loop). Failed names go to getErrorDevices().
    int32_t setPolicy(int32_t setting, const std::vector<std::string>& devices) override;
    // One lunctl "set device N path M offline|online" per WWPN: "offline" for 0,
    // "online" for any other setting. RC_OK, RC_ZPL_DEVICE_NOT_FOUND (device or a
    // path unknown) or RC_DRIVER_CMD_FAILED. Failed WWPNs go to getErrorWWPNs().
    // A WWPN that canFormatWWPN refuses stops the loop like a command that cannot
    // run (RC_DRIVER_CMD_FAILED, the WWPN not listed as failed).
    int32_t setState(int32_t setting, const std::string& device, const std::vector<std::string>& wwpns) override;
    std::vector<std::string> getErrorDevices() override;
    std::vector<std::string> getErrorWWPNs() override;
    // The first line of the package query, cached once it is good; empty when the
    // driver is missing, too old or the query failed.
    std::string getVersion() override;

    virtual std::string getLunctlCommand();
    // Hook before each policy change; does nothing here.
    virtual int32_t getReserved(int32_t setting, int32_t devId);
    virtual std::string getFile();
    // The WWPN as lunctl prints it; unchanged here.
    virtual std::string formatWWPN(const std::string& wwpn);
    // Whether formatWWPN can put wwpn into lunctl's form; always here.
    virtual bool canFormatWWPN(const std::string& wwpn);
    // Words of the package query; none here, so the base class finds no version.
    virtual std::vector<std::string> getVersionCommand();
    virtual int32_t isMPIOInstalled();
    virtual std::string readMPIOVersion();
    // The adapter that the WWPN query shows for wwpn; empty when none.
    virtual std::string getAdapterName(const std::string& wwpn);

    // True when lunctl's text says the command did not apply.
    bool isCmdInvalid(const std::string& text);
    int32_t findMPIO();
    std::string getMPIOVersion();
    // Runs "lunctl query device" into the cache; false when it failed.
    bool getDeviceOutput();
    // The device number, or -1.
    int32_t getDevId(const std::string& device);
    // The number of the path of serial on the WWPN's adapter, or -1.
    int32_t getPathId(const std::string& serial, const std::string& wwpn);

protected:
    // Runs words through runCommandWords; tests replace it to reach the "could not run" case.
    virtual CommandResult runWords(const std::vector<std::string>& words);
    // What a failed command said: its standard error, else its standard output.
    static const std::string& errorText(const CommandResult& result);

private:
    int32_t runPolicyChange(int32_t devId, const std::string& word);
    int32_t changePath(int32_t devId, const std::string& device, const std::string& wwpn,
                       const std::string& stateWord);

    [[maybe_unused]] int32_t zplStatus_ = 1;  // reserved status word; nothing reads it
    std::string deviceQuery_;
    std::string wwpnQuery_;
    std::string version_;
    std::string policyKeyword_ = "policy";
    std::string mpioVersion_;
    std::vector<std::string> errorDevices_;
    std::vector<std::string> errorWWPNs_;
};

#endif
