// The actions against the real sshd: commands as the login and as root,
// directly or through sudo; the agent's deployment, the dump and its status
// pull; content retrieval with an agent that prints a list of archives the
// test made; and the progress figures of the transfer.
#include "actions/action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "actions/get_dumping_status_action.h"
#include "actions/remove_dumping_status_action.h"
#include "actions/retrieve_content_action.h"
#include "actions/retrieve_dump_action.h"
#include "actions/send_agent_action.h"
#include "commons/checksum.h"
#include "commons/disk_space.h"
#include "commons/dyr_conf.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "log/debug_log.h"
#include "log/run_log.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"
#include "support/source_login.h"
#include "support/test_bytes.h"
#include "xml/migration_status.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using ferrow_test::fileExists;
using ferrow_test::LogCapture;
using ferrow_test::readFile;
using ferrow_test::TestAccount;
using ferrow_test::writeFile;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

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

// Records what reaches the run record.
struct FakeLog : Log {
  void setSuccess(bool) override {}
  void log(const ExTraceable& e) override {
    entries.push_back(e.code() + ": " + e.what());
  }
  void pushObject(const std::string&, const std::string&) override {}
  void popObject() override {}
  int getDepth() const override { return 0; }
  std::vector<std::string> entries;
};

// The code and text of what f throws, or "no error".
template <class F>
std::string errorOf(F f) {
  try {
    f();
  } catch (const ExTraceable& e) {
    return e.code() + ": " + e.what();
  }
  return "no error";
}

// The command lines sent to the server, in order.
std::vector<std::string> executed(const LogCapture& log) {
  std::vector<std::string> lines;
  for (const std::string& line : log.lines())
    if (line.rfind("Executing ", 0) == 0) lines.push_back(line);
  return lines;
}

// A private installation (dyr.conf, agent catalogue, session), an existing
// remote agent directory, and a root login.
class ActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);  // the sudo login enters it
    writeFile(path("dyr.conf"), "PRODUCT_ROOT_D " + path("product") + "\n");
    dyrConfResetForTesting(path("dyr.conf").c_str());
    session_ = std::make_unique<SessionFiles>(path("session"));
    theSession = session_.get();
    theLog = &log_;
    configure(ferrow_test::rootAccount(), false);
    cfg_.agentDir = path("agent");
    cfg_.sessionPath = session_->getDir();
    fs::create_directories(cfg_.agentDir);
  }
  void TearDown() override {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pAction = nullptr;
    theSession = nullptr;
    theLog = nullptr;
    theDebugLog = nullptr;
    dyrConfResetForTesting(nullptr);
  }
  void configure(const TestAccount& account, bool sudo,
                 const std::string& sudoPassword = "") {
    ferrow_test::loginAs(&cfg_, account, sudo, &sudoPassword);
    action_.setConfig(&cfg_);
  }
  std::string path(const std::string& name) const {
    return dir_.path() + "/" + name;
  }
  std::string remote(const std::string& name) const {
    return cfg_.agentDir + "/" + name;
  }
  std::string local(const std::string& name) const {
    return session_->getDir() + "/" + name;
  }
  // Writes a file of the agent catalogue, creating its directories.
  void addToCatalogue(const std::string& name, const std::string& text) {
    fs::path file(path("product/QVT/agents/" + name));
    fs::create_directories(file.parent_path());
    writeFile(file.string(), text);
  }
  // Agent name (cached per process: one name per test) runs script, put in
  // the remote agent directory, with /bin/sh.
  void installAgent(const std::string& name, const std::string& script) {
    addToCatalogue(name + "/control/spec",
                   "EntryPoint: agent.sh\nInterpreter: /bin/sh\n");
    writeFile(remote("agent.sh"), script);
    cfg_.agentName = name;
  }
  static uid_t uidOf(const std::string& name) {
    return getpwnam(name.c_str())->pw_uid;
  }
  static uid_t ownerOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_uid : uid_t(-1);
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
  FakeLog log_;
  TestAction action_;
};

TEST_F(ActionTest, RootLoginSendsRootAndUserCommandsAlike) {
  LogCapture log("p.Ssh");
  EXPECT_EQ(action_.root("id -u") + action_.user("id -u"), "0\n0\n");
  action_.takeFile(cfg_.agentDir);  // nothing to do for a root login
  const std::string line = "Executing sh -c cd\\ " + cfg_.agentDir +
                           "\\;\\ id\\ -u on the remote host";
  EXPECT_THAT(executed(log), ElementsAre(line, line));
  cfg_.agentDir = "/nonexistent/agent";  // the command runs in the home
  EXPECT_EQ(action_.user("pwd"),
            ferrow_test::homeOf(ferrow_test::rootAccount()) + "\n");
  // root's own sudo asks for no password: the input reaches the command.
  configure(ferrow_test::rootAccount(), true);
  EXPECT_EQ(action_.root("cat", "hello\n"), "hello\n");
  EXPECT_EQ(action_.root("printenv SUDO_UID"), "0\n");
}

TEST_F(ActionTest, SudoPutsThePasswordLineBeforeTheInputAndIsCheckedOnce) {
  const TestAccount& account = ferrow_test::sudoAccount();
  configure(account, true, account.password);
  LogCapture log("p.Ssh");
  EXPECT_EQ(action_.root("cat", "first\nsecond"), "first\nsecond");
  const std::string large(3 << 20, 'y');
  EXPECT_TRUE(action_.root("cat", large) == large);
  EXPECT_EQ(action_.root("id -u") + action_.user("id -u"),
            "0\n" + std::to_string(uidOf(account.name)) + "\n");
  std::vector<std::string> lines = executed(log);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0] + lines[1],
            "Executing sudo -V on the remote host"
            "Executing sudo -k; sudo -S -p ' ' true on the remote host");
  EXPECT_THAT(lines[2],
              HasSubstr("sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ cat"));

  const std::string file = path("written by root");
  action_.root("touch '" + file + "'");
  EXPECT_EQ(ownerOf(file), 0u);
  action_.takeFile(file);
  EXPECT_EQ(ownerOf(file), uidOf(account.name));
  // sudo's prompt, one blank, comes first on standard error.
  EXPECT_THAT(errorOf([&] { action_.takeFile("/nonexistent/file"); }),
              StartsWith("CantTakeFileOwnership: Cannot take ownership of "
                         "/nonexistent/file:  chown: "));

  TestAction refused;
  ferrow_test::loginAs(&cfg_, ferrow_test::plainAccount(), true);
  refused.setConfig(&cfg_);
  EXPECT_EQ(errorOf([&] { refused.root("true"); }),
            "SudoNotAllowed: sudo is not allowed for user ferrowplain on host "
            "127.0.0.1.");
}

TEST_F(ActionTest, StatusPullCopiesDuringTheNextCommandOrKeepsTheLastGood) {
  const std::string local = session_->getDumpingStatusFileName();
  const std::string remote = this->remote("dumping-status.xml");
  action_.getSsh();
  pAction = &action_;
  writeFile(local, "<status n='0'/>");
  action_.doAlarm();  // nothing on the source yet: the last good copy stays
  EXPECT_EQ(readFile(local), "<status n='0'/>");
  EXPECT_EQ(pAction, &action_);  // armed for the next period
  EXPECT_GT(alarm(0), 0u);

  writeFile(remote, "<status n='1'/>");
  update_status(SIGALRM);  // as if the timer had fired
  EXPECT_EQ(action_.user("sleep 1; echo done"), "done\n");
  EXPECT_EQ(readFile(local), "<status n='1'/>");
  EXPECT_FALSE(fileExists(local + ".tmp"));

  RemoveDumpingStatusAction remove;
  remove.setConfig(&cfg_);
  writeFile(remote + ".tmp", "x");
  remove.execute();
  remove.execute();  // nothing left: no error
  EXPECT_FALSE(fileExists(remote));
  EXPECT_TRUE(fileExists(remote + ".tmp"));
}

TEST_F(ActionTest, SudoDumpGetsArgumentsInputAndPullsTheStatus) {
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
  EXPECT_EQ(readFile(remote("argv.txt")),
            "--dump-domains=-\n--odd word; $(x) 'q'\n--no-content\n");
  EXPECT_EQ(readFile(remote("stdin.txt")), input);
  EXPECT_EQ(readFile(remote("uid.txt")), "0\n");
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump/>");
  EXPECT_EQ(readFile(local("dump-name")), session_->getDumpFileName());
  EXPECT_EQ(readFile(session_->getDumpingStatusFileName()), "<s n=\"1\"/>");
  EXPECT_EQ(pAction, nullptr);
  EXPECT_EQ(alarm(0), 0u);  // no tick left to hit a later command

  // The dumping status byte for byte, of a file only root could read.
  const std::string bytes = std::string("<s>\r\n\0\xff ", 9) + "end";
  writeFile(remote("dumping-status.xml"), bytes);
  chmod(remote("dumping-status.xml").c_str(), 0600);
  GetDumpingStatusAction status;
  status.setConfig(&cfg_);
  ::testing::internal::CaptureStdout();
  status.execute();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), bytes);
}

TEST_F(ActionTest, DeployFailuresNameWhatWentWrong) {
  auto deploy = [&](const std::string& agent) {
    cfg_.agentName = agent;
    SendAgentAction action;
    action.setConfig(&cfg_);
    std::string error = errorOf([&] { action.execute(); });
    return error + "|" + readFile(session_->getStatusFileName());
  };
  cfg_.agentDir = path("remote/agent");  // nested and absent
  EXPECT_THAT(
      ferrow_test::compactXml(deploy("unshared")),
      StartsWith(
          "NoSharedAgentsDirectory: 'shared' agents directory "
          "not found|<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
          "<migration-status><agent action=\"deploy\"><host>127.0.0.1</host>"));
  EXPECT_FALSE(fs::exists(cfg_.agentDir));

  addToCatalogue("shared/common.txt", "shared common");
  EXPECT_THAT(
      deploy("absent"),
      StartsWith(
          "NoAgentDirectory: Directory for agent 'absent' does not exist|"));
  EXPECT_EQ(readFile(remote("common.txt")), "shared common");
  EXPECT_FALSE(fileExists(session_->getDeploymentStatusFileName()));

  addToCatalogue("broken/control/spec",
                 "EntryPoint: agent.sh\nInterpreter: sh\n");
  addToCatalogue("broken/agent.sh",
                 "printf '<agentstatus>'; echo broke >&2; exit 3\n");
  EXPECT_THAT(deploy("broken"),
              StartsWith("CantRequestAgentStatus: Cannot request remote agent "
                         "status using command line " +
                         remote("agent.sh") + ": broke\n|"));
  EXPECT_EQ(readFile(session_->getDeploymentStatusFileName()), "<agentstatus>");
  EXPECT_EQ(ownerOf(session_->getDeploymentStatusFileName()), 0u);

  writeFile(path("plain-file"), "");
  cfg_.agentDir = path("plain-file/agent");
  EXPECT_THAT(deploy("broken"),
              AllOf(StartsWith("CantCreateAgentDirectory: Can't create agent "
                               "directory " +
                               cfg_.agentDir + " on the remote host: "),
                    HasSubstr("mkdir: cannot create directory")));
}

// --- content retrieval -------------------------------------------------------

class RetrieveContentActionTest : public ActionTest {
 protected:
  // Appends "UID|ARGS" to "calls"; prints "failure" to standard error and
  // fails when it exists, else prints contentlist.xml.
  void SetUp() override {
    ActionTest::SetUp();
    installAgent("fake",
                 "printf '%s|%s\\n' \"$(id -u)\" \"$*\" >> calls\n"
                 "if [ -f failure ]; then cat failure >&2; exit 3; fi\n"
                 "cat contentlist.xml\n");
  }
  // Puts an archive into the remote agent directory and lists it with its
  // size (or listed) and sum (or sum; none when "").
  std::string addArchive(const std::string& name, size_t size,
                         const char* sum = nullptr, int64_t listed = -1) {
    std::string bytes = ferrow_test::archiveBytes(size, unsigned(name.size()));
    fs::create_directories(fs::path(remote(name)).parent_path());
    writeFile(remote(name), bytes);
    std::string md5 = sum ? sum : countMd5Sum(bytes);
    list_ += "<file size=\"" + std::to_string(listed < 0 ? size : listed) +
             "\"" + (md5.empty() ? "" : " md5sum=\"" + md5 + "\"") + ">" +
             name + "</file>";
    return bytes;
  }
  // Writes the list; the root's size is total.
  void writeList(int64_t total) {
    writeFile(remote("contentlist.xml"),
              "<contentlist size=\"" + std::to_string(total) +
                  "\" unpacked=\"1\">" + list_ + "</contentlist>");
    list_.clear();
  }
  // Runs an action; the status document as execute() left it.
  std::string run() {
    RetrieveContentAction action;
    action.setConfig(&cfg_);
    action.execute();
    return ferrow_test::compactXml(readFile(session_->getStatusFileName()));
  }
  // The cause of the error run() ended with.
  std::string failure() {
    try {
      run();
    } catch (const Exc<&CantRetrieveDump>& e) {
      return e.inner() ? e.inner()->code() + ": " + e.inner()->what()
                       : "no cause";
    }
    return "no error";
  }

  std::string list_;
};

TEST_F(RetrieveContentActionTest, SudoFetchesRemovesAsRootAndPointsToTheDump) {
  ferrow_test::loginAs(&cfg_, ferrow_test::sudoAccount(), true);
  std::string a = addArchive("a.tgz", 200000);
  std::string b = addArchive("sub/dir/b.tgz", 70000);
  writeList(270000);
  EXPECT_THAT(run(), HasSubstr("<host>127.0.0.1</host><files "
                               "total=\"2\" left=\"0\" size-total=\"270000\" "
                               "size-left=\"0\"><current-file size=\"70000\" "
                               "size-left=\"0\">sub/dir/b.tgz</current-file>"));
  EXPECT_TRUE(readFile(local("a.tgz")) == a &&
              readFile(local("sub/dir/b.tgz")) == b);
  // The agent directory is root's: only root could remove the archives.
  EXPECT_FALSE(fileExists(remote("a.tgz")) ||
               fileExists(remote("sub/dir/b.tgz")));
  EXPECT_EQ(readFile(remote("calls")), "0|--get-content-list\n");
  EXPECT_EQ(
      readFile(local("dump-name")) + readFile(local("migration-result-name")),
      local("dump.xml") + local("migration.result"));
  // New directories for the archives belong to the panel's account.
  struct stat info;
  ASSERT_EQ(stat(local("sub/dir").c_str(), &info), 0);
  const passwd* panel = getpwnam("dyradm");
  EXPECT_EQ(
      std::vector<unsigned>({info.st_mode & 07777, info.st_uid, info.st_gid}),
      std::vector<unsigned>({0755, panel->pw_uid, panel->pw_gid}));
  EXPECT_THAT(readFile(session_->getStatusFileName()), HasSubstr("<idle/>"));
}

TEST_F(RetrieveContentActionTest, SkipChecksTheSessionByBaseNameAndSum) {
  const std::string dumps = path("dumps");
  mkdir(dumps.c_str(), 0700);
  cfg_.dumpsDir = dumps;
  std::string kept = addArchive("kept.tgz", 30000);
  addArchive("unsummed.tgz", 20000, "");
  std::vector<std::pair<std::string, std::string>> fetched;
  for (const char* name : {"stale.tgz", "sub/deep.tgz", "d.tgz", "y/dir.tgz"})
    fetched.emplace_back(name, addArchive(name, 3000 + 1000 * fetched.size()));
  std::string nested = addArchive("sub/nested.tgz", 5000);
  writeList(73000);
  // Copies left by an earlier run, looked for in the session directory by
  // base name only, whatever the destination.
  writeFile(local("kept.tgz"), kept);
  writeFile(local("unsummed.tgz"), "an earlier copy");
  writeFile(local("stale.tgz"), fetched[0].second.substr(1));
  writeFile(local("nested.tgz"), nested);
  fs::create_directories(local("sub"));
  writeFile(local("sub/deep.tgz"), fetched[1].second);
  writeFile(dumps + "/d.tgz", fetched[2].second);
  mkdir(local("dir.tgz").c_str(), 0755);  // a directory is no copy
  // Skipped archives stay in the size left; every file counts as done.
  EXPECT_THAT(run(), HasSubstr("left=\"0\" size-total=\"73000\" "
                               "size-left=\"35000\""));
  EXPECT_TRUE(fileExists(remote("kept.tgz")) &&
              fileExists(remote("sub/nested.tgz")));
  EXPECT_FALSE(fileExists(dumps + "/kept.tgz") ||
               fileExists(dumps + "/sub/nested.tgz"));
  EXPECT_FALSE(fileExists(remote("unsummed.tgz")));
  EXPECT_EQ(readFile(dumps + "/unsummed.tgz").size(), 20000u);
  EXPECT_EQ(readFile(local("unsummed.tgz")), "an earlier copy");
  for (const auto& [name, bytes] : fetched) {
    EXPECT_FALSE(fileExists(remote(name))) << name;
    EXPECT_TRUE(readFile(dumps + "/" + name) == bytes) << name;
  }
  EXPECT_EQ(
      readFile(local("dump-name")) + readFile(local("migration-result-name")),
      dumps + "/dump.xml" + dumps + "/migration.result");

  // The record check of a local copy: only a present copy with another
  // sum is recorded.
  RetrieveContentAction action;
  action.checkFile({"x/kept.tgz", 30000, countMd5Sum(kept)});
  action.checkFile({"missing.tgz", 1, std::string(32, 'f')});
  EXPECT_TRUE(log_.entries.empty());
  action.checkFile({"x/kept.tgz", 30000, std::string(32, 'f')});
  EXPECT_THAT(log_.entries,
              ElementsAre("WrongMd5Sum: Problem during content retrieval: "
                          "downloaded x/kept.tgz has MD5 sum " +
                          std::string(32, 'f') + ", but it has to be " +
                          countMd5Sum(kept) + ". Restarting download."));
}

// An archive whose copy is not sound is kept on the source host, and so
// are the ones after it; those before it are complete and removed.
TEST_F(RetrieveContentActionTest, UnsoundCopyKeepsTheSourceArchive) {
  const std::string bad = "sub/bad.tgz", wrongSum(32, 'a');
  const std::string realSum =
      countMd5Sum(ferrow_test::archiveBytes(700, unsigned(bad.size())));
  enum Fault { kNone, kEndless, kBlocked, kGone };
  const struct {
    size_t size;
    int64_t listed;
    const char* sum;
    Fault fault;
    std::string why;
  } cases[] = {
      {1000, 1001, nullptr, kNone, "received 1000 bytes, but 1001 are listed"},
      {1000, 999, nullptr, kNone, "received more than 999 bytes"},
      {700, 700, wrongSum.c_str(), kNone,
       "received data has MD5 sum " + realSum + ", but " + wrongSum +
           " is listed"},
      {0, 100000, "", kEndless, "received more than 100000 bytes"},
      {100, 100, nullptr, kBlocked,
       "cannot create " + local(bad) + ": Not a directory"},
      {100, 100, nullptr, kGone,
       "cat: " + remote(bad) + ": No such file or directory\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    fs::remove_all(local("sub"));
    unlink(local("first.tgz").c_str());
    std::string first = addArchive("first.tgz", 3000);
    addArchive(bad, c.size, c.sum, c.listed);
    if (c.fault == kEndless || c.fault == kGone) unlink(remote(bad).c_str());
    if (c.fault == kEndless) symlink("/dev/zero", remote(bad).c_str());
    if (c.fault == kBlocked) writeFile(local("sub"), "in the way");
    addArchive("after.tgz", 100);
    writeList(200000);
    EXPECT_EQ(failure(), "CantRetrieveContentFile: Failed to retrieve file '" +
                             remote(bad) + "' from '127.0.0.1' to '" +
                             local(bad) + "': " + c.why);
    EXPECT_TRUE(readFile(local("first.tgz")) == first);
    EXPECT_FALSE(fileExists(remote("first.tgz")));
    EXPECT_EQ(fileExists(remote(bad)), c.fault != kGone);
    EXPECT_FALSE(fs::is_regular_file(local(bad)));
    EXPECT_TRUE(fileExists(remote("after.tgz")));
    EXPECT_FALSE(fileExists(local("after.tgz")) ||
                 fileExists(local("dump-name")));
    unlink(remote(bad).c_str());
  }
  // Only the wrong sum is recorded; the listed sum stands in the "has"
  // place, as the record's readers expect.
  EXPECT_THAT(
      log_.entries,
      ElementsAre("WrongMd5Sum: Problem during content retrieval: "
                  "downloaded " +
                  bad + " has MD5 sum " + wrongSum + ", but it has to be " +
                  realSum + ". Restarting download."));
}

// Hostile and malformed lists are refused before any fetch: see the
// end-to-end HostileListTest. Here the bounds of what the agent prints.
TEST_F(RetrieveContentActionTest, EndlessListAndFloodedErrorsAreBounded) {
  addArchive("fine.tgz", 100);
  ASSERT_EQ(symlink("/dev/zero", remote("contentlist.xml").c_str()), 0);
  EXPECT_EQ(failure(),
            "CantRetrieveContentList: Error during content list retrieval: "
            "the content list is longer than 67108864 bytes");
  writeFile(remote("failure"),
            "first line\n" + std::string(4 << 20, 'e') + "\nlast line\n");
  const std::string message = failure();
  EXPECT_LT(message.size(), 100000u);
  EXPECT_THAT(message,
              AllOf(StartsWith("CantRetrieveContentList: Error during "
                               "content list retrieval: first line\n"),
                    HasSubstr(" bytes left out "), EndsWith("\nlast line\n")));
  EXPECT_TRUE(fileExists(remote("fine.tgz")));
  EXPECT_FALSE(fileExists(local("fine.tgz")) || fileExists(local("dump-name")));
}

TEST_F(RetrieveContentActionTest, RemovalFailureIsOnlyLogged) {
  // Remotely proc/version is the kernel's file, which cat reads and rm
  // cannot remove; locally it is an ordinary new file.
  ASSERT_EQ(symlink("/proc", remote("proc").c_str()), 0);
  const std::string version = readFile("/proc/version");
  list_ = "<file size=\"" + std::to_string(version.size()) +
          "\">proc/version</file>";
  std::string b = addArchive("b.tgz", 2000);
  writeList(3000);
  Log4cppDebugLog debugLog(false, false);
  theDebugLog = &debugLog;
  LogCapture log("p.log");
  run();
  EXPECT_TRUE(readFile(local("proc/version")) == version &&
              readFile(local("b.tgz")) == b);
  EXPECT_TRUE(fileExists(local("dump-name")));
  EXPECT_THAT(log.lines(),
              ::testing::Contains(HasSubstr(
                  "Unable to remove remote file '" + remote("proc/version") +
                  "' from '127.0.0.1': rm: cannot remove")));
}

// A private 1 MiB tmpfs on the destination: free space nobody else changes.
// The total listed is its free space plus 0, plus 1, and plus 1 unchecked.
TEST_F(RetrieveContentActionTest, FreeSpaceEqualToTheTotalPasses) {
  const std::string dumps = path("dumps");
  mkdir(dumps.c_str(), 0755);
  cfg_.dumpsDir = dumps;
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_EQ(mount("tmpfs", dumps.c_str(), "tmpfs", 0, "size=1m"), 0);
  const int64_t free = static_cast<int64_t>(getFreeSpace(dumps));
  std::vector<std::string> outcomes;
  for (int extra : {0, 1, 2}) {
    addArchive("a.tgz", 5000);
    writeList(free + (extra > 0));
    cfg_.noCheckSpace = extra == 2;
    outcomes.push_back(failure());
    if (fileExists(remote("a.tgz"))) outcomes.back() += ", kept";
    unlink((dumps + "/a.tgz").c_str());
  }
  umount2(dumps.c_str(), MNT_DETACH);
  EXPECT_THAT(outcomes,
              ElementsAre("no error",
                          "NotEnoughSpace: Selected filesystem has only " +
                              std::to_string(free) + " free space, but " +
                              std::to_string(free + 1) +
                              " is needed for operation, kept",
                          "no error"));
}

// --- the progress figures ----------------------------------------------------

// At each save, the figures as they then stood.
struct SaveLog : XmlMigrationStatus {
  void setTransferSpeed(const std::string& s) override { speed = s; }
  void setTransferSizeLeft(const std::string& s) override { sizeLeft = s; }
  void setTransferCurrentFileSizeLeft(const std::string& s) override {
    current = s;
  }
  void saveFile() override {
    saved.push_back(speed + " " + sizeLeft + " " + current);
  }
  std::string speed, sizeLeft, current;
  std::vector<std::string> saved;
};

struct Watcher : TransferProgressListener {
  void transferProgress(const TransferFigures& f) override {
    seen.push_back(std::to_string(f.filesLeft) + "/" +
                   std::to_string(f.filesTotal) + " " +
                   std::to_string(f.sizeLeft) + "/" +
                   std::to_string(f.sizeTotal) + " " + std::to_string(f.speed));
  }
  std::vector<std::string> seen;
};

std::time_t nowSeconds = 1000;
std::time_t secondsClock() { return nowSeconds; }
int64_t nowMs = 50000;
int64_t msClock() { return nowMs; }

TEST(FileRetrievalProgressUpdaterTest, FiguresFollowEveryChunkSavesAreSpaced) {
  SaveLog status;
  Watcher watcher;
  theTransferProgressListener = &watcher;
  FileRetrievalProgressUpdater updater(status, 10000, 2, &secondsClock,
                                       &msClock);
  updater.startFile(4000);
  updater(1000);  // the first chunk is saved at once; speed 0 in second one
  nowMs += 99;
  updater.update(500);  // within the interval: figures only
  EXPECT_EQ(status.sizeLeft, "8500");
  EXPECT_EQ(updater.idle(), 1);
  nowMs += 1;
  EXPECT_EQ(updater.idle(), -1);  // saves what was held back
  EXPECT_EQ(updater.idle(), -1);  // nothing more
  nowSeconds = 1003;
  nowMs += 10;
  updater(1000);
  updater(1500);  // completes the file: always saved
  EXPECT_EQ(updater.fileDone(), 1);
  updater.startFile(1000);
  nowSeconds = 1004;
  nowMs += 10;
  updater(500);
  updater(600);  // beyond its listed size: every chunk saved
  updater(50);
  updater.startFile(std::nullopt);  // no size, no figures of its own
  updater(50);
  EXPECT_EQ(updater.transferred(), 5200);
  EXPECT_EQ(updater.sizeLeft(), 4800);
  nowMs += 100;
  updater.idle();
  EXPECT_THAT(status.saved, ElementsAre("0 9000 3000", "0 8500 2500",
                                        "1333 6000 0", "1275 4900 -100",
                                        "1287 4850 -150", "1300 4800 -150"));
  EXPECT_EQ(watcher.seen.size(), 10u);  // at the start, each chunk, file done
  EXPECT_EQ(watcher.seen.front() + watcher.seen[5] + watcher.seen.back(),
            "2/2 10000/10000 01/2 6000/10000 13331/2 4800/10000 1300");
  theTransferProgressListener = nullptr;
  updater(1);  // nobody watching
}

}  // namespace
}  // namespace tovel
