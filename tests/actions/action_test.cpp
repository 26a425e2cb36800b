// The action base against a real sshd: commands as the login user and as
// root, directly or through sudo, file ownership, and the status pull.
#include "actions/action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "commons/session_files.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"
#include "support/source_login.h"
#include "support/sshd_server.h"

namespace tovel {
namespace {

using ferrow_test::LogCapture;
using ferrow_test::SshdServer;
using ferrow_test::TestAccount;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Exposes the base's operations; execute() is not needed here.
class TestAction : public Action {
 public:
  TestAction() : Action(false) {}
  void execute() override {}
  using Action::execRoot;
  using Action::execUser;
  using Action::getSsh;
  using Action::takeFile;

  std::string root(const std::string& command, const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out, err;
    execRoot(command, in, out, err, false, false);
    return out.str();
  }
  std::string user(const std::string& command) {
    std::istringstream in;
    std::ostringstream out, err;
    execUser(command, in, out, err, false, false);
    return out.str();
  }
};

// The command lines sent to the server, in order.
std::vector<std::string> executed(const LogCapture& log) {
  std::vector<std::string> lines;
  for (const std::string& line : log.lines()) {
    if (line.rfind("Executing ", 0) == 0) lines.push_back(line);
  }
  return lines;
}

class ActionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }

  // Logs in as `account`; with sudo, root commands go through sudo with
  // `sudoPassword`.
  void configure(const TestAccount& account, bool sudo,
                 const std::string& sudoPassword) {
    ferrow_test::loginAs(&cfg_, account, sudo, &sudoPassword);
    cfg_.agentDir = dir_.path();
    chmod(dir_.path().c_str(), 0755);
    action_.setConfig(&cfg_);
  }

  ferrow_test::TempDir dir_;
  config cfg_;
  TestAction action_;
};

TEST_F(ActionTest, RootLoginSendsRootAndUserCommandsAlike) {
  configure(ferrow_test::rootAccount(), false, "");
  LogCapture log("p.Ssh");
  EXPECT_EQ(action_.root("id -u"), "0\n");
  EXPECT_EQ(action_.user("id -u"), "0\n");
  action_.takeFile(dir_.path());  // nothing to do for a root login
  std::vector<std::string> lines = executed(log);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], lines[1]);
  EXPECT_EQ(lines[0], "Executing sh -c cd\\ " + dir_.path() +
                          "\\;\\ id\\ -u on the remote host");
}

TEST_F(ActionTest, SudoRunsAsRootAndPassesInputAfterThePasswordLine) {
  const TestAccount& account = ferrow_test::sudoAccount();
  configure(account, true, account.password);
  EXPECT_EQ(action_.user("id -u"),
            std::to_string(getpwnam(account.name.c_str())->pw_uid) + "\n");
  EXPECT_EQ(action_.root("id -u"), "0\n");
  EXPECT_EQ(action_.root("cat", "first\nsecond"), "first\nsecond");
  std::string large(3 << 20, 'y');
  EXPECT_TRUE(action_.root("cat", large) == large);
}

TEST_F(ActionTest, SudoIsCheckedOncePerAction) {
  const TestAccount& account = ferrow_test::sudoAccount();
  configure(account, true, account.password);
  LogCapture log("p.Ssh");
  action_.root("true");
  action_.root("true");
  std::vector<std::string> lines = executed(log);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "Executing sudo -V on the remote host");
  EXPECT_EQ(lines[1],
            "Executing sudo -k; sudo -S -p ' ' true on the remote host");
  EXPECT_THAT(lines[2],
              HasSubstr("sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ true"));
}

TEST_F(ActionTest, EmptySudoPasswordLeavesTheInputUnchanged) {
  // root's own sudo asks for no password, so the input reaches the command
  // as it is, behind the sudo prefix.
  configure(ferrow_test::rootAccount(), true, "");
  LogCapture log("p.Ssh");
  EXPECT_EQ(action_.root("cat", "hello\n"), "hello\n");
  EXPECT_EQ(action_.root("printenv SUDO_UID"), "0\n");
  EXPECT_THAT(executed(log).back(), HasSubstr("sudo\\ -S"));
}

TEST_F(ActionTest, RefusedSudoIsReported) {
  const TestAccount& plain = ferrow_test::plainAccount();
  configure(plain, true, plain.password);
  try {
    action_.root("true");
    FAIL() << "sudo ran for an account without sudo rights";
  } catch (const Exc<&SudoNotAllowed>& e) {
    EXPECT_STREQ(e.what(),
                 "sudo is not allowed for user ferrowplain on host 127.0.0.1.");
  }
}

TEST_F(ActionTest, TakeFileGivesTheLoginAFileThatRootWrote) {
  const TestAccount& account = ferrow_test::sudoAccount();
  configure(account, true, account.password);
  std::string path = dir_.path() + "/written by root";
  action_.root("touch '" + path + "'");
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  action_.takeFile(path);
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, getpwnam(account.name.c_str())->pw_uid);

  try {
    action_.takeFile("/nonexistent/file");
    FAIL() << "took a file that does not exist";
  } catch (const Exc<&CantTakeFileOwnership>& e) {
    // sudo's prompt, one blank, comes first on standard error.
    EXPECT_THAT(e.what(), StartsWith("Cannot take ownership of "
                                     "/nonexistent/file:  chown: "));
  }
}

TEST_F(ActionTest, MissingAgentDirectoryLeavesTheCommandInTheHome) {
  const TestAccount& account = ferrow_test::plainAccount();
  configure(account, false, "");
  cfg_.agentDir = "/nonexistent/agent";
  EXPECT_EQ(action_.user("pwd"), ferrow_test::homeOf(account) + "\n");
}

// --- the dumping status pull -----------------------------------------------

class StatusPullTest : public ActionTest {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
    configure(ferrow_test::rootAccount(), false, "");
    local_ = session_->getDumpingStatusFileName();
  }
  void TearDown() override {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pAction = nullptr;
    theSession = nullptr;
  }

  std::unique_ptr<SessionFiles> session_;
  std::string local_;
};

TEST_F(StatusPullTest, ArmedActionPullsDuringTheNextCommand) {
  ferrow_test::writeFile(dir_.path() + "/dumping-status.xml",
                         "<status n='1'/>");
  action_.getSsh();
  pAction = &action_;
  update_status(SIGALRM);  // as if the timer had fired
  EXPECT_EQ(action_.user("sleep 1; echo done"), "done\n");
  EXPECT_EQ(ferrow_test::readFile(local_), "<status n='1'/>");
  EXPECT_FALSE(ferrow_test::fileExists(local_ + ".tmp"));
  EXPECT_EQ(pAction, &action_);  // re-armed for the next period
}

TEST_F(StatusPullTest, MissingRemoteStatusKeepsTheLastGoodOne) {
  ferrow_test::writeFile(local_, "<status n='0'/>");
  LogCapture log("p.Action");
  action_.getSsh();
  pAction = &action_;
  action_.doAlarm();
  EXPECT_EQ(ferrow_test::readFile(local_), "<status n='0'/>");
  EXPECT_FALSE(ferrow_test::fileExists(local_ + ".tmp"));
  EXPECT_EQ(pAction, &action_);
  EXPECT_THAT(log.lines(), ::testing::IsEmpty());
}

}  // namespace
}  // namespace tovel
