#include "support/ferrow_runner.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <log4cpp/Category.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/StringQueueAppender.hh>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "commons/arg_list.h"
#include "commons/exec_cmd.h"

namespace ferrow_test {
namespace {

// Binds come as argument pairs, the rest in F_* variables. The overlay's
// layers live on a tmpfs: unmounting an overlay syncs its upper layer.
const char kNamespaceScript[] =
    "set -e\n"
    "if [ -n \"$F_NET\" ]; then ip link set lo up; eval \"$F_NETSETUP\"; fi\n"
    "mkdir -p \"$F_TMP\"; mount -t tmpfs -o size=16m,mode=0700 tmpfs "
    "\"$F_TMP\"\n"
    "mkdir \"$F_TMP/u\" \"$F_TMP/w\"\n"
    "mount -t overlay overlay -o lowerdir=/etc,upperdir=\"$F_TMP/u\","
    "workdir=\"$F_TMP/w\" /etc\n"
    "while [ $# -gt 0 ]; do\n"
    "  if [ -d \"$1\" ]; then mkdir -p \"$2\"\n"
    "  elif [ ! -e \"$2\" ]; then mkdir -p \"${2%/*}\"; : > \"$2\"; fi\n"
    "  mount --bind \"$1\" \"$2\"; shift 2\n"
    "done\n"
    "eval \"$F_MOUNTS\"\n"
    "run='exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin sh -c \"$F_RUN\"'\n"
    "if [ -n \"$F_TTY\" ]; then exec script -qefc \"$run\" /dev/null; fi\n"
    "eval \"$run\"\n";

std::string quoted(const std::string& word) {
  return "'" + std::regex_replace(word, std::regex("'"), "'\\''") + "'";
}

// Runs script in the namespace; the shell first sources exports, a file,
// so that secrets in it never show in any process's arguments.
RunResult runNamespaced(const RunOptions& options, const std::string& script,
                        const std::string& input, const std::string& exports) {
  TempDir scratch;
  writeFile(scratch.path() + "/env", exports);
  std::vector<std::string> argv = {"unshare", "-m"};
  if (options.isolateNetwork) argv.push_back("-n");
  argv.insert(argv.end(),
              {"--propagation", "private", "sh", "-c", kNamespaceScript, "sh"});
  for (const auto& bind : options.binds)
    argv.insert(argv.end(), {bind.first, bind.second});
  return runCommand(
      argv, input,
      {{"F_NET", options.isolateNetwork ? "1" : ""},
       {"F_NETSETUP", options.networkSetup},
       {"F_TMP", scratch.path() + "/etc-layers"},
       {"F_MOUNTS", options.mountSetup},
       {"F_TTY", options.terminal ? "1" : ""},
       {"F_RUN", ". " + quoted(scratch.path() + "/env") + "\n" + script},
       {"SHELL", "/bin/sh"}});
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

RunResult runCommand(const std::vector<std::string>& argv,
                     const std::string& input,
                     const std::map<std::string, std::string>& env) {
  tovel::ArgList args;
  for (const std::string& arg : argv) args << arg;
  RunResult r;
  r.exitCode = tovel::forkExecvGetInOutErrSuidEnv(input, r.out, r.err,
                                                  argv.at(0), args, "", env);
  return r;
}

void ensurePanelAccount() {
  if (getpwnam("dyradm") == nullptr)
    runCommand({"useradd", "--system", "--no-create-home", "--shell",
                "/usr/sbin/nologin", "dyradm"});
}

RunResult runInNamespace(const std::string& script, const RunOptions& options,
                         const std::string& input) {
  return runNamespaced(options, script, input, "");
}

FerrowInstallation::FerrowInstallation() {
  boost::filesystem::create_directories(etcDyr());
  boost::filesystem::create_directories(productRoot() + "/QVT/tmp");
  writeDyrConf("PRODUCT_ROOT_D " + productRoot() + "\n");
  writeLogProperties(
      "log4cpp.rootCategory=DEBUG, A1, A2\n"
      "log4cpp.appender.A1=FileAppender\n"
      "log4cpp.appender.A1.fileName=${LOG_FILE_NAME}\n"
      "log4cpp.appender.A1.layout=PatternLayout\n"
      "log4cpp.appender.A1.layout.ConversionPattern=%d %p %c: %m%n\n"
      "log4cpp.appender.A2=ConsoleAppender\n"
      "log4cpp.appender.A2.layout=PatternLayout\n"
      "log4cpp.appender.A2.layout.ConversionPattern=%p %c: %m%n\n");
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
  std::string exports, command = "exec";
  for (const auto& entry : env)
    exports += "export " + entry.first + "=" + quoted(entry.second) + "\n";
  for (const std::string& word : wrapper_) command += " " + quoted(word);
  command += " " + quoted(FERROW_BINARY);
  for (const std::string& arg : args) command += " " + quoted(arg);
  RunResult result = runNamespaced(withDyr, command, input, exports);
  for (const char* mark :
       {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"})
    if (result.err.find(mark) != std::string::npos)
      ADD_FAILURE() << "sanitizer report from ferrow:\n" << result.err;
  return result;
}

std::string archiveBytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    seed = seed * 1103515245u + 12345u;
    bytes[i] = static_cast<char>(seed >> 16);
  }
  return bytes;
}

LogCapture::LogCapture(const std::string& category)
    : category_(log4cpp::Category::getInstance(category)),
      appender_(new log4cpp::StringQueueAppender("capture")) {
  auto* layout = new log4cpp::PatternLayout();
  layout->setConversionPattern("%m");
  appender_->setLayout(layout);
  category_.setPriority(log4cpp::Priority::DEBUG);
  category_.addAppender(appender_);  // the category owns it
}

LogCapture::~LogCapture() { category_.removeAppender(appender_); }

std::vector<std::string> LogCapture::lines() const {
  std::vector<std::string> copy;
  for (auto queue = appender_->getQueue(); !queue.empty(); queue.pop())
    copy.push_back(queue.front());
  return copy;
}

}  // namespace ferrow_test
