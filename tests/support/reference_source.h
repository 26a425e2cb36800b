// The reference agent and scout shipped in share/, installed into a fixture
// installation, with a copy of the sample hosting data as the source host's
// content: what an end-to-end run of a whole migration needs.
#ifndef FERROW_TESTS_SUPPORT_REFERENCE_SOURCE_H_
#define FERROW_TESTS_SUPPORT_REFERENCE_SOURCE_H_

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <string>

#include "support/ferrow_runner.h"

namespace ferrow_test {

class ReferenceSource {
 public:
  explicit ReferenceSource(const FerrowInstallation& install) {
    namespace fs = boost::filesystem;
    const std::string share = std::string(FERROW_SOURCE_DIR) + "/share";
    const std::string qvt = install.productRoot() + "/QVT";
    fs::copy_file(share + "/scout.pl", qvt + "/scout.pl");
    copyTree(share + "/agents", qvt + "/agents");
    copyTree(share + "/sample-source", source_.path() + "/data");
    writeFile(qvt + "/agents/reference/agent.conf",
              "source-root: " + source_.path() + "/data\n");
    chmod(source_.path().c_str(), 0755);
  }

  // Where the agent is deployed on the source host. "cd DIR; ..." takes
  // the directory unquoted: no blanks here.
  std::string agentDir() const { return source_.path() + "/agent"; }

  static void copyTree(const boost::filesystem::path& from,
                       const boost::filesystem::path& to) {
    namespace fs = boost::filesystem;
    fs::create_directories(to);
    for (fs::recursive_directory_iterator it(from), end; it != end; ++it) {
      fs::path target = to / fs::relative(it->path(), from);
      if (fs::is_directory(it->path())) {
        fs::create_directories(target);
      } else {
        fs::copy_file(it->path(), target, fs::copy_options::overwrite_existing);
      }
    }
  }

 private:
  TempDir source_;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_REFERENCE_SOURCE_H_
