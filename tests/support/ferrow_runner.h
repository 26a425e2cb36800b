// Runs the real ferrow binary the way the panel does, but against a
// private product installation: inside a private mount namespace where
// /etc/dyr is a bind mount of a fixture directory holding dyr.conf, whose
// PRODUCT_ROOT_D points at a product root with QVT/log4cpp.properties.
// The machine's own /etc is never changed.
#ifndef FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
#define FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_

#include <map>
#include <string>
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

 private:
  TempDir dir_;
};

// The default properties file of a fixture installation.
std::string defaultLogProperties();

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_FERROW_RUNNER_H_
