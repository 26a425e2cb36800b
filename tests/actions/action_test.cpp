// The action base and the dump actions against the real sshd: commands as
// the login and as root, directly or through sudo, file ownership, the
// dump's arguments and input, and the dumping status pull.
#include "actions/action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "actions/get_dumping_status_action.h"
#include "actions/remove_dumping_status_action.h"
#include "actions/retrieve_dump_action.h"
#include "commons/dyr_conf.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"
#include "support/source_login.h"

namespace tovel {
namespace {

using ferrow_test::fileExists;
using ferrow_test::LogCapture;
using ferrow_test::readFile;
using ferrow_test::TestAccount;
using ferrow_test::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class TestAction : public Action {
 public:
  TestAction() : Action(false) {}
  void execute() override {}
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
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
  }
  void TearDown() override {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pAction = nullptr;
    theSession = nullptr;
    dyrConfResetForTesting(nullptr);
  }
  void configure(const TestAccount& account, bool sudo,
                 const std::string& sudoPassword) {
    ferrow_test::loginAs(&cfg_, account, sudo, &sudoPassword);
    cfg_.agentDir = dir_.path();
    action_.setConfig(&cfg_);
  }
  uid_t uidOf(const TestAccount& account) {
    return getpwnam(account.name.c_str())->pw_uid;
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
  TestAction action_;
};

TEST_F(ActionTest, RootLoginSendsRootAndUserCommandsAlike) {
  configure(ferrow_test::rootAccount(), false, "");
  LogCapture log("p.Ssh");
  EXPECT_EQ(action_.root("id -u"), "0\n");
  EXPECT_EQ(action_.user("id -u"), "0\n");
  action_.takeFile(dir_.path());  // nothing to do for a root login
  const std::string line =
      "Executing sh -c cd\\ " + dir_.path() + "\\;\\ id\\ -u on the remote host";
  EXPECT_THAT(executed(log), ElementsAre(line, line));
  cfg_.agentDir = "/nonexistent/agent";  // the command runs in the home
  EXPECT_EQ(action_.user("pwd"),
            ferrow_test::homeOf(ferrow_test::rootAccount()) + "\n");
}

TEST_F(ActionTest, SudoPutsThePasswordLineBeforeTheInputAndIsCheckedOnce) {
  const TestAccount& account = ferrow_test::sudoAccount();
  configure(account, true, account.password);
  LogCapture log("p.Ssh");
  EXPECT_EQ(action_.root("cat", "first\nsecond"), "first\nsecond");
  const std::string large(3 << 20, 'y');
  EXPECT_TRUE(action_.root("cat", large) == large);
  EXPECT_EQ(action_.root("id -u"), "0\n");
  EXPECT_EQ(action_.user("id -u"), std::to_string(uidOf(account)) + "\n");
  std::vector<std::string> lines = executed(log);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "Executing sudo -V on the remote host");
  EXPECT_EQ(lines[1],
            "Executing sudo -k; sudo -S -p ' ' true on the remote host");
  EXPECT_THAT(lines[2], HasSubstr("sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ cat"));

  const std::string path = dir_.path() + "/written by root";
  action_.root("touch '" + path + "'");
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  action_.takeFile(path);
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, uidOf(account));
  try {
    action_.takeFile("/nonexistent/file");
    FAIL() << "took a file that does not exist";
  } catch (const Exc<&CantTakeFileOwnership>& e) {
    // sudo's prompt, one blank, comes first on standard error.
    EXPECT_THAT(e.what(), ::testing::StartsWith("Cannot take ownership of "
                                                "/nonexistent/file:  chown: "));
  }
}

TEST_F(ActionTest, SudoWithoutPasswordOrWithoutRights) {
  // root's own sudo asks for no password: the input reaches the command
  // as it is.
  configure(ferrow_test::rootAccount(), true, "");
  EXPECT_EQ(action_.root("cat", "hello\n"), "hello\n");
  EXPECT_EQ(action_.root("printenv SUDO_UID"), "0\n");

  const TestAccount& plain = ferrow_test::plainAccount();
  TestAction refused;
  ferrow_test::loginAs(&cfg_, plain, true);
  refused.setConfig(&cfg_);
  try {
    refused.root("true");
    FAIL() << "sudo ran for an account without sudo rights";
  } catch (const Exc<&SudoNotAllowed>& e) {
    EXPECT_STREQ(e.what(),
                 "sudo is not allowed for user ferrowplain on host 127.0.0.1.");
  }
}

TEST_F(ActionTest, StatusPullCopiesDuringTheNextCommandOrKeepsTheLastGood) {
  configure(ferrow_test::rootAccount(), false, "");
  const std::string local = session_->getDumpingStatusFileName();
  const std::string remote = dir_.path() + "/dumping-status.xml";
  action_.getSsh();
  pAction = &action_;
  // Nothing on the source yet: the last good copy stays.
  writeFile(local, "<status n='0'/>");
  action_.doAlarm();
  EXPECT_EQ(readFile(local), "<status n='0'/>");
  EXPECT_EQ(pAction, &action_);  // armed for the next period
  EXPECT_GT(alarm(0), 0u);

  writeFile(remote, "<status n='1'/>");
  update_status(SIGALRM);  // as if the timer had fired
  EXPECT_EQ(action_.user("sleep 1; echo done"), "done\n");
  EXPECT_EQ(readFile(local), "<status n='1'/>");
  EXPECT_FALSE(fileExists(local + ".tmp"));
  EXPECT_EQ(pAction, &action_);

  RemoveDumpingStatusAction remove;
  remove.setConfig(&cfg_);
  writeFile(remote + ".tmp", "x");
  remove.execute();
  remove.execute();  // nothing left: no error
  EXPECT_FALSE(fileExists(remote));
  EXPECT_TRUE(fileExists(remote + ".tmp"));
}

// --- the dump ----------------------------------------------------------------

class DumpActionTest : public ActionTest {
 protected:
  // An agent in the catalogue whose entry point, in the agent directory,
  // runs script with /bin/sh.
  void installAgent(const std::string& name, const std::string& script) {
    const std::string product = dir_.path() + "/product";
    boost::filesystem::create_directories(product + "/QVT/agents/" + name +
                                          "/control");
    writeFile(product + "/QVT/agents/" + name + "/control/spec",
              "EntryPoint: run\nInterpreter: /bin/sh\n");
    writeFile(dir_.path() + "/dyr.conf", "PRODUCT_ROOT_D " + product + "\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
    writeFile(dir_.path() + "/run", script);
    cfg_.agentName = name;
    cfg_.sessionPath = session_->getDir();
  }
};

TEST_F(DumpActionTest, SudoDumpGetsArgumentsInputAndPullsTheStatus) {
  configure(ferrow_test::sudoAccount(), true,
            ferrow_test::sudoAccount().password);
  // The status written last must not be what the session shows: only a
  // pull during the run, 5 s after its start, can have copied the first.
  installAgent("dump-sudo",
               "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > argv.txt\n"
               "cat > stdin.txt; id -u > uid.txt\n"
               "printf '<s n=\"1\"/>' > dumping-status.xml; sleep 6\n"
               "printf '<s n=\"2\"/>' > dumping-status.xml\n"
               "printf '<dump/>' > dump.xml; chmod 600 dump.xml\n");
  writeFile(session_->getDumpFileName(), "an older and longer dump file");
  cfg_.noContent = 1;
  const std::string input = "a.example,b.example\nsecond line\n";
  RetrieveDumpAction dump({"--dump-domains=-", "--odd word; $(x) 'q'"}, input);
  dump.setConfig(&cfg_);
  dump.execute();
  EXPECT_EQ(readFile(dir_.path() + "/argv.txt"),
            "--dump-domains=-\n--odd word; $(x) 'q'\n--no-content\n");
  EXPECT_EQ(readFile(dir_.path() + "/stdin.txt"), input);
  EXPECT_EQ(readFile(dir_.path() + "/uid.txt"), "0\n");
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump/>");
  EXPECT_EQ(readFile(cfg_.sessionPath + "/dump-name"),
            session_->getDumpFileName());
  EXPECT_EQ(readFile(session_->getDumpingStatusFileName()), "<s n=\"1\"/>");
  EXPECT_EQ(pAction, nullptr);
  EXPECT_EQ(alarm(0), 0u);  // no tick left to hit a later command

  // The dumping status through sudo, byte for byte, of a file only root
  // could read.
  const std::string bytes = std::string("<s>\r\n\0\xff ", 9) + "end";
  writeFile(dir_.path() + "/dumping-status.xml", bytes);
  chmod((dir_.path() + "/dumping-status.xml").c_str(), 0600);
  GetDumpingStatusAction status;
  status.setConfig(&cfg_);
  ::testing::internal::CaptureStdout();
  status.execute();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), bytes);
}

}  // namespace
}  // namespace tovel
