// Deploying an agent against the real sshd: the shared files overlaid by
// the agent's own, its control directory left out, the agent asked for its
// status as root, and every failure named.
#include "actions/send_agent_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <string>

#include "commons/dyr_conf.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/source_login.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using ferrow_test::fileExists;
using ferrow_test::readFile;
using ::testing::HasSubstr;

class SendAgentActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);  // the sudo login enters it
    ferrow_test::writeFile(dir_.path() + "/dyr.conf",
                           "PRODUCT_ROOT_D " + dir_.path() + "/product\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
    ferrow_test::loginAs(&cfg_, ferrow_test::rootAccount(), false);
    cfg_.agentDir = dir_.path() + "/remote/agent";  // nested and absent
  }
  void TearDown() override {
    theSession = nullptr;
    dyrConfResetForTesting(nullptr);
  }

  // Writes a file of the catalogue, creating its directories.
  void add(const std::string& relative, const std::string& content) const {
    fs::path file(dir_.path() + "/product/QVT/agents/" + relative);
    fs::create_directories(file.parent_path());
    ferrow_test::writeFile(file.string(), content);
  }
  // Deploys agent (names are cached per process: one per test case); the
  // error's code and text, or "".
  std::string deploy(const std::string& agent) {
    cfg_.agentName = agent;
    SendAgentAction action;
    action.setConfig(&cfg_);
    std::string error;
    try {
      action.execute();
    } catch (const ExTraceable& e) {
      error = e.code() + ": " + e.what();
    }
    status_ = ferrow_test::compactXml(readFile(session_->getStatusFileName()));
    return error;
  }
  std::string remote(const std::string& name) const {
    return cfg_.agentDir + "/" + name;
  }
  static uid_t ownerOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_uid : uid_t(-1);
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
  std::string status_;  // as the last deploy() left it
};

TEST_F(SendAgentActionTest, FailuresNameWhatWentWrong) {
  EXPECT_EQ(deploy("unshared"),
            "NoSharedAgentsDirectory: 'shared' agents directory not found");
  EXPECT_FALSE(fs::exists(cfg_.agentDir));
  EXPECT_THAT(status_, HasSubstr("<agent action=\"deploy\"><host>127.0.0.1</host>"));

  add("shared/common.txt", "shared common");
  EXPECT_EQ(deploy("absent"),
            "NoAgentDirectory: Directory for agent 'absent' does not exist");
  EXPECT_EQ(readFile(remote("common.txt")), "shared common");
  EXPECT_FALSE(fileExists(session_->getDeploymentStatusFileName()));

  add("broken/control/spec", "EntryPoint: agent.sh\nInterpreter: sh\n");
  add("broken/agent.sh", "printf '<agentstatus>'; echo broke >&2; exit 3\n");
  EXPECT_EQ(deploy("broken"),
            "CantRequestAgentStatus: Cannot request remote agent status using "
            "command line " + remote("agent.sh") + ": broke\n");
  EXPECT_EQ(readFile(session_->getDeploymentStatusFileName()), "<agentstatus>");
  EXPECT_EQ(ownerOf(session_->getDeploymentStatusFileName()), 0u);

  ferrow_test::writeFile(dir_.path() + "/plain-file", "");
  cfg_.agentDir = dir_.path() + "/plain-file/agent";
  EXPECT_THAT(deploy("broken"),
              ::testing::AllOf(
                  HasSubstr("CantCreateAgentDirectory: Can't create agent "
                            "directory " + cfg_.agentDir + " on the remote "
                            "host: "),
                  HasSubstr("mkdir: cannot create directory")));
}

}  // namespace
}  // namespace tovel
