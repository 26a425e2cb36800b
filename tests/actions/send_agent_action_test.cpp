// "--deploy-agent" against the real sshd: the remote directory gets the
// shared files overlaid by the agent's own, the agent is asked for its
// status as root, and every failure names what went wrong.
#include "actions/send_agent_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commons/dyr_conf.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"
#include "support/source_login.h"
#include "support/sshd_server.h"
#include "xml/agent_deployment_status.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using ferrow_test::compactXml;
using ferrow_test::fileExists;
using ferrow_test::LogCapture;
using ferrow_test::readFile;
using ferrow_test::SshdServer;
using ferrow_test::TestAccount;
using ferrow_test::writeFile;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// --- the directory walk ----------------------------------------------------

TEST(DirWalkTest, VisitsEveryPathWithItsDestinationUnlessRefused) {
  ferrow_test::TempDir dir;
  const std::string root = dir.path() + "/root";
  fs::create_directories(root + "/d/skip");
  writeFile(root + "/a", "");
  writeFile(root + "/d/b", "");
  writeFile(root + "/d/skip/hidden", "");
  std::set<std::pair<std::string, std::string>> seen;
  recursive_dir_walk(root, [&](const fs::path& local, const fs::path& to) {
    seen.insert({local.string(), to.string()});
    return local.filename() != "skip";
  });
  std::set<std::pair<std::string, std::string>> expected = {
      {root, ""},
      {root + "/a", "a"},
      {root + "/d", "d"},
      {root + "/d/b", "d/b"},
      {root + "/d/skip", "d/skip"}};
  EXPECT_EQ(seen, expected);

  try {
    recursive_dir_walk_sync(root, "/x", DirWalkCallback());
    FAIL() << "an empty callback was called";
  } catch (const boost::bad_function_call& e) {
    EXPECT_STREQ(e.what(), "call to empty boost::function");
  }
}

// --- the action --------------------------------------------------------------

// Answers "--get-status" with its uid, the interpreter and its directory.
const char kPerlEntryPoint[] =
    "use Cwd;\n"
    "die \"usage\\n\" unless \"@ARGV\" eq \"--get-status\";\n"
    "print \"<agentstatus><statusfile>deploy.status</statusfile>\","
    " \"<uid>$<</uid><interpreter>$^X</interpreter>\","
    " \"<cwd>\", getcwd(), \"</cwd></agentstatus>\\n\";\n";
const char kShellEntryPoint[] =
    "[ \"$*\" = --get-status ] || exit 2\n"
    "echo \"<agentstatus><statusfile>deploy.status</statusfile>"
    "<uid>$(id -u)</uid><cwd>$(pwd)</cwd></agentstatus>\"\n";

class SendAgentActionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }

  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);  // the sudo login enters it
    writeFile(dir_.path() + "/dyr.conf",
              "PRODUCT_ROOT_D " + dir_.path() + "/product\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
    catalogue_ = dir_.path() + "/product/QVT/agents";
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
    // The process-wide factory caches agents by name: one name per test.
    agent_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    remote_ = dir_.path() + "/remote/" + agent_;  // nested and absent
  }
  void TearDown() override {
    theSession = nullptr;
    dyrConfResetForTesting(nullptr);
  }

  void configure(const TestAccount& account, bool sudo) {
    ferrow_test::loginAs(&cfg_, account, sudo);
    cfg_.agentDir = remote_;
    cfg_.agentName = agent_;
  }

  // Writes CATALOGUE/relative, creating its directories.
  void add(const std::string& relative, const std::string& content) const {
    fs::path file(catalogue_ + "/" + relative);
    fs::create_directories(file.parent_path());
    writeFile(file.string(), content);
  }
  void addAgent(const std::string& spec, const std::string& entryName,
                const std::string& entryPoint) const {
    add(agent_ + "/control/spec", spec);
    add(agent_ + "/" + entryName, entryPoint);
  }

  std::string migrationStatus() const {
    return compactXml(readFile(session_->getStatusFileName()));
  }
  std::string deploymentStatus() const {
    return readFile(session_->getDeploymentStatusFileName());
  }
  static uid_t ownerOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_uid : uid_t(-1);
  }

  ferrow_test::TempDir dir_;
  std::string catalogue_;
  std::string agent_;
  std::string remote_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
};

TEST_F(SendAgentActionTest, RootLoginDeploysSharedThenAgentAndAsksWithPerl) {
  configure(ferrow_test::rootAccount(), false);
  add("shared/common.txt", "shared common");
  add("shared/same.txt", "from shared");
  add("shared/lib/Util.pm", "package Util; 1;\n");
  add(agent_ + "/same.txt", "from agent");
  add(agent_ + "/lib/Agent.pm", "package Agent; 1;\n");
  add(agent_ + "/control/schema.dtd", "<!ELEMENT agentstatus ANY>");
  add(agent_ + "/data/control/nested.txt", "nested");
  addAgent("Description: test agent\nEntryPoint: agent.pl\n", "agent.pl",
           kPerlEntryPoint);
  LogCapture log("p.SendAgentAction");

  SendAgentAction action;
  action.setConfig(&cfg_);
  action.execute();

  EXPECT_EQ(readFile(remote_ + "/common.txt"), "shared common");
  EXPECT_EQ(readFile(remote_ + "/same.txt"), "from agent");
  EXPECT_TRUE(fileExists(remote_ + "/lib/Util.pm"));
  EXPECT_TRUE(fileExists(remote_ + "/lib/Agent.pm"));
  EXPECT_EQ(readFile(remote_ + "/agent.pl"), kPerlEntryPoint);
  EXPECT_FALSE(fs::exists(remote_ + "/control"));
  EXPECT_EQ(readFile(remote_ + "/data/control/nested.txt"), "nested");

  // No Interpreter in the spec: perl ran it, as root, inside the directory.
  std::string answer = deploymentStatus();
  EXPECT_THAT(answer, HasSubstr("<uid>0</uid>"));
  EXPECT_THAT(answer, HasSubstr("<interpreter>/usr/bin/perl</interpreter>"));
  EXPECT_THAT(answer, HasSubstr("<cwd>" + remote_ + "</cwd>"));
  XmlAgentDeploymentStatusDocument document(
      session_->getDeploymentStatusFileName());
  EXPECT_EQ(document.getAgentDeploymentStatusFileName(), "deploy.status");
  struct stat info;
  ASSERT_EQ(stat(session_->getDeploymentStatusFileName().c_str(), &info), 0);
  const struct passwd* panel = getpwnam("dyradm");
  EXPECT_EQ(info.st_uid, panel->pw_uid);
  EXPECT_EQ(info.st_gid, panel->pw_gid);

  EXPECT_THAT(migrationStatus(),
              HasSubstr("<agent action=\"wait\"><host>127.0.0.1</host>"));
  std::vector<std::string> lines = log.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "Copying agent " + agent_ + " to the remote host.");
  EXPECT_EQ(lines.back(), "Getting agent deployment status");
  EXPECT_THAT(lines, Contains("remote mkdir " + remote_ + "/data/control"));
  EXPECT_THAT(lines, Contains("remote <copy " + remote_ + "/agent.pl (from " +
                              catalogue_ + "/" + agent_ + "/agent.pl)"));

  // A second run reuses the directories and overwrites the files.
  add(agent_ + "/same.txt", "changed");
  action.execute();
  EXPECT_EQ(readFile(remote_ + "/same.txt"), "changed");
}

TEST_F(SendAgentActionTest, SudoLoginOwnsTheDirectoriesAndRootIsAsked) {
  const TestAccount& account = ferrow_test::sudoAccount();
  configure(account, true);
  add("shared/common.txt", "shared common");
  add(agent_ + "/data/control/nested.txt", "nested");
  addAgent("EntryPoint: agent.sh\nInterpreter: sh\n", "agent.sh",
           kShellEntryPoint);

  SendAgentAction action;
  action.setConfig(&cfg_);
  action.execute();

  const uid_t login = getpwnam(account.name.c_str())->pw_uid;
  EXPECT_EQ(ownerOf(remote_), login);
  EXPECT_EQ(ownerOf(remote_ + "/data"), login);
  EXPECT_EQ(ownerOf(remote_ + "/data/control"), login);
  EXPECT_EQ(ownerOf(remote_ + "/agent.sh"), login);
  EXPECT_EQ(readFile(remote_ + "/common.txt"), "shared common");
  EXPECT_EQ(readFile(remote_ + "/data/control/nested.txt"), "nested");
  EXPECT_FALSE(fs::exists(remote_ + "/control"));
  EXPECT_EQ(deploymentStatus(),
            "<agentstatus><statusfile>deploy.status</statusfile><uid>0</uid>"
            "<cwd>" +
                remote_ + "</cwd></agentstatus>\n");
}

TEST_F(SendAgentActionTest, MissingSharedDirectoryStopsBeforeCopying) {
  configure(ferrow_test::rootAccount(), false);
  addAgent("EntryPoint: agent.sh\nInterpreter: sh\n", "agent.sh",
           kShellEntryPoint);
  SendAgentAction action;
  action.setConfig(&cfg_);
  try {
    action.execute();
    FAIL() << "deployed without the shared directory";
  } catch (const Exc<&NoSharedAgentsDirectory>& e) {
    EXPECT_STREQ(e.what(), "'shared' agents directory not found");
  }
  EXPECT_THAT(migrationStatus(),
              HasSubstr("<agent action=\"deploy\"><host>127.0.0.1</host>"));
  EXPECT_FALSE(fs::exists(remote_));
}

TEST_F(SendAgentActionTest, MissingAgentDirectoryIsNamed) {
  configure(ferrow_test::rootAccount(), false);
  add("shared/common.txt", "shared common");
  SendAgentAction action;
  action.setConfig(&cfg_);
  try {
    action.execute();
    FAIL() << "deployed an agent that does not exist";
  } catch (const Exc<&NoAgentDirectory>& e) {
    EXPECT_EQ(std::string(e.what()),
              "Directory for agent '" + agent_ + "' does not exist");
  }
  // The shared part went first and stays for the next run.
  EXPECT_EQ(readFile(remote_ + "/common.txt"), "shared common");
  EXPECT_FALSE(fileExists(session_->getDeploymentStatusFileName()));
}

TEST_F(SendAgentActionTest, AgentWithoutSpecIsCopiedButNotAsked) {
  configure(ferrow_test::rootAccount(), false);
  add("shared/common.txt", "shared common");
  add(agent_ + "/agent.sh", kShellEntryPoint);
  SendAgentAction action;
  action.setConfig(&cfg_);
  EXPECT_THROW(action.execute(), Exc<&AgentNotFound>);
  EXPECT_TRUE(fileExists(remote_ + "/agent.sh"));
  EXPECT_THAT(migrationStatus(), HasSubstr("<agent action=\"wait\">"));
  EXPECT_FALSE(fileExists(session_->getDeploymentStatusFileName()));
}

TEST_F(SendAgentActionTest, FailingStatusRequestKeepsThePartialAnswer) {
  configure(ferrow_test::rootAccount(), false);
  add("shared/common.txt", "shared common");
  addAgent("EntryPoint: agent.sh\nInterpreter: sh\n", "agent.sh",
           "printf '<agentstatus>'; echo 'agent broke' >&2; exit 3\n");
  SendAgentAction action;
  action.setConfig(&cfg_);
  try {
    action.execute();
    FAIL() << "a failing agent was taken as deployed";
  } catch (const Exc<&CantRequestAgentStatus>& e) {
    EXPECT_EQ(std::string(e.what()),
              "Cannot request remote agent status using command line " +
                  remote_ + "/agent.sh: agent broke\n");
  }
  EXPECT_EQ(deploymentStatus(), "<agentstatus>");
  EXPECT_EQ(ownerOf(session_->getDeploymentStatusFileName()), 0u);
}

TEST_F(SendAgentActionTest, UncreatableRemoteDirectoryIsReported) {
  configure(ferrow_test::rootAccount(), false);
  writeFile(dir_.path() + "/plain-file", "");
  remote_ = dir_.path() + "/plain-file/agent";
  cfg_.agentDir = remote_;
  add("shared/common.txt", "shared common");
  SendAgentAction action;
  action.setConfig(&cfg_);
  try {
    action.execute();
    FAIL() << "deployed under a regular file";
  } catch (const Exc<&CantCreateAgentDirectory>& e) {
    // The failed "cd" of the command's prologue speaks first.
    EXPECT_THAT(e.what(), StartsWith("Can't create agent directory " + remote_ +
                                     " on the remote host: "));
    EXPECT_THAT(e.what(), HasSubstr("mkdir: cannot create directory"));
  }
}

}  // namespace
}  // namespace tovel
