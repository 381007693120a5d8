#include "tests/e2e/NamespaceHarness.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;
using testfiles::readFile;

namespace {

const std::string kPrefixAgent = PP_E2E_PREFIX "/agent";

int shellStatus(const std::string& line) {
    int status = system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string probeNamespace() {
    std::string reason = "end-to-end tests need root for unshare -m; running as uid " + std::to_string(geteuid());
    if (geteuid() == 0) {
        testfiles::TempDir dir;
        int rc = shellStatus("unshare -m --propagation private mount -t tmpfs pp-probe " + dir.path() + " >/dev/null 2>&1");
        reason = rc == 0 ? "" : "unshare -m with a tmpfs mount is refused here (status " + std::to_string(rc) + ")";
    }
    return reason;
}

// Shell functions of the set-up script. A mount point that does not exist (no FC
// adapter, no /proc/scsi, no /opt/ZOR) cannot be made in sysfs, procfs or on the host,
// so its nearest existing parent is overlaid by a tmpfs holding links to the parent's
// old entries, and the mount point is made there.
const char kScriptFunctions[] = R"SH(shadowed=:
shadow() {
  o="$W/orig$(printf %s "$1" | tr / _)"
  mkdir -p "$o"
  mount --bind "$1" "$o"
  mount -t tmpfs pp-overlay "$1"
  for e in "$o"/* "$o"/.[!.]*; do
    if [ -e "$e" ] || [ -L "$e" ]; then ln -s "$e" "$1/${e##*/}"; fi
  done
  shadowed="$shadowed$1:"
}
ensure_dir() {
  [ -d "$1" ] && return 0
  a=$1
  while [ ! -d "$a" ]; do a=${a%/*}; [ -n "$a" ] || a=/; done
  case $shadowed in *":$a:"*) ;; *) shadow "$a" ;; esac
  mkdir -p "$1"
}
)SH";

}  // namespace

std::string RunResult::describe() const {
    return "exit status " + std::to_string(exitStatus) + "; stdout: \"" + out + "\"; stderr: \"" + err + "\"" +
           (setupError.empty() ? "" : "; set-up: " + setupError);
}

NamespaceHarness::NamespaceHarness() {
    for (const char* dir : {"QLX/agent/log", "fakes", "calls"}) fs::create_directories(root_.file(dir));
    std::error_code ignored;
    for (const char* dir : {"/bin", "/nls"}) fs::create_directory_symlink(kPrefixAgent + dir, agentDir() + dir, ignored);
    // Where /proc is overlaid the program would not find its own /proc/<pid> (the leak
    // checker of a sanitizer build reads it).
    testfiles::writeScript(root_.file("launch"),
                           "[ -d /proc/$$ ] || ln -s " + shellQuote(root_.file("orig_proc")) + "/$$ /proc/$$\nexec \"$@\"\n");
}

const std::string& NamespaceHarness::unavailableReason() {
    static const std::string reason = probeNamespace();
    return reason;
}

void NamespaceHarness::addFakeTool(const std::string& name, const std::string& body) {
    testfiles::writeScript(root_.file("fakes/" + name),
                           "printf '%s\\n' \"$*\" >> " + shellQuote(root_.file("calls/" + name)) + "\n" + body + "\n");
    fakes_.push_back(name);
}

void NamespaceHarness::addAnsweringTool(const std::string& name, const std::string& out, int status,
                                        const std::string& err) {
    addFakeTool(name, "printf %s " + shellQuote(out) + "\nprintf %s " + shellQuote(err) + " >&2\nexit " +
                          std::to_string(status));
}

std::string NamespaceHarness::makeHostDir(const std::string& name) {
    fs::create_directories(root_.file("trees/" + name));
    return root_.file("trees/" + name);
}

std::string NamespaceHarness::script(const std::string& program, const std::vector<std::string>& args) const {
    std::string s = "set -e\nW=" + shellQuote(root_.path()) + "\n" + kScriptFunctions + "ensure_dir /opt/ZOR/QLX\n";
    s += emptyInstall_ ? "mount -t tmpfs pp-empty /opt/ZOR/QLX\n" : "mount --bind \"$W/QLX\" /opt/ZOR/QLX\n";
    for (const auto& [target, dir] : trees_) {
        s += "ensure_dir " + shellQuote(target) + "\nmount --bind " + shellQuote(dir) + " " + shellQuote(target) + "\n";
    }
    for (const std::string& target : hiddenPaths_) {
        const std::string parent = target.substr(0, target.rfind('/'));
        s += "case $shadowed in *\":" + parent + ":\"*) ;; *) shadow " + shellQuote(parent) + " ;; esac\nrm -f " +
             shellQuote(target) + "\n";
    }
    // /sbin comes last: the set-up itself needs no /sbin tool after this point.
    if (!fakes_.empty() || !hidden_.empty()) {
        s += "S=$(readlink -f /sbin)\ncase $shadowed in *\":$S:\"*) ;; *) shadow \"$S\" ;; esac\n";
        for (const std::string& name : hidden_) s += "rm -f \"$S\"/" + shellQuote(name) + "\n";
        for (const std::string& name : fakes_) s += "ln -sf \"$W/fakes/\"" + shellQuote(name) + " \"$S\"/" + shellQuote(name) + "\n";
    }
    const std::string bin = emptyInstall_ ? kPrefixAgent + "/bin/" : "/opt/ZOR/QLX/agent/bin/";
    // faketime's preload comes before the sanitizer runtime of an ASan build.
    s += "cd /\nset +e\nexport ASAN_OPTIONS=verify_asan_link_order=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}\n";
    if (!umask_.empty()) s += "umask " + shellQuote(umask_) + "\n";
    std::string command = "PATH=\"$W/fakes:$PATH\" env -u LC_ALL -u LC_MESSAGES -u LANG";
    for (const auto& [name, value] : env_) command += " " + shellQuote(name + "=" + value);
    command += " timeout -s KILL 240";
    if (!faketime_.empty()) command += " faketime -f " + shellQuote(faketime_);
    command += " \"$W/launch\" " + shellQuote(program[0] == '/' ? program : bin + program);
    for (const std::string& arg : args) command += " " + shellQuote(arg);
    // script gives the program a terminal and passes its exit status on (-e).
    if (terminal_) command = "export W\nscript -qec " + shellQuote(command) + " /dev/null";
    return s + command + " </dev/null >\"$W/out\" 2>\"$W/err\"\necho $? >\"$W/status\"\n";
}

RunResult NamespaceHarness::run(const std::vector<std::string>& args, const std::string& program) {
    for (const char* name : {"status", "out", "err"}) unlink(root_.file(name).c_str());
    testfiles::writeFile(root_.file("run.sh"), script(program, args));
    const int rc = shellStatus("unshare -m --propagation private /bin/sh " + shellQuote(root_.file("run.sh")) + " >" +
                               shellQuote(root_.file("setup.log")) + " 2>&1");
    RunResult result;
    const std::string status = readFile(root_.file("status"));
    if (status.empty()) {
        result.setupError = "status " + std::to_string(rc) + ": " + readFile(root_.file("setup.log"));
    } else {
        result = {atoi(status.c_str()), readFile(root_.file("out")), readFile(root_.file("err")), ""};
    }
    return result;
}

std::string NamespaceHarness::readAgentFile(const std::string& relative) const {
    return readFile(agentDir() + "/" + relative);
}

std::vector<std::string> NamespaceHarness::listAgentDir(const std::string& relative) const {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(agentDir() + "/" + relative, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> NamespaceHarness::toolCalls(const std::string& name) const {
    return testfiles::splitLines(readFile(root_.file("calls/" + name)));
}
