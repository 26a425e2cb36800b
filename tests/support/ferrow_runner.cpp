#include "support/ferrow_runner.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "commons/arg_list.h"
#include "commons/exec_cmd.h"

namespace ferrow_test {
namespace {

// Arguments: scratch directory, whether to overlay /etc, whether the
// network is isolated, the network set-up, the mount set-up, the number of
// bind mounts, the source/target pairs, then the command to exec. The
// overlay gives /etc a private writable layer, so that missing mount points
// there exist in this namespace only; it comes before the binds, which it
// would otherwise hide. Its layers live on a tmpfs: unmounting an overlay
// syncs its upper file system, so layers on the disk would make the end of
// every run flush whatever any test had written.
const char kNamespaceScript[] =
    "set -e\n"
    "scratch=$1; overlay=$2; isolate=$3; setup=$4; mounts=$5; count=$6\n"
    "shift 6\n"
    "if [ \"$isolate\" = 1 ]; then\n"
    "  ip link set lo up\n"
    "  eval \"$setup\"\n"
    "fi\n"
    "if [ \"$overlay\" = 1 ]; then\n"
    "  mkdir -p \"$scratch\"\n"
    "  mount -t tmpfs -o size=16m,mode=0700 tmpfs \"$scratch\"\n"
    "  mkdir -p \"$scratch/upper\" \"$scratch/work\"\n"
    "  mount -t overlay overlay -o "
    "lowerdir=/etc,upperdir=\"$scratch/upper\",workdir=\"$scratch/work\" /etc\n"
    "fi\n"
    "while [ \"$count\" -gt 0 ]; do\n"
    "  if [ ! -e \"$2\" ]; then\n"
    "    if [ -d \"$1\" ]; then mkdir -p \"$2\"; else\n"
    "      mkdir -p \"$(dirname \"$2\")\"; : > \"$2\"; fi\n"
    "  fi\n"
    "  mount --bind \"$1\" \"$2\"\n"
    "  shift 2; count=$((count - 1))\n"
    "done\n"
    "eval \"$mounts\"\n"
    "exec \"$@\"\n";

const char kCleanPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

// A report of an instrumented binary fails the test even where the exit
// code it forced happens to be the one the test expects.
void expectNoSanitizerReport(const RunResult& result) {
  for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                           "runtime error:"}) {
    if (result.err.find(mark) != std::string::npos) {
      ADD_FAILURE() << "sanitizer report from ferrow:\n" << result.err;
      return;
    }
  }
}

// Whether /etc must be overlaid; throws for a target that could only be
// made by changing the machine's own files.
bool needsEtcOverlay(const RunOptions& options) {
  bool overlay = false;
  for (const auto& bind : options.binds) {
    if (fileExists(bind.second)) continue;
    if (bind.second.compare(0, 5, "/etc/") != 0)
      throw std::invalid_argument("missing bind target " + bind.second);
    overlay = true;
  }
  return overlay;
}

// Runs command (argument 0 first) inside the namespaces that options ask
// for; scratch is an empty directory for the overlay's layers.
RunResult runNamespaced(const RunOptions& options, const std::string& scratch,
                        const std::vector<std::string>& command,
                        const std::string& input) {
  tovel::ArgList argv;
  argv << "unshare"
       << "-m";
  if (options.isolateNetwork) argv << "-n";
  argv << "--propagation"
       << "private"
       << "sh"
       << "-c" << kNamespaceScript << "sh" << scratch
       << (needsEtcOverlay(options) ? "1" : "0")
       << (options.isolateNetwork ? "1" : "0") << options.networkSetup
       << options.mountSetup << std::to_string(options.binds.size());
  for (const auto& bind : options.binds) argv << bind.first << bind.second;
  for (const std::string& arg : command) argv << arg;
  RunResult result;
  result.exitCode = tovel::forkExecvGetInOutErrSuidEnv(
      input, result.out, result.err, "unshare", argv, "", {});
  return result;
}

std::string singleQuoted(const std::string& value) {
  std::string quoted = "'";
  for (char c : value)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The variables of a run as a file of shell exports, read by the shell that
// starts ferrow: passwords then never stand in any process's arguments.
class EnvFile {
 public:
  EnvFile(const std::string& dir, const std::map<std::string, std::string>& env)
      : path_(dir + "/run-env-XXXXXX") {
    int fd = mkstemp(&path_[0]);
    if (fd < 0) throw std::runtime_error("mkstemp failed in " + dir);
    close(fd);
    std::string text;
    for (const auto& entry : env)
      text += "export " + entry.first + "=" + singleQuoted(entry.second) + "\n";
    writeFile(path_, text);
  }
  ~EnvFile() { unlink(path_.c_str()); }
  EnvFile(const EnvFile&) = delete;
  EnvFile& operator=(const EnvFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

TempDir::TempDir() {
  char name[] = "/tmp/ferrow-test-XXXXXX";
  if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = name;
}

TempDir::~TempDir() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(path_, ignored);
}

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream out(name.c_str(), std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + name);
}

std::string readFile(const std::string& name) {
  std::ifstream in(name.c_str(), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + name);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool fileExists(const std::string& name) {
  return boost::filesystem::exists(name);
}

std::string compactXml(const std::string& text) {
  static const std::regex indentation(">[ \t\n]+<");
  return std::regex_replace(text, indentation, "><");
}

void ensurePanelAccount() {
  if (getpwnam("dyradm") != nullptr) return;
  tovel::ExecCmd add("useradd");
  add << "--system"
      << "--no-create-home"
      << "--shell"
      << "/usr/sbin/nologin"
      << "dyradm";
  add.exec();
}

const char kNoRouteToHostSetup[] = "ip route add unreachable 192.0.2.0/24";
const char kNoRouteToHostAddress[] = "192.0.2.1";
const char kPermissionDeniedSetup[] = "ip route add prohibit 198.51.100.0/24";
const char kPermissionDeniedAddress[] = "198.51.100.1";
const char kNetworkUnreachableAddress[] = "203.0.113.1";
const char kTimeoutNetworkSetup[] =
    "sysctl -qw net.ipv4.tcp_syn_retries=1\n"
    "ip route add 198.18.0.0/24 dev lo";
const char kTimeoutAddress[] = "198.18.0.1";
const char kFailingNetworkSetup[] =
    "ip route add unreachable 192.0.2.0/24\n"
    "ip route add prohibit 198.51.100.0/24\n"
    "sysctl -qw net.ipv4.tcp_syn_retries=1\n"
    "ip route add 198.18.0.0/24 dev lo";

RunResult runInNamespace(const std::string& script, const RunOptions& options,
                         const std::string& input) {
  TempDir scratch;
  return runNamespaced(options, scratch.path(),
                       {"env", "-i", kCleanPath, "sh", "-c", script}, input);
}

std::string defaultLogProperties() {
  return "log4cpp.rootCategory=DEBUG, A1, A2\n"
         "log4cpp.appender.A1=FileAppender\n"
         "log4cpp.appender.A1.fileName=${LOG_FILE_NAME}\n"
         "log4cpp.appender.A1.layout=PatternLayout\n"
         "log4cpp.appender.A1.layout.ConversionPattern=%d %p %c: %m%n\n"
         "log4cpp.appender.A2=ConsoleAppender\n"
         "log4cpp.appender.A2.layout=PatternLayout\n"
         "log4cpp.appender.A2.layout.ConversionPattern=%p %c: %m%n\n";
}

FerrowInstallation::FerrowInstallation() {
  boost::filesystem::create_directories(etcDyr());
  boost::filesystem::create_directories(productRoot() + "/QVT/tmp");
  writeDyrConf("PRODUCT_ROOT_D " + productRoot() + "\n");
  writeLogProperties(defaultLogProperties());
}

void FerrowInstallation::writeDyrConf(const std::string& text) const {
  writeFile(etcDyr() + "/dyr.conf", text);
}

void FerrowInstallation::writeLogProperties(const std::string& text) const {
  writeFile(productRoot() + "/QVT/log4cpp.properties", text);
}

RunResult FerrowInstallation::run(const std::vector<std::string>& args,
                                  const std::map<std::string, std::string>& env,
                                  const std::string& input) const {
  return run(RunOptions(), args, env, input);
}

RunResult FerrowInstallation::run(const RunOptions& options,
                                  const std::vector<std::string>& args,
                                  const std::map<std::string, std::string>& env,
                                  const std::string& input) const {
  RunOptions withDyr = options;
  withDyr.binds.insert(withDyr.binds.begin(), {etcDyr(), "/etc/dyr"});
  EnvFile envFile(root(), env);
  std::vector<std::string> command = {"env",          "-i",
                                      kCleanPath,     "sh",
                                      "-c",           ". \"$0\"; exec \"$@\"",
                                      envFile.path(), FERROW_BINARY};
  // The wrapper runs the binary, inside the environment set up before it.
  command.insert(command.end() - 1, wrapper_.begin(), wrapper_.end());
  command.insert(command.end(), args.begin(), args.end());
  RunResult result =
      runNamespaced(withDyr, root() + "/overlay", command, input);
  expectNoSanitizerReport(result);
  return result;
}

}  // namespace ferrow_test
