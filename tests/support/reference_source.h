// The source host's side of an end-to-end run: either the reference agent
// and scout of share/ with a copy of the sample hosting data, or an agent
// that is one /bin/sh script. The source host is this machine.
#ifndef FERROW_TESTS_SUPPORT_REFERENCE_SOURCE_H_
#define FERROW_TESTS_SUPPORT_REFERENCE_SOURCE_H_

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"

namespace ferrow_test {

class ReferenceSource {
 public:
  explicit ReferenceSource(const FerrowInstallation& install) {
    const std::string share = std::string(FERROW_SOURCE_DIR) + "/share";
    const std::string qvt = install.productRoot() + "/QVT";
    boost::filesystem::copy_file(share + "/scout.pl", qvt + "/scout.pl");
    copyTree(share + "/agents", qvt + "/agents");
    copyTree(share + "/sample-source", source_.path() + "/data");
    writeFile(qvt + "/agents/reference/agent.conf",
              "source-root: " + source_.path() + "/data\n");
    chmod(source_.path().c_str(), 0755);
  }

  // Where the agent is deployed.
  std::string agentDir() const { return source_.path() + "/agent"; }

  static void copyTree(const boost::filesystem::path& from,
                       const boost::filesystem::path& to) {
    namespace fs = boost::filesystem;
    fs::create_directories(to);
    for (fs::recursive_directory_iterator it(from), end; it != end; ++it) {
      fs::path target = to / fs::relative(it->path(), from);
      if (fs::is_directory(it->path()))
        fs::create_directories(target);
      else
        fs::copy_file(it->path(), target, fs::copy_options::overwrite_existing);
    }
  }

 private:
  TempDir source_;
};

// Agent "scripted": script run with /bin/sh (any arguments) from its remote
// directory, where the test writes it straight away.
class ScriptedAgent {
 public:
  ScriptedAgent(const FerrowInstallation& install, const std::string& script) {
    std::string control =
        install.productRoot() + "/QVT/agents/scripted/control";
    boost::filesystem::create_directories(control);
    writeFile(control + "/spec",
              "EntryPoint: agent.sh\nInterpreter: /bin/sh\n");
    chmod(source_.path().c_str(), 0755);
    mkdir(dir().c_str(), 0755);
    writeFile(file("agent.sh"), script);
  }

  std::string dir() const { return source_.path() + "/agent"; }  // no blanks
  std::string file(const std::string& name) const { return dir() + "/" + name; }
  std::vector<std::string> args() const {
    return {"--agent-dir=" + dir(), "--agent-name=scripted"};
  }

 private:
  TempDir source_;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_REFERENCE_SOURCE_H_
