// Runs the real ferrow binary in a private mount namespace where /etc/dyr
// is a fixture: the machine's /etc is never changed.
#ifndef FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
#define FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace log4cpp {
class Category;
class StringQueueAppender;
}  // namespace log4cpp

namespace ferrow_test {

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
      .count();
}

struct RunResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Removed with everything under it on destruction.
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
// Without the white space that indentation puts between tags.
std::string compactXml(const std::string& text);

// argv[0] looked up in PATH; the test's environment plus env.
RunResult runCommand(const std::vector<std::string>& argv,
                     const std::string& input = "",
                     const std::map<std::string, std::string>& env = {});

void ensurePanelAccount();

// size reproducible non-text bytes (a linear congruential sequence from
// seed): a transfer that mangles any byte shows.
std::string archiveBytes(std::size_t size, unsigned seed);

// The messages (%m) a log4cpp category logs at DEBUG and up, until destroyed.
class LogCapture {
 public:
  explicit LogCapture(const std::string& category);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines() const;

 private:
  log4cpp::Category& category_;
  log4cpp::StringQueueAppender* appender_;
};

struct RunOptions {
  // source onto target, in order; a missing target is made (under /etc/
  // in a private overlay).
  std::vector<std::pair<std::string, std::string>> binds;
  // A network namespace holding only lo, where networkSetup runs.
  bool isolateNetwork = false;
  std::string networkSetup;
  // Shell commands run after the binds, inside the namespace.
  std::string mountSetup;
  // Standard streams on a pseudo-terminal: out is what it received.
  bool terminal = false;
};

// script run by /bin/sh in the namespace, with only PATH set.
RunResult runInNamespace(const std::string& script,
                         const RunOptions& options = {},
                         const std::string& input = "");

class FerrowInstallation {
 public:
  // <tmp>/etc-dyr/dyr.conf naming <tmp>/product, with a file appender on
  // ${LOG_FILE_NAME} and a console appender in QVT/log4cpp.properties.
  FerrowInstallation();

  const std::string& root() const { return dir_.path(); }
  std::string etcDyr() const { return root() + "/etc-dyr"; }
  std::string productRoot() const { return root() + "/product"; }
  std::string sessionPath(const std::string& name = "session") const {
    return root() + "/" + name;
  }

  void writeDyrConf(const std::string& text) const;
  void writeLogProperties(const std::string& text) const;

  // ferrow in a clean environment of PATH and env (passed through a file,
  // never as arguments); a sanitizer report fails the test.
  RunResult run(const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {},
                const std::string& input = "") const;
  RunResult run(const RunOptions& options, const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {},
                const std::string& input = "") const;

  void setWrapper(const std::vector<std::string>& wrapper) {
    wrapper_ = wrapper;
  }

 private:
  TempDir dir_;
  std::vector<std::string> wrapper_;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
