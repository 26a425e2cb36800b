// The actions in-process against the real sshd, agents being shell scripts.
#include "actions/action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "actions/agent_commands.h"
#include "actions/archive_stream.h"
#include "actions/dumping_status_pull.h"
#include "actions/remove_dumping_status_action.h"
#include "actions/retrieval_errors.h"
#include "actions/retrieve_content_action.h"
#include "actions/retrieve_dump_action.h"
#include "agents/agent.h"
#include "commons/checksum.h"
#include "commons/dyr_conf.h"
#include "commons/free_space.h"
#include "commons/session_files.h"
#include "log/debug_log.h"
#include "log/run_log.h"
#include "support/ferrow_runner.h"
#include "support/source_login.h"
#include "xml/migration_status.h"
#include "xml/xml_document.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using ferrow_test::fileExists;
using ferrow_test::readFile;
using ferrow_test::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class TestAction : public Action {
 public:
  explicit TestAction(const RunContext& run) : Action(run, false) {}
  void execute() override {}
  using Action::getSsh;
  using Action::takeFile;
  // Standard output of command, run as root or as the login.
  std::string run(bool root, const std::string& command,
                  const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out, err;
    if (root) execRoot(command, in, out, err, false, false);
    if (!root) execUser(command, in, out, err, false, false);
    return out.str();
  }
};

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
    record_ = std::make_unique<XmlLog>(*session_, "", debugLog_);
    configure(ferrow_test::rootAccount(), false);
    cfg_.agentDir = path("agent");
    cfg_.sessionPath = session_->getDir();
    fs::create_directories(cfg_.agentDir);
    action_ = std::make_unique<TestAction>(context());
  }
  void TearDown() override { dyrConfResetForTesting(nullptr); }
  RunContext context() {
    return {cfg_, *session_, *record_, debugLog_, nullptr};
  }
  void configure(const ferrow_test::TestAccount& account, bool sudo) {
    const std::string none;  // root's sudo asks for no password
    ferrow_test::loginAs(&cfg_, account, sudo, &none);
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
  // Agent name (one per test: names are cached per process) runs script,
  // put in the remote agent directory, with /bin/sh.
  void installAgent(const std::string& name, const std::string& script) {
    fs::path spec(path("product/QVT/agents/" + name + "/control/spec"));
    fs::create_directories(spec.parent_path());
    writeFile(spec.string(), "EntryPoint: agent.sh\nInterpreter: /bin/sh\n");
    writeFile(remote("agent.sh"), script);
    cfg_.agentName = name;
  }
  // "MODE UID GID" of path, the mode in octal.
  static std::string statOf(const std::string& path) {
    struct stat info = {};
    char text[64];
    stat(path.c_str(), &info);
    snprintf(text, sizeof text, "%o %u %u", info.st_mode & 07777, info.st_uid,
             info.st_gid);
    return text;
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
  Log4cppDebugLog debugLog_{false, false};
  std::unique_ptr<XmlLog> record_;
  std::unique_ptr<TestAction> action_;
};

TEST_F(ActionTest, RootCommandsAsRootOrThroughSudoWithThePasswordLineFirst) {
  auto log = std::make_unique<ferrow_test::LogCapture>("p.Ssh");
  auto executed = [&] {  // commands run on the source
    size_t count = 0;
    for (const std::string& line : log->lines())
      count += line.rfind("Executing ", 0) == 0;
    return count;
  };
  EXPECT_EQ(action_->run(true, "id -u") + action_->run(false, "id -u"),
            "0\n0\n");
  EXPECT_EQ(executed(), 2u);  // no sudo for a root login
  // root's own sudo asks for no password: the input, one byte here (a
  // chunk of one), reaches the command once.
  configure(ferrow_test::rootAccount(), true);
  EXPECT_EQ(action_->run(true, "head -c 2", "z"), "z");

  const passwd* user = getpwnam(ferrow_test::sudoAccount().name.c_str());
  ferrow_test::loginAs(&cfg_, ferrow_test::sudoAccount(), true);
  cfg_.agentDir = path("agent");
  TestAction sudo(context());
  log = std::make_unique<ferrow_test::LogCapture>("p.Ssh");
  EXPECT_EQ(sudo.run(true, "cat", "first\nsecond"), "first\nsecond");
  EXPECT_EQ(sudo.run(true, "head -c 2", "z"), "z");  // after the password
  EXPECT_EQ(sudo.run(true, "id -u") + sudo.run(false, "id -u"),
            "0\n" + std::to_string(user->pw_uid) + "\n");
  EXPECT_EQ(executed(), 6u);  // sudo checked once
  const std::string file = path("written by root");
  sudo.run(true, "touch '" + file + "'");
  sudo.takeFile(file);
  EXPECT_EQ(statOf(file), "644 " + std::to_string(user->pw_uid) + " 0");
  EXPECT_THROW(sudo.takeFile(file + "/none"), Exc<&CantTakeFileOwnership>);
}

TEST_F(ActionTest, StatusPullsKeepTheLastGoodAndADumpPullsOnceAfter5s) {
  const std::string local = session_->getDumpingStatusFileName();
  const std::string remote = this->remote("dumping-status.xml");
  DumpingStatusPull pull(*action_->getSsh(), remote, local);
  writeFile(local, "<status n='0'/>");
  EXPECT_TRUE(pull());  // nothing on the source yet: the last good copy stays
  EXPECT_EQ(readFile(local), "<status n='0'/>");
  writeFile(remote, "<status n='1'/>");
  EXPECT_TRUE(pull());
  EXPECT_EQ(readFile(local), "<status n='1'/>");
  // A copy that cannot be kept ends the pulls.
  EXPECT_FALSE(DumpingStatusPull(*action_->getSsh(), remote, path("no/s"))());

  RemoveDumpingStatusAction remove(context());
  remove.execute();
  remove.execute();  // nothing left: no error
  EXPECT_FALSE(fileExists(remote));

  // The status written last must not be what the session shows: only a
  // pull during the dump, 5 s after its start, can have copied the first.
  installAgent("dump",
               "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > argv.txt\n"
               "cat >> argv.txt\n"
               "printf '<s n=\"1\"/>' > dumping-status.xml; sleep 6\n"
               "printf '<s n=\"2\"/>' > dumping-status.xml\n"
               "printf '<dump/>' > dump.xml\n");
  writeFile(session_->getDumpFileName(), "an older and longer dump file");
  cfg_.noContent = 1;
  struct : RetrieveDumpAction {
    using Action::execUser;
    using RetrieveDumpAction::RetrieveDumpAction;
  } dump{context(), {"--odd word; $(x) 'q'"}, "a.example\n"};
  ferrow_test::LogCapture ssh("p.Ssh");
  dump.execute();
  EXPECT_EQ(readFile(this->remote("argv.txt")),
            "--odd word; $(x) 'q'\n--no-content\na.example\n");
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump/>");
  // No tick outlives the dump: a later command on its connection pulls
  // nothing.
  std::istringstream none;
  std::ostringstream out;
  dump.execUser("sleep 5.5", none, out, out, false, false);
  EXPECT_EQ(readFile(local), "<s n=\"1\"/>");
  const std::vector<std::string> lines = ssh.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "Reading data to the file " + local + ".tmp"),
            1);
}

class RetrieveContentActionTest : public ActionTest {
 protected:
  // Logs "UID|ARGS" to "calls"; fails printing "failure" if it exists.
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
  void writeList(int64_t total) {
    writeFile(remote("contentlist.xml"),
              "<contentlist size=\"" + std::to_string(total) +
                  "\" unpacked=\"1\">" + list_ + "</contentlist>");
    list_.clear();
  }
  std::string run() {
    RetrieveContentAction action(context());
    action.execute();
    return ferrow_test::compactXml(readFile(session_->getStatusFileName()));
  }
  std::string failure() {
    try {
      run();
    } catch (const Exc<&CantRetrieveDump>& e) {
      return e.inner() ? e.inner()->code() + ": " + e.inner()->what() : "?";
    }
    return "no error";
  }
  std::string list_;
};

// Through sudo into --dumps-dir; earlier copies sought in the session only.
TEST_F(RetrieveContentActionTest, SudoFetchSkipsSoundCopiesOfTheSession) {
  ferrow_test::loginAs(&cfg_, ferrow_test::sudoAccount(), true);
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
  writeFile(local("kept.tgz"), kept);
  writeFile(local("unsummed.tgz"), "an earlier copy");
  writeFile(local("stale.tgz"), fetched[0].second.substr(1));
  writeFile(local("nested.tgz"), nested);
  fs::create_directories(local("sub"));
  writeFile(local("sub/deep.tgz"), fetched[1].second);
  writeFile(dumps + "/d.tgz", fetched[2].second);
  mkdir(local("dir.tgz").c_str(), 0755);  // a directory is no copy
  // Skipped archives stay in the size left; every file counts as done.
  EXPECT_THAT(run(), HasSubstr("<host>127.0.0.1</host><files total=\"7\" "
                               "left=\"0\" size-total=\"73000\" "
                               "size-left=\"35000\">"));
  EXPECT_EQ(readFile(remote("calls")), "0|--get-content-list\n");
  EXPECT_TRUE(fileExists(remote("kept.tgz")) &&
              fileExists(remote("sub/nested.tgz")));
  EXPECT_FALSE(fileExists(dumps + "/kept.tgz") ||
               fileExists(dumps + "/sub/nested.tgz"));
  EXPECT_EQ(readFile(dumps + "/unsummed.tgz").size(), 20000u);
  EXPECT_EQ(readFile(local("unsummed.tgz")), "an earlier copy");
  // The agent directory is root's: only root could remove the archives.
  fetched.emplace_back("unsummed.tgz", readFile(dumps + "/unsummed.tgz"));
  for (const auto& [name, bytes] : fetched) {
    EXPECT_FALSE(fileExists(remote(name))) << name;
    EXPECT_TRUE(readFile(dumps + "/" + name) == bytes) << name;
  }
  EXPECT_EQ(
      readFile(local("dump-name")) + readFile(local("migration-result-name")),
      dumps + "/dump.xml" + dumps + "/migration.result");
  // New directories for the archives belong to the panel's account.
  const passwd* panel = getpwnam("dyradm");
  EXPECT_EQ(statOf(dumps + "/y"), "755 " + std::to_string(panel->pw_uid) + " " +
                                      std::to_string(panel->pw_gid));
}

// An unsound copy keeps its source archive and those after it; the one
// before it, in the same stream, stays fetched.
TEST_F(RetrieveContentActionTest, UnsoundCopyKeepsTheSourceArchive) {
  const std::string bad = "sub/bad.tgz";
  // clang-format off
  const struct { size_t size; int64_t listed; const char* sum; bool blocked, missing; std::string why; } cases[] = {
      {1000, 999, nullptr, false, false, "received more than 999 bytes"},
      {100, 100, nullptr, true, false, "cannot create " + local(bad) + ": Not a directory"},
      {100, 100, nullptr, false, true, "cannot open " + remote(bad) + ": No such file or directory"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    fs::remove_all(local("sub"));
    unlink(local("first.tgz").c_str());  // else skipped as a sound copy
    std::string first = addArchive("first.tgz", 3000);
    addArchive(bad, c.size, c.sum, c.listed);
    if (c.blocked) writeFile(local("sub"), "in the way");
    if (c.missing) unlink(remote(bad).c_str());
    addArchive("after.tgz", 100);
    writeFile(local("after.tgz"), "an older copy, not touched");
    writeList(200000);
    EXPECT_EQ(failure(), "CantRetrieveContentFile: Failed to retrieve file '" +
                             remote(bad) + "' from '127.0.0.1' to '" +
                             local(bad) + "': " + c.why);
    EXPECT_TRUE(readFile(local("first.tgz")) == first);
    EXPECT_FALSE(fileExists(remote("first.tgz")) ||
                 fs::is_regular_file(local(bad)) ||
                 fileExists(local("dump-name")));
    EXPECT_EQ(readFile(local("after.tgz")), "an older copy, not touched");
    EXPECT_TRUE((c.missing || fileExists(remote(bad))) &&
                fileExists(remote("after.tgz")));
  }
}

TEST_F(RetrieveContentActionTest, RemovalFailureIsOnlyLogged) {
  // proc/version: cat reads it, rm cannot remove it.
  ASSERT_EQ(symlink("/proc", remote("proc").c_str()), 0);
  const std::string version = readFile("/proc/version");
  list_ = "<file size=\"" + std::to_string(version.size()) +
          "\">proc/version</file>";
  writeList(3000);
  ferrow_test::LogCapture log("p.log");
  run();
  EXPECT_TRUE(readFile(local("proc/version")) == version);
  EXPECT_THAT(log.lines(),
              ::testing::Contains(HasSubstr(
                  "Unable to remove remote file '" + remote("proc/version") +
                  "' from '127.0.0.1': Operation not permitted")));
}

// A private 1 MiB tmpfs on the destination: free space nobody else changes.
TEST_F(RetrieveContentActionTest, FreeSpaceEqualToTheTotalPasses) {
  cfg_.dumpsDir = path("dumps");
  mkdir(cfg_.dumpsDir.c_str(), 0755);
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_EQ(mount("tmpfs", cfg_.dumpsDir.c_str(), "tmpfs", 0, "size=1m"), 0);
  addArchive("a.tgz", 5000);
  writeList(static_cast<int64_t>(getFreeSpace(cfg_.dumpsDir)));
  EXPECT_EQ(failure(), "no error");
  umount2(cfg_.dumpsDir.c_str(), MNT_DETACH);
}

// At each save, the figures as they then stood.
struct SaveLog : XmlMigrationStatus {
  SaveLog() : XmlMigrationStatus("", {}) {}
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

std::time_t nowSeconds = 1000;
std::time_t secondsClock() { return nowSeconds; }
int64_t nowMs = 50000;
int64_t msClock() { return nowMs; }

TEST(FileRetrievalProgressUpdaterTest, FiguresFollowEveryChunkSavesAreSpaced) {
  SaveLog status;
  FileRetrievalProgressUpdater updater(status, nullptr, 10000, 2, &secondsClock,
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
  updater(2500);  // completes the file, within the interval: held back
  EXPECT_EQ(updater.fileDone(), 1);
  updater.changed();  // nor does another change save
  updater.flush();    // but the end of the transfer does
  updater.flush();
  updater.startFile(1000, 300);  // 300 kept: left at once, not in the speed
  updater.flush();
  nowSeconds = 1004;
  nowMs += 100;
  updater(800);  // the interval has passed
  updater.startFile(std::nullopt);  // no size, no figures of its own
  nowMs += 100;
  updater(50);
  updater.refetch(1000);  // all of it again: left again, not in the speed
  EXPECT_EQ(updater.transferred(), 4850);
  EXPECT_EQ(updater.sizeLeft(), 5850);
  EXPECT_THAT(status.saved, ElementsAre("0 9000 3000", "0 8500 2500",
                                        "1333 6000 0", "1333 5700 700",
                                        "1200 4900 -100", "1212 4850 -100"));
  updater.flush();
  EXPECT_EQ(status.saved.back(), "1212 5850 -100");
}

// Each line as a shell runs it: the directory stays one word, whatever
// it holds; a plain one is spelt as it always was; the archive stream's
// program reaches perl whole.
TEST(AgentCommandsTest, TheAgentDirectoryIsOneWordInEveryLine) {
  ferrow_test::TempDir tmp;
  writeFile(tmp.path() + "/spec", "EntryPoint: a.sh\nInterpreter: echo\n");
  const Agent agent("x", tmp.path() + "/spec");
  const AgentCommands plain("/srv/ag");
  EXPECT_EQ(plain.inAgentDir("rm x") + "|" + plain.statusRequest(agent),
            "sh -c cd\\ /srv/ag\\;\\ rm\\ x|sh -c cd\\ /srv/ag\\ \\&\\&\\ "
            "echo\\ /srv/ag/a.sh\\ --get-status");
  for (const std::string& dir :
       {tmp.path() + "/ag", tmp.path() + "/a b'\"$(x);`y` &\n"}) {
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const AgentCommands c(dir);
    const std::string words = "printf '[%s]' ";
    const std::pair<std::string, std::string> rows[] = {
        {c.inAgentDir("pwd"), dir + "\n"},
        {c.statusRequest(agent), dir + "/a.sh --get-status\n"},
        {c.agentLine(agent, {"--x y"}), dir + "/a.sh --x y\n"},
        {words + c.removeAgentDir(), "[rm][-rf][" + dir + "]"},
        {words + AgentCommands::makeDir(c.dumpFile()),
         "[mkdir][-p][" + dir + "/dump.xml]"},
        {words + AgentCommands::giveTo("u", c.dumpingStatusFile()),
         "[chown][u][" + dir + "/dumping-status.xml]"},
        {words + AgentCommands::removeFile(c.path("f")), "[rm][" + dir + "/f]"},
        {words + AgentCommands::streamArchives({c.path("a,b"), c.path("{c}")},
                                               {0, 7}),
         "[perl][-e][" + archiveStreamProgram() + "][--][0,7][" + dir +
             "/a,b][" + dir + "/{c}]"},
    };
    // bash, as many a login shell, also expands "{x,y}" words.
    for (const char* shell : {"sh", "bash"})
      for (const auto& [line, shown] : rows)
        EXPECT_EQ(ferrow_test::runCommand({shell, "-c", line}).out, shown)
            << shell << " " << line;
  }
}

}  // namespace
}  // namespace tovel
