#include "support/ferrow_runner.h"

#include <pwd.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "commons/arg_list.h"
#include "commons/exec_cmd.h"

namespace ferrow_test {
namespace {

// Bind-mounts $1 onto /etc/dyr, then execs the rest of the arguments. When
// the machine has no /etc/dyr to mount onto, /etc is first overlaid with a
// private writable layer so that the mount point can exist in this
// namespace only.
const char kNamespaceScript[] =
    "set -e\n"
    "fixture=$1; scratch=$2; shift 2\n"
    "if [ ! -d /etc/dyr ]; then\n"
    "  mkdir -p \"$scratch/upper\" \"$scratch/work\"\n"
    "  mount -t overlay overlay -o "
    "lowerdir=/etc,upperdir=\"$scratch/upper\",workdir=\"$scratch/work\" /etc\n"
    "  mkdir -p /etc/dyr\n"
    "fi\n"
    "mount --bind \"$fixture\" /etc/dyr\n"
    "exec \"$@\"\n";

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
  tovel::ArgList argv;
  argv << "unshare"
       << "-m"
       << "--propagation"
       << "private"
       << "sh"
       << "-c" << kNamespaceScript << "sh" << etcDyr() << root() + "/overlay"
       << "env"
       << "-i"
       << "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  for (const auto& entry : env) argv << entry.first + "=" + entry.second;
  argv << FERROW_BINARY;
  for (const std::string& arg : args) argv << arg;
  RunResult result;
  result.exitCode = tovel::forkExecvGetInOutErrSuidEnv(
      input, result.out, result.err, "unshare", argv, "", {});
  return result;
}

}  // namespace ferrow_test
