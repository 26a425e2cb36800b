// Runs the real ferrow binary the way the panel does, but against a
// private product installation: inside a private mount namespace where
// /etc/dyr is a bind mount of a fixture directory holding dyr.conf, whose
// PRODUCT_ROOT_D points at a product root with QVT/log4cpp.properties.
// Optionally more fixture files are bound (hosts, nsswitch.conf) and the
// program runs in a network namespace of its own with failing routes.
// The machine's own /etc is never changed.
#ifndef FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
#define FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace ferrow_test {

struct RunResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// A scratch directory removed with everything under it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void writeFile(const std::string& name, const std::string& content);
std::string readFile(const std::string& name);
bool fileExists(const std::string& name);
// The XML text without the white space that indentation puts between tags.
std::string compactXml(const std::string& text);

// Creates the panel's account "dyradm" when the machine lacks it.
void ensurePanelAccount();

// How a program is confined besides its private mount namespace.
struct RunOptions {
  // Bind mounts made in the namespace, in order: source (a file or a
  // directory) onto target, e.g. a fixture hosts file onto /etc/hosts. A
  // missing target under /etc/ is created in a private overlay of /etc; any
  // other target must exist.
  std::vector<std::pair<std::string, std::string>> binds;
  // Runs in a new network namespace too, where only lo exists: it is brought
  // up and then networkSetup (shell commands, see the constants below) is
  // run. No packet can leave such a namespace.
  bool isolateNetwork = false;
  std::string networkSetup;
  // Shell commands run in the mount namespace after the bind mounts, e.g.
  // "mount -t tmpfs -o size=1m tmpfs /some/dir": what they mount is seen by
  // the program only.
  std::string mountSetup;
};

// Network set-ups for an isolated namespace, each with the address whose
// connect() fails in the named way. They can be joined with "\n".
// Routes of kind "unreachable": connect() fails with EHOSTUNREACH.
extern const char kNoRouteToHostSetup[];
extern const char kNoRouteToHostAddress[];  // "192.0.2.1"
// Routes of kind "prohibit": connect() fails with EACCES.
extern const char kPermissionDeniedSetup[];
extern const char kPermissionDeniedAddress[];  // "198.51.100.1"
// No set-up needed: without any route, connect() fails with ENETUNREACH.
extern const char kNetworkUnreachableAddress[];  // "203.0.113.1"
// The address is routed onto lo; a SYN looped back there has a destination
// that is not local, so the kernel drops it as a martian and never answers.
// With net.ipv4.tcp_syn_retries=1 (per namespace) connect() gives up with
// ETIMEDOUT after about 3 s (1 s + 2 s of retransmission).
extern const char kTimeoutNetworkSetup[];
extern const char kTimeoutAddress[];  // "198.18.0.1"
// All of the above at once.
extern const char kFailingNetworkSetup[];

// Runs script with /bin/sh in a private mount namespace set up by options,
// with a clean environment holding only PATH. Throws std::invalid_argument
// for a missing bind target outside /etc/.
RunResult runInNamespace(const std::string& script,
                         const RunOptions& options = {},
                         const std::string& input = "");

class FerrowInstallation {
 public:
  // Lays out <tmp>/etc-dyr/dyr.conf (PRODUCT_ROOT_D <tmp>/product) and
  // <tmp>/product/QVT/log4cpp.properties (a file appender on
  // ${LOG_FILE_NAME} and a console appender "A2").
  FerrowInstallation();

  const std::string& root() const { return dir_.path(); }
  std::string etcDyr() const { return root() + "/etc-dyr"; }
  std::string productRoot() const { return root() + "/product"; }
  // A session directory path inside the scratch area (not created).
  std::string sessionPath(const std::string& name = "session") const {
    return root() + "/" + name;
  }

  void writeDyrConf(const std::string& text) const;
  void writeLogProperties(const std::string& text) const;

  // Runs ferrow with args (argv[1..]) in a clean environment holding only
  // PATH and env, feeding input to its standard input.
  RunResult run(const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {},
                const std::string& input = "") const;
  // The same, with extra bind mounts and network isolation from options
  // (/etc/dyr is bound first, before options.binds).
  RunResult run(const RunOptions& options, const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {},
                const std::string& input = "") const;

  // Puts wrapper (a program and its options, e.g. valgrind and its) in front
  // of the binary in every later run; it runs in the run's environment.
  void setWrapper(const std::vector<std::string>& wrapper) {
    wrapper_ = wrapper;
  }

 private:
  TempDir dir_;
  std::vector<std::string> wrapper_;
};

// The default properties file of a fixture installation.
std::string defaultLogProperties();

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
