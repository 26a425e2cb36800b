// An agent made of one /bin/sh script, for end-to-end tests that need a
// remote program behaving in a chosen way. Its spec is put into a fixture
// installation; the script itself is written straight into the remote
// agent directory, as the source host is this machine.
#ifndef FERROW_TESTS_SUPPORT_SCRIPTED_AGENT_H_
#define FERROW_TESTS_SUPPORT_SCRIPTED_AGENT_H_

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"

namespace ferrow_test {

class ScriptedAgent {
 public:
  // Installs agent "scripted" in install, running script (any arguments,
  // run from the agent directory) with /bin/sh.
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

  // The remote agent directory: a path without blanks.
  std::string dir() const { return source_.path() + "/agent"; }
  std::string file(const std::string& name) const { return dir() + "/" + name; }
  // The options that name this agent.
  std::vector<std::string> args() const {
    return {"--agent-dir=" + dir(), "--agent-name=scripted"};
  }

 private:
  TempDir source_;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_SCRIPTED_AGENT_H_
