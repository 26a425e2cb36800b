// Content retrieval against the real sshd, with an agent in the remote
// agent directory that prints a content list of archives the test made;
// and the progress figures the transfer writes.
#include "actions/retrieve_content_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

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

namespace tovel {
namespace {

using ferrow_test::fileExists;
using ferrow_test::readFile;
using ferrow_test::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Appends "UID|ARGS" to "calls"; prints "failure" to standard error and
// fails when it exists, else prints contentlist.xml.
const char kAgentScript[] =
    "printf '%s|%s\\n' \"$(id -u)\" \"$*\" >> calls\n"
    "if [ -f failure ]; then cat failure >&2; exit 3; fi\n"
    "cat contentlist.xml\n";

// Records what reaches the run record.
class FakeLog : public Log {
 public:
  void setSuccess(bool) override {}
  void log(const ExTraceable& e) override {
    entries.push_back(e.code() + ": " + e.what());
  }
  void pushObject(const std::string&, const std::string&) override {}
  void popObject() override {}
  int getDepth() const override { return 0; }
  std::vector<std::string> entries;
};

class RetrieveContentActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);
    agentDir_ = dir_.path() + "/agent";
    const std::string product = dir_.path() + "/product";
    boost::filesystem::create_directories(agentDir_);
    boost::filesystem::create_directories(product + "/QVT/agents/fake/control");
    writeFile(product + "/QVT/agents/fake/control/spec",
              "EntryPoint: agent.sh\nInterpreter: /bin/sh\n");
    writeFile(dir_.path() + "/dyr.conf", "PRODUCT_ROOT_D " + product + "\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
    writeFile(remote("agent.sh"), kAgentScript);
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
    theLog = &log_;
    ferrow_test::loginAs(&cfg_, ferrow_test::rootAccount(), false);
    cfg_.agentDir = agentDir_;
    cfg_.agentName = "fake";
  }
  void TearDown() override {
    theSession = nullptr;
    theDebugLog = nullptr;
    theLog = nullptr;
    dyrConfResetForTesting(nullptr);
  }

  // Puts an archive into the remote agent directory and lists it with its
  // size and sum (or with sum, when given).
  std::string addArchive(const std::string& name, size_t size,
                         const char* sum = nullptr, int64_t listed = -1) {
    std::string bytes = ferrow_test::archiveBytes(size, unsigned(name.size()));
    boost::filesystem::create_directories(
        boost::filesystem::path(remote(name)).parent_path());
    writeFile(remote(name), bytes);
    listed_.push_back(
        "<file size=\"" + std::to_string(listed < 0 ? size : listed) + "\"" +
        (sum && !*sum ? "" : " md5sum=\"" + (sum ? sum : countMd5Sum(bytes)) + "\"") +
        ">" + name + "</file>");
    return bytes;
  }
  // Writes the list; the root's size is total.
  void writeList(int64_t total) {
    std::string xml = "<contentlist size=\"" + std::to_string(total) +
                      "\" unpacked=\"1\">";
    for (const std::string& file : listed_) xml += file;
    writeFile(remote("contentlist.xml"), xml + "</contentlist>");
    listed_.clear();
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
      if (e.inner() == nullptr) return "no cause";
      return e.inner()->code() + ": " + e.inner()->what();
    }
    return "no error";
  }

  std::string local(const std::string& name) const {
    return session_->getDir() + "/" + name;
  }
  std::string remote(const std::string& name) const {
    return agentDir_ + "/" + name;
  }

  ferrow_test::TempDir dir_;
  std::string agentDir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
  FakeLog log_;
  std::vector<std::string> listed_;
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
  EXPECT_TRUE(readFile(local("a.tgz")) == a);
  EXPECT_TRUE(readFile(local("sub/dir/b.tgz")) == b);
  // The agent directory is root's: only root could remove the archives.
  EXPECT_FALSE(fileExists(remote("a.tgz")));
  EXPECT_FALSE(fileExists(remote("sub/dir/b.tgz")));
  EXPECT_EQ(readFile(remote("calls")), "0|--get-content-list\n");
  EXPECT_EQ(readFile(local("dump-name")), local("dump.xml"));
  EXPECT_EQ(readFile(local("migration-result-name")),
            local("migration.result"));
  // New directories for the archives belong to the panel's account.
  struct stat info;
  ASSERT_EQ(stat(local("sub/dir").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755u);
  EXPECT_EQ(info.st_uid, getpwnam("dyradm")->pw_uid);
  EXPECT_EQ(info.st_gid, getpwnam("dyradm")->pw_gid);
  EXPECT_THAT(readFile(session_->getStatusFileName()), HasSubstr("<idle/>"));
}

TEST_F(RetrieveContentActionTest, SkipChecksTheSessionByBaseNameAndSum) {
  const std::string dumps = dir_.path() + "/dumps";
  mkdir(dumps.c_str(), 0700);
  cfg_.dumpsDir = dumps;
  std::string kept = addArchive("kept.tgz", 30000);
  addArchive("unsummed.tgz", 20000, "");
  std::string stale = addArchive("stale.tgz", 10000);
  std::string nested = addArchive("sub/nested.tgz", 5000);
  std::string deep = addArchive("sub/deep.tgz", 4000);
  std::string inDumps = addArchive("d.tgz", 3000);
  std::string odd = addArchive("y/dir.tgz", 2000);
  writeList(74000);
  // Copies left by an earlier run, looked for in the session directory by
  // base name only, whatever the destination.
  writeFile(local("kept.tgz"), kept);
  writeFile(local("unsummed.tgz"), "an earlier copy");
  writeFile(local("stale.tgz"), stale.substr(1));
  writeFile(local("nested.tgz"), nested);
  boost::filesystem::create_directories(local("sub"));
  writeFile(local("sub/deep.tgz"), deep);
  writeFile(dumps + "/d.tgz", inDumps);
  mkdir(local("dir.tgz").c_str(), 0755);  // a directory is no copy
  // Skipped archives stay in the size left; every file counts as done.
  EXPECT_THAT(run(), HasSubstr("left=\"0\" size-total=\"74000\" "
                               "size-left=\"35000\""));

  EXPECT_TRUE(fileExists(remote("kept.tgz")));
  EXPECT_TRUE(fileExists(remote("sub/nested.tgz")));
  EXPECT_FALSE(fileExists(dumps + "/kept.tgz"));
  EXPECT_FALSE(fileExists(dumps + "/sub/nested.tgz"));
  EXPECT_FALSE(fileExists(remote("unsummed.tgz")));
  EXPECT_EQ(readFile(dumps + "/unsummed.tgz").size(), 20000u);
  for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::string>>{
           {"stale.tgz", stale}, {"sub/deep.tgz", deep}, {"d.tgz", inDumps},
           {"y/dir.tgz", odd}}) {
    EXPECT_FALSE(fileExists(remote(name))) << name;
    EXPECT_TRUE(readFile(dumps + "/" + name) == bytes) << name;
  }
  EXPECT_EQ(readFile(local("unsummed.tgz")), "an earlier copy");
  EXPECT_EQ(readFile(local("dump-name")), dumps + "/dump.xml");
  EXPECT_EQ(readFile(local("migration-result-name")),
            dumps + "/migration.result");

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
    boost::filesystem::remove_all(local("sub"));
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
    EXPECT_FALSE(boost::filesystem::is_regular_file(local(bad)));
    EXPECT_TRUE(fileExists(remote("after.tgz")));
    EXPECT_FALSE(fileExists(local("after.tgz")));
    EXPECT_FALSE(fileExists(local("dump-name")));
    unlink(remote(bad).c_str());
  }
  // Only the wrong sum is recorded; the listed sum stands in the "has"
  // place, as the record's readers expect.
  EXPECT_THAT(log_.entries,
              ElementsAre("WrongMd5Sum: Problem during content retrieval: "
                          "downloaded " + bad + " has MD5 sum " + wrongSum +
                          ", but it has to be " + realSum +
                          ". Restarting download."));
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
  EXPECT_THAT(message, StartsWith("CantRetrieveContentList: Error during "
                                  "content list retrieval: first line\n"));
  EXPECT_THAT(message, HasSubstr(" bytes left out "));
  EXPECT_THAT(message, ::testing::EndsWith("\nlast line\n"));
  EXPECT_TRUE(fileExists(remote("fine.tgz")));
  EXPECT_FALSE(fileExists(local("fine.tgz")));
  EXPECT_FALSE(fileExists(local("dump-name")));
}

TEST_F(RetrieveContentActionTest, RemovalFailureIsOnlyLogged) {
  // Remotely proc/version is the kernel's file, which cat reads and rm
  // cannot remove; locally it is an ordinary new file.
  ASSERT_EQ(symlink("/proc", remote("proc").c_str()), 0);
  const std::string version = readFile("/proc/version");
  listed_.push_back("<file size=\"" + std::to_string(version.size()) +
                    "\">proc/version</file>");
  std::string b = addArchive("b.tgz", 2000);
  writeList(3000);
  Log4cppDebugLog debugLog(false, false);
  theDebugLog = &debugLog;
  ferrow_test::LogCapture log("p.log");
  run();
  EXPECT_EQ(readFile(local("proc/version")), version);
  EXPECT_TRUE(readFile(local("b.tgz")) == b);
  EXPECT_TRUE(fileExists(local("dump-name")));
  std::string logged;
  for (const std::string& line : log.lines()) logged += line + "\n";
  EXPECT_THAT(logged, HasSubstr("Unable to remove remote file '" +
                                remote("proc/version") +
                                "' from '127.0.0.1': rm: cannot remove"));
}

// In a forked child with a private 1 MiB tmpfs on the destination, lists a
// total of its free space plus 0, plus 1, and plus 1 with the check off.
TEST_F(RetrieveContentActionTest, FreeSpaceEqualToTheTotalPasses) {
  const std::string dumps = dir_.path() + "/dumps";
  mkdir(dumps.c_str(), 0755);
  cfg_.dumpsDir = dumps;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t pid = fork();
  if (pid == 0) {
    std::string report;
    const bool mounted =
        unshare(CLONE_NEWNS) == 0 &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tmpfs", dumps.c_str(), "tmpfs", 0, "size=1m") == 0;
    const int64_t free = static_cast<int64_t>(getFreeSpace(dumps));
    for (int extra = 0; mounted && extra < 3; ++extra) {
      addArchive("a.tgz", 5000);
      writeList(free + (extra > 0));
      cfg_.noCheckSpace = extra == 2;
      std::string outcome = failure();
      if (fileExists(remote("a.tgz"))) outcome += ", remote kept";
      report += outcome + "|";
      unlink((dumps + "/a.tgz").c_str());
    }
    report += mounted ? std::to_string(free) : "no private tmpfs";
    ssize_t ignored = write(fds[1], report.data(), report.size());
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  std::string report;
  char buffer[4096];
  for (ssize_t got; (got = read(fds[0], buffer, sizeof buffer)) > 0;) {
    report.append(buffer, got);
  }
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  std::string free = report.substr(report.rfind('|') + 1);
  EXPECT_EQ(report, "no error|NotEnoughSpace: Selected filesystem has only " +
                        free + " free space, but " +
                        std::to_string(std::stoll("0" + free) + 1) +
                        " is needed for operation, remote kept|no error|" +
                        free);
}

// --- the progress figures ----------------------------------------------------

// Keeps the figures as set and, at each save, them as they then stood.
class SaveLog : public MigrationStatus {
 public:
  void setIdle() override {}
  void setAgentParams(const std::string&) override {}
  void setAgentOperation(agentOperation) override {}
  void setTransferSpeed(const std::string& s) override { speed = s; }
  void setTransferDump() override {}
  void setTransferTotals(const std::string&, const std::string&) override {}
  void setTransferFilesLeft(const std::string&) override {}
  void setTransferSizeLeft(const std::string& s) override { sizeLeft = s; }
  void setCurrentFile(const std::string&, const std::string&) override {}
  void setTransferCurrentFileSizeLeft(const std::string& s) override {
    currentLeft = s;
  }
  void setDeployTotals(const std::string&, const std::string&) override {}
  void setDeploy(const std::string&, const std::string&) override {}
  void setCurrentObject(const std::string&, objectType) override {}
  void setTranslate() override {}
  void saveFile() override {
    saved.push_back(speed + " " + sizeLeft + " " + currentLeft);
  }
  std::string speed, sizeLeft, currentLeft;
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

std::time_t nowSeconds = 0;
std::time_t secondsClock() { return nowSeconds; }
int64_t nowMs = 0;
int64_t msClock() { return nowMs; }

TEST(FileRetrievalProgressUpdaterTest, FiguresFollowEveryChunkSavesAreSpaced) {
  SaveLog status;
  Watcher watcher;
  theTransferProgressListener = &watcher;
  nowSeconds = 1000;
  nowMs = 50000;
  FileRetrievalProgressUpdater updater(status, 10000, 2, &secondsClock,
                                       &msClock);
  updater.startFile(4000);
  updater(1000);  // the first chunk is saved at once; speed 0 in second one
  nowMs += 99;
  updater.update(500);  // within the interval: figures only
  EXPECT_EQ(status.sizeLeft, "8500");
  nowSeconds = 1003;
  nowMs += 1;
  updater(1000);  // an interval since the last save
  nowMs += 10;
  updater(1500);  // completes the file: always saved
  EXPECT_EQ(updater.fileDone(), 1);
  updater.startFile(1000);
  nowSeconds = 1004;
  nowMs += 10;
  updater(500);
  updater(600);  // beyond its listed size: every chunk saved
  updater(50);
  EXPECT_EQ(updater.transferred(), 5150);
  EXPECT_EQ(updater.sizeLeft(), 4850);
  EXPECT_THAT(status.saved,
              ElementsAre("0 9000 3000", "833 7500 1500", "1333 6000 0",
                          "1275 4900 -100", "1287 4850 -150"));
  EXPECT_EQ(watcher.seen.front(), "2/2 10000/10000 0");  // before any byte
  EXPECT_EQ(watcher.seen.size(), 9u);  // each chunk, and the file done
  EXPECT_EQ(watcher.seen[5], "1/2 6000/10000 1333");
  EXPECT_EQ(watcher.seen.back(), "1/2 4850/10000 1287");
  theTransferProgressListener = nullptr;
  FileRetrievalProgressUpdater unwatched(status, 10, 1, &secondsClock,
                                         &msClock);
  unwatched(10);
  EXPECT_EQ(unwatched.fileDone(), 0);
}

}  // namespace
}  // namespace tovel
