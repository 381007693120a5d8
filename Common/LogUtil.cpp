#include "Common/LogUtil.h"

#include <dirent.h>
#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Common/AgentTrace.h"
#include "Common/unix/psnautil.h"

namespace {

constexpr int32_t kRunDigits = 6;
constexpr int32_t kJobRunDigits = 4;
constexpr int64_t kSecondsPerDay = 86400;
constexpr int32_t kBytesPerKB = 1024;

// Closes a directory stream when the walk ends.
class DirStream {
public:
    explicit DirStream(const std::string& dir) : dir_(opendir(dir.c_str())) {}
    ~DirStream() {
        if (dir_ != nullptr) closedir(dir_);
    }
    DirStream(const DirStream&) = delete;
    DirStream& operator=(const DirStream&) = delete;
    // The next entry name, or null at the end (or when the directory did not open).
    const char* next() {
        struct dirent* entry = dir_ != nullptr ? readdir(dir_) : nullptr;
        return entry != nullptr ? entry->d_name : nullptr;
    }

private:
    DIR* dir_;
};

bool allDigits(const std::string& text, std::string::size_type pos, std::string::size_type count) {
    if (pos + count > text.size()) return false;
    for (std::string::size_type i = pos; i < pos + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    return true;
}

// Reads the digits at pos up to the first non-digit; a number that would not
// leave room for a successor is refused, so "number + 1" never overflows.
bool readRunNumber(const std::string& text, std::string::size_type pos, int32_t* number) {
    int64_t value = 0;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && value < INT32_MAX; ++pos) {
        value = value * 10 + (text[pos] - '0');
    }
    bool ok = value < INT32_MAX;
    if (ok) *number = static_cast<int32_t>(value);
    return ok;
}

// "<component>?NNNNNN...<ext>": the byte after the component is not looked at,
// and only the text from the last full stop on is compared with ext.
bool matchComponentName(const std::string& name, const std::string& component, const std::string& ext,
                        int32_t* number) {
    if (name.compare(0, component.size(), component) != 0) return false;
    std::string::size_type dot = name.rfind('.');
    if (dot == std::string::npos || dot < component.size()) return false;
    if (name.compare(dot, std::string::npos, ext) != 0) return false;
    return allDigits(name, component.size() + 1, kRunDigits) && readRunNumber(name, component.size() + 1, number);
}

// "<jobName>?NNNN..." whose text behind the first "_" at or after the end of the
// job name begins with the component.
bool matchJobName(const std::string& name, const std::string& jobName, const std::string& component,
                  int32_t* number) {
    int ret = strncmp(name.c_str(), jobName.c_str(), jobName.size());
    NA_TRACE_MAX("ret = %d\n", ret);
    if (ret != 0) return false;
    NA_TRACE_MAX("jobname matched\n");
    std::string::size_type underscore = name.find('_', jobName.size());
    if (underscore == std::string::npos || name.compare(underscore + 1, component.size(), component) != 0) {
        return false;
    }
    if (!allDigits(name, jobName.size() + 1, kJobRunDigits)) return false;
    *number = std::stoi(name.substr(jobName.size() + 1, kJobRunDigits));
    return true;
}

// Room left under the limit, computed as the 32-bit signed values the log
// series has always used; files of 2 GB and more compare wrongly, which is
// accepted for logs that rotate long before that.
int32_t roomLeft(int32_t maxSizeKB, int64_t fileSize) {
    uint32_t limit = static_cast<uint32_t>(maxSizeKB) * static_cast<uint32_t>(kBytesPerKB);
    return static_cast<int32_t>(limit - static_cast<uint32_t>(fileSize));
}

int32_t chooseRunNumber(LogPurgeSettings& settings, const std::string& lastName, int32_t lastNumber,
                        bool checkSize) {
    int64_t size = 0;
    bool startNew = !checkSize;
    if (checkSize && psFileSize(lastName, &size) != 0) {
        NA_TRACE_MID("psFileSize failed on  = %s\n", NA_STR(lastName));
        startNew = true;
    } else if (checkSize) {
        NA_TRACE_MID("psFileSize got fileSize64  = %lli\n", static_cast<long long>(size));
        NA_TRACE_MID("maxSize = %d\n", settings.maxSize);
        startNew = roomLeft(settings.maxSize, size) < kBytesPerKB;
    }
    if (startNew) settings.newLogStarted = true;
    return startNew ? lastNumber + 1 : lastNumber;
}

void purgeByAge(const LogPurgeSettings& settings, const std::map<int32_t, std::string>& files) {
    int64_t oldest = static_cast<int64_t>(time(nullptr)) - static_cast<int64_t>(settings.maxDays) * kSecondsPerDay;
    for (const auto& file : files) {
        struct stat st;
        if (stat(file.second.c_str(), &st) != 0) continue;
        NA_TRACE_MAX(">> lastModTime = %llu\n", static_cast<unsigned long long>(st.st_mtime));
        if (static_cast<int64_t>(st.st_mtime) < oldest) {
            NA_TRACE_MID("File \"%s\" will be deleted\n", NA_STR(file.second));
            psRemoveFile(file.second);
        }
    }
}

void purgeByCount(const LogPurgeSettings& settings, std::map<int32_t, std::string>& files, bool useAge) {
    int64_t limit = useAge ? settings.countLimitAged : settings.countLimitPlain;
    int64_t excess = static_cast<int64_t>(files.size()) + (settings.newLogStarted ? 1 : 0) - limit;
    while (excess > 0 && !files.empty()) {
        auto lowest = files.begin();
        NA_TRACE_MID("File \"%s\" with run number %d will be deleted\n", NA_STR(lowest->second), lowest->first);
        psRemoveFile(lowest->second);
        files.erase(lowest);
        --excess;
    }
}

}  // namespace

std::string getNextLogName(LogPurgeSettings& settings, const std::string& dir, const std::string& prefix,
                           const std::string& ext, bool checkSize) {
    NA_TRACE_ENTER("getNextLogName()");
    NA_TRACE_MID("prefix = %s, ext = %s \n", NA_STR(prefix), NA_STR(ext));
    std::map<int32_t, std::string> files = getMatchingFilesMap(dir, prefix, ext);
    int32_t number = -1;
    if (!files.empty()) {
        const auto& last = *files.rbegin();
        NA_TRACE_MID("lastLogName = %s\n", NA_STR(last.second));
        number = chooseRunNumber(settings, last.second, last.first, checkSize);
    }
    if (number == -1) {
        number = 1;
        settings.newLogStarted = true;
    }
    char digits[16];
    snprintf(digits, sizeof digits, "%06d", number);
    std::string name = prefix + "_" + digits + ext;
    NA_TRACE_MID("prefix = %s, inst = %d, ext = %s \n", NA_STR(prefix), number, NA_STR(ext));
    NA_TRACE_EXIT("Exit: %s, name = %s\n", "getNextLogName()", NA_STR(name));
    return name;
}

// Files deleted by age stay in the map, so the count rule counts them again and
// may leave fewer files than its limit allows; the log series has always done so.
void purgeLogFiles(const LogPurgeSettings& settings, std::map<int32_t, std::string>& files, bool useAge) {
    NA_TRACE_ENTER("purgeLogFiles()");
    if (useAge && settings.maxDays > 0) purgeByAge(settings, files);
    purgeByCount(settings, files, useAge);
    NA_TRACE_EXIT("Exit: %s\n", "purgeLogFiles()");
}

std::map<int32_t, std::string> getMatchingFilesMap(const std::string& dir, const std::string& component,
                                                   const std::string& ext) {
    NA_TRACE_ENTER("getMatchingFilesMap()");
    std::map<int32_t, std::string> files;
    DirStream stream(dir);
    for (const char* entry = stream.next(); entry != nullptr; entry = stream.next()) {
        int32_t number = 0;
        if (matchComponentName(entry, component, ext, &number)) files[number] = dir + "/" + entry;
    }
    if (files.empty()) NA_TRACE_MID("Found no matching file\n");
    NA_TRACE_EXIT("Exit: %s, files = %d\n", "getMatchingFilesMap()", static_cast<int>(files.size()));
    return files;
}

std::map<int32_t, std::string> getMatchingFilesMap(const std::string& dir, const std::string& jobName,
                                                   int32_t runNum, const std::string& component) {
    NA_TRACE_ENTER("getMatchingFilesMap()");
    NA_TRACE_MID("directory: %s, jobName = %s, runNum = %d, component = %s\n", NA_STR(dir), NA_STR(jobName), runNum,
                 NA_STR(component));
    NA_TRACE_MID("jobName: %s, jobNameLen: %d\n", NA_STR(jobName), static_cast<int>(jobName.size()));
    std::map<int32_t, std::string> files;
    DirStream stream(dir);
    for (const char* entry = stream.next(); entry != nullptr; entry = stream.next()) {
        NA_TRACE_MAX("found file: %s\n", entry);
        int32_t number = 0;
        if (matchJobName(entry, jobName, component, &number)) files[number] = dir + "/" + entry;
    }
    NA_TRACE_EXIT("Exit: %s, files = %d\n", "getMatchingFilesMap()", static_cast<int>(files.size()));
    return files;
}
