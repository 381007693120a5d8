#include "tests/e2e/NamespaceHarness.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

const char kInstallMount[] = "/opt/ZOR/QLX";

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), mode);
}

int shellStatus(const std::string& line) {
    int status = system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string probeNamespace() {
    std::string reason;
    if (geteuid() != 0) {
        reason = "end-to-end tests need root for unshare -m; running as uid " + std::to_string(geteuid());
    } else {
        char dirTemplate[] = "/tmp/pp-e2e-probe-XXXXXX";
        const std::string dir = mkdtemp(dirTemplate) ? dirTemplate : "/tmp";
        const int rc = shellStatus("unshare -m --propagation private /bin/sh -c 'mount -t tmpfs pp-probe " + dir +
                                   "' >/dev/null 2>&1");
        if (rc != 0) reason = "unshare -m with a tmpfs mount is refused here (status " + std::to_string(rc) + ")";
        rmdir(dir.c_str());
    }
    return reason;
}

// Shell functions of the set-up script. A mount point that does not exist (no FC
// adapter, no /proc/scsi, no /opt/ZOR) cannot be created in sysfs, procfs or on
// the host, so its nearest existing parent is overlaid by a tmpfs holding links
// to the parent's old entries, and the mount point is made there.
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
    std::string text = "exit status " + std::to_string(exitStatus) + "; stdout: \"" + out + "\"; stderr: \"" + err + "\"";
    if (!setupError.empty()) text += "; set-up: " + setupError;
    return text;
}

NamespaceHarness::NamespaceHarness() {
    char dirTemplate[] = "/tmp/pp-e2e-XXXXXX";
    if (mkdtemp(dirTemplate)) root_ = dirTemplate;
    fs::create_directories(agentDir() + "/log");
    fs::create_directories(root_ + "/fakes/sbin");
    fs::create_directories(root_ + "/fakes/bin");
    fs::create_directories(root_ + "/calls");
    std::error_code ignored;
    fs::create_directory_symlink(installedAgentDir() + "/bin", agentDir() + "/bin", ignored);
    fs::create_directory_symlink(installedAgentDir() + "/nls", agentDir() + "/nls", ignored);
}

NamespaceHarness::~NamespaceHarness() {
    std::error_code ignored;
    if (!root_.empty()) fs::remove_all(root_, ignored);
}

const std::string& NamespaceHarness::unavailableReason() {
    static const std::string reason = probeNamespace();
    return reason;
}

std::string NamespaceHarness::installedAgentDir() {
    return std::string(PP_E2E_PREFIX) + "/agent";
}

std::string NamespaceHarness::fakeDir(ToolDir where) const {
    return root_ + (where == ToolDir::Sbin ? "/fakes/sbin" : "/fakes/bin");
}

void NamespaceHarness::addFakeTool(ToolDir where, const FakeTool& tool) {
    const std::string base = fakeDir(where) + "/" + tool.name;
    std::string script = "#!/bin/sh\nprintf '%s\\n' \"$*\" >> " + shellQuote(root_ + "/calls/" + tool.name) + "\n";
    if (tool.body.empty()) {
        writeFile(base + ".out", tool.out, 0644);
        writeFile(base + ".err", tool.err, 0644);
        script += "cat " + shellQuote(base + ".out") + "\ncat " + shellQuote(base + ".err") + " >&2\nexit " +
                  std::to_string(tool.exitStatus) + "\n";
    } else {
        script += tool.body + "\n";
    }
    writeFile(base, script, 0755);
    if (where == ToolDir::Sbin) sbinFakes_.push_back(tool.name);
}

void NamespaceHarness::hideSbinTool(const std::string& name) {
    sbinHidden_.push_back(name);
}

void NamespaceHarness::placeTree(const std::string& target, const std::string& hostDir) {
    trees_.emplace_back(target, hostDir);
}

std::string NamespaceHarness::makeHostDir(const std::string& name) {
    const std::string dir = root_ + "/trees/" + name;
    fs::create_directories(dir);
    return dir;
}

std::string NamespaceHarness::writeScript(const std::string& program, const std::vector<std::string>& args) const {
    std::string s = "set -e\nW=" + shellQuote(root_) + "\n" + kScriptFunctions;
    s += std::string("ensure_dir ") + kInstallMount + "\n";
    s += tree_ == InstallTree::Installed ? "mount --bind \"$W/QLX\" " + std::string(kInstallMount) + "\n"
                                         : "mount -t tmpfs pp-empty " + std::string(kInstallMount) + "\n";
    for (const auto& [target, hostDir] : trees_) {
        s += "ensure_dir " + shellQuote(target) + "\nmount --bind " + shellQuote(hostDir) + " " + shellQuote(target) + "\n";
    }
    // /sbin comes last: the set-up itself needs no sbin tool after this point.
    if (!sbinFakes_.empty() || !sbinHidden_.empty()) {
        s += "S=$(readlink -f /sbin)\ncase $shadowed in *\":$S:\"*) ;; *) shadow \"$S\" ;; esac\n";
        for (const std::string& name : sbinHidden_) s += "rm -f \"$S\"/" + shellQuote(name) + "\n";
        for (const std::string& name : sbinFakes_) {
            s += "rm -f \"$S\"/" + shellQuote(name) + "\nln -s \"$W/fakes/sbin/\"" + shellQuote(name) + " \"$S\"/" +
                 shellQuote(name) + "\n";
        }
    }
    const std::string binDir = tree_ == InstallTree::Installed ? std::string(kInstallMount) + "/agent/bin"
                                                                 : installedAgentDir() + "/bin";
    s += "cd /\nset +e\nPATH=\"$W/fakes/bin:$PATH\" timeout -s KILL " + std::to_string(timeoutSeconds_);
    if (!faketime_.empty()) s += " faketime -f " + shellQuote(faketime_);
    s += " " + shellQuote(program[0] == '/' ? program : binDir + "/" + program);
    for (const std::string& arg : args) s += " " + shellQuote(arg);
    s += " </dev/null >\"$W/out\" 2>\"$W/err\"\necho $? >\"$W/status\"\n";
    const std::string path = root_ + "/run.sh";
    writeFile(path, s, 0644);
    return path;
}

RunResult NamespaceHarness::runProgram(const std::string& program, const std::vector<std::string>& args) {
    RunResult result;
    for (const char* name : {"/status", "/out", "/err"}) unlink((root_ + name).c_str());
    const std::string script = writeScript(program, args);
    const int rc = shellStatus("unshare -m --propagation private /bin/sh " + shellQuote(script) + " >" +
                               shellQuote(root_ + "/setup.log") + " 2>&1");
    const std::string status = readFile(root_ + "/status");
    if (status.empty()) {
        result.setupError = "status " + std::to_string(rc) + ": " + readFile(root_ + "/setup.log");
    } else {
        result.exitStatus = atoi(status.c_str());
        result.out = readFile(root_ + "/out");
        result.err = readFile(root_ + "/err");
    }
    return result;
}

std::string NamespaceHarness::readAgentFile(const std::string& relative) const {
    return readFile(agentDir() + "/" + relative);
}

std::vector<std::string> NamespaceHarness::listAgentDir(const std::string& relative) const {
    std::vector<std::string> names;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(agentDir() + "/" + relative, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> NamespaceHarness::toolCalls(const std::string& name) const {
    std::vector<std::string> calls;
    std::istringstream text(readFile(root_ + "/calls/" + name));
    for (std::string line; std::getline(text, line);) calls.push_back(line);
    return calls;
}
