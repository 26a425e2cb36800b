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

// $1 scratch, $2 overlay /etc?, $3 isolated?, $4 network set-up, $5 mount
// set-up, $6 bind count, then the pairs, then the command. The overlay
// gives missing mount points under /etc a private home; its layers live on
// a tmpfs, since unmounting an overlay syncs its upper file system.
const char kNamespaceScript[] =
    "set -e\n"
    "scratch=$1; overlay=$2; isolate=$3; setup=$4; mounts=$5; count=$6\n"
    "shift 6\n"
    "if [ \"$isolate\" = 1 ]; then ip link set lo up; eval \"$setup\"; fi\n"
    "if [ \"$overlay\" = 1 ]; then\n"
    "  mkdir -p \"$scratch\"\n"
    "  mount -t tmpfs -o size=16m,mode=0700 tmpfs \"$scratch\"\n"
    "  mkdir -p \"$scratch/upper\" \"$scratch/work\"\n"
    "  mount -t overlay overlay -o lowerdir=/etc,upperdir=\"$scratch/upper\","
    "workdir=\"$scratch/work\" /etc\n"
    "fi\n"
    "while [ \"$count\" -gt 0 ]; do\n"
    "  if [ ! -e \"$2\" ]; then\n"
    "    if [ -d \"$1\" ]; then mkdir -p \"$2\"; else\n"
    "      mkdir -p \"$(dirname \"$2\")\"; : > \"$2\"; fi\n"
    "  fi\n"
    "  mount --bind \"$1\" \"$2\"; shift 2; count=$((count - 1))\n"
    "done\n"
    "eval \"$mounts\"\n"
    "exec \"$@\"\n";

std::string quoted(const std::string& word) {
  std::string text = "'";
  for (char c : word)
    text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}

const char kCleanPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

// A sanitizer report fails the test even where the exit code it forced is
// the one expected.
void expectNoSanitizerReport(const RunResult& result) {
  for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                           "runtime error:"}) {
    if (result.err.find(mark) != std::string::npos) {
      ADD_FAILURE() << "sanitizer report from ferrow:\n" << result.err;
      return;
    }
  }
}

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

RunResult runNamespaced(const RunOptions& options, const std::string& scratch,
                        std::vector<std::string> command,
                        const std::string& input) {
  if (options.terminal) {
    std::string line;
    for (const std::string& word : command) line += quoted(word) + " ";
    command = {"script", "-qefc", line, "/dev/null"};
  }
  tovel::ArgList argv;
  argv << "unshare" << "-m";
  if (options.isolateNetwork) argv << "-n";
  argv << "--propagation" << "private" << "sh" << "-c" << kNamespaceScript
       << "sh" << scratch << (needsEtcOverlay(options) ? "1" : "0")
       << (options.isolateNetwork ? "1" : "0") << options.networkSetup
       << options.mountSetup << std::to_string(options.binds.size());
  for (const auto& bind : options.binds) argv << bind.first << bind.second;
  for (const std::string& arg : command) argv << arg;
  RunResult result;
  result.exitCode = tovel::forkExecvGetInOutErrSuidEnv(
      input, result.out, result.err, "unshare", argv, "", {});
  return result;
}

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
  add << "--system" << "--no-create-home" << "--shell" << "/usr/sbin/nologin"
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

RunResult runInNamespace(const std::string& script, const RunOptions& options,
                         const std::string& input) {
  TempDir scratch;
  return runNamespaced(options, scratch.path() + "/overlay",
                       {"env", "-i", kCleanPath, "sh", "-c", script}, input);
}

namespace {
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
}  // namespace

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
  // Passwords reach the shell that starts ferrow in a file of exports.
  TempDir envDir;
  std::string exports;
  for (const auto& entry : env)
    exports += "export " + entry.first + "=" + quoted(entry.second) +
               "\n";
  writeFile(envDir.path() + "/env", exports);
  std::vector<std::string> command = {
      "env", "-i", kCleanPath, "sh", "-c", ". \"$0\"; exec \"$@\"",
      envDir.path() + "/env"};
  command.insert(command.end(), wrapper_.begin(), wrapper_.end());
  command.push_back(FERROW_BINARY);
  command.insert(command.end(), args.begin(), args.end());
  RunResult result = runNamespaced(withDyr, envDir.path() + "/overlay",
                                   command, input);
  expectNoSanitizerReport(result);
  return result;
}

}  // namespace ferrow_test
