// Runs the real ferrow binary the way the panel does, against a private
// product installation: in a private mount namespace where /etc/dyr is a
// bind mount of a fixture holding dyr.conf, whose PRODUCT_ROOT_D names a
// product root with QVT/log4cpp.properties. The machine's /etc is never
// changed.
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
std::string readFile(const std::string& name);  // throws when unreadable
bool fileExists(const std::string& name);
// The XML text without the white space that indentation puts between tags.
std::string compactXml(const std::string& text);

// Runs argv (argv[0] looked up in PATH) with input on its standard input,
// in the test's environment plus env.
RunResult runCommand(const std::vector<std::string>& argv,
                     const std::string& input = "",
                     const std::map<std::string, std::string>& env = {});

// Creates the panel's account "dyradm" when the machine lacks it.
void ensurePanelAccount();

// How a program is confined besides its private mount namespace.
struct RunOptions {
  // Bind mounts, in order: source onto target. A missing target is made;
  // under /etc/ it lives in a private overlay of /etc.
  std::vector<std::pair<std::string, std::string>> binds;
  // A network namespace of its own holding only lo (brought up), where the
  // shell commands networkSetup run: no packet can leave it.
  bool isolateNetwork = false;
  std::string networkSetup;
  // Shell commands run after the binds; what they mount is seen inside only.
  std::string mountSetup;
  // The program's standard streams on a pseudo-terminal (script(1)):
  // RunResult::out is then what the terminal received.
  bool terminal = false;
};

// Runs script with /bin/sh in a private mount namespace set up by options,
// with an environment holding only PATH.
RunResult runInNamespace(const std::string& script,
                         const RunOptions& options = {},
                         const std::string& input = "");

class FerrowInstallation {
 public:
  // Lays out <tmp>/etc-dyr/dyr.conf and <tmp>/product/QVT/log4cpp.properties
  // (a file appender on ${LOG_FILE_NAME} and a console appender).
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

  // Runs ferrow with args in a clean environment holding PATH and env
  // (passed through a file, never as arguments), with input on its
  // standard input; /etc/dyr is bound before options.binds. A sanitizer
  // report on its standard error fails the test.
  RunResult run(const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {},
                const std::string& input = "") const;
  RunResult run(const RunOptions& options, const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {},
                const std::string& input = "") const;

  // Puts wrapper (e.g. valgrind and its options) in front of the binary in
  // every later run.
  void setWrapper(const std::vector<std::string>& wrapper) {
    wrapper_ = wrapper;
  }

 private:
  TempDir dir_;
  std::vector<std::string> wrapper_;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
