// Content retrieval against the real sshd, with a fake agent in the remote
// agent directory that prints a content list of archives the test made.
#include "actions/retrieve_content_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
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
#include "support/sshd_server.h"
#include "support/test_bytes.h"

namespace tovel {
namespace {

using ferrow_test::archiveBytes;
using ferrow_test::fileExists;
using ferrow_test::LogCapture;
using ferrow_test::readFile;
using ferrow_test::SshdServer;
using ferrow_test::TestAccount;
using ferrow_test::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Prints contentlist.xml of its directory, unless "failure" holds an error
// text to print instead; "delay" holds seconds to wait first. Every call
// appends "UID|ARGS" to "calls".
const char kAgentScript[] =
    "printf '%s|%s\\n' \"$(id -u)\" \"$*\" >> calls\n"
    "if [ -f delay ]; then sleep \"$(cat delay)\"; fi\n"
    "if [ -f failure ]; then cat failure >&2; exit 3; fi\n"
    "cat contentlist.xml\n";

struct Listed {
  std::string name;
  uint64_t size;
  std::string md5sum;
};

// --- one document of "migration.status" as a reader sees it ----------------

struct XmlDocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

xmlNode* firstElement(xmlNode* node) {
  for (; node != nullptr; node = node->next) {
    if (node->type == XML_ELEMENT_NODE) return node;
  }
  return nullptr;
}

xmlNode* child(xmlNode* parent, const char* name) {
  for (xmlNode* n = firstElement(parent->children); n != nullptr;
       n = firstElement(n->next)) {
    if (xmlStrcmp(n->name, BAD_CAST name) == 0) return n;
  }
  return nullptr;
}

std::string attribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, BAD_CAST name);
  if (value == nullptr) return "<none>";
  std::string text(reinterpret_cast<char*>(value));
  xmlFree(value);
  return text;
}

std::string textOf(xmlNode* node) {
  xmlChar* content = xmlNodeGetContent(node);
  std::string text(reinterpret_cast<char*>(content));
  xmlFree(content);
  return text;
}

struct StatusView {
  bool complete = false;
  std::string phase;  // "idle", "dumpfile", "files" or what else was found
  std::string host, total, left, sizeTotal, sizeLeft;
  std::string currentFile, currentSize, currentSizeLeft;
};

StatusView viewStatus(const std::string& text) {
  StatusView view;
  std::unique_ptr<xmlDoc, XmlDocFree> doc(
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr,
                    nullptr, XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  if (root == nullptr) return view;
  view.complete = xmlStrcmp(root->name, BAD_CAST "migration-status") == 0;
  xmlNode* top = firstElement(root->children);
  if (top == nullptr) return view;
  view.phase = reinterpret_cast<const char*>(top->name);
  if (view.phase != "transfer") return view;
  if (xmlNode* host = child(top, "host")) view.host = textOf(host);
  if (child(top, "dumpfile") != nullptr) view.phase = "dumpfile";
  xmlNode* files = child(top, "files");
  if (files == nullptr) return view;
  view.phase = "files";
  view.total = attribute(files, "total");
  view.left = attribute(files, "left");
  view.sizeTotal = attribute(files, "size-total");
  view.sizeLeft = attribute(files, "size-left");
  if (xmlNode* current = child(files, "current-file")) {
    view.currentFile = textOf(current);
    view.currentSize = attribute(current, "size");
    view.currentSizeLeft = attribute(current, "size-left");
  }
  return view;
}

// --- the fixture -------------------------------------------------------------

class RetrieveContentActionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }

  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);
    agentDir_ = dir_.path() + "/agent";
    mkdir(agentDir_.c_str(), 0755);
    writeFile(agentDir_ + "/agent.sh", kAgentScript);
    installAgentSpec();
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
    configure(ferrow_test::rootAccount(), false);
  }

  void TearDown() override {
    theSession = nullptr;
    theDebugLog = nullptr;
    theLog = nullptr;
    dyrConfResetForTesting(nullptr);
  }

  // The catalogue entry "fakeagent" runs agent.sh with /bin/sh.
  void installAgentSpec() {
    std::string product = dir_.path() + "/product";
    std::string control = product + "/QVT/agents/fakeagent/control";
    boost::filesystem::create_directories(control);
    writeFile(control + "/spec",
              "EntryPoint: agent.sh\nInterpreter: /bin/sh\n");
    writeFile(dir_.path() + "/dyr.conf", "PRODUCT_ROOT_D " + product + "\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
  }

  void configure(const TestAccount& account, bool sudo) {
    ferrow_test::loginAs(&cfg_, account, sudo);
    cfg_.agentDir = agentDir_;
    cfg_.agentName = "fakeagent";
  }

  // Puts an archive into the remote agent directory and lists it with its
  // true size and sum (or with `listedSum` when given).
  std::string addArchive(const std::string& name, size_t size,
                         const char* listedSum = nullptr) {
    std::string bytes = archiveBytes(
        size, static_cast<unsigned>(std::hash<std::string>()(name)));
    std::string path = agentDir_ + "/" + name;
    boost::filesystem::create_directories(
        boost::filesystem::path(path).parent_path());
    chmod(boost::filesystem::path(path).parent_path().c_str(), 0755);
    writeFile(path, bytes);
    chmod(path.c_str(), 0644);
    listed_.push_back({name, size, listedSum ? listedSum : countMd5Sum(bytes)});
    return bytes;
  }

  // Writes contentlist.xml; the root's size is the listed sizes' sum
  // unless given.
  void writeList(int64_t totalSize = -1) {
    std::ostringstream xml;
    int64_t sum = 0;
    for (const Listed& f : listed_) sum += f.size;
    xml << "<contentlist size=\"" << (totalSize < 0 ? sum : totalSize)
        << "\" unpacked=\"" << 3 * sum << "\">\n";
    for (const Listed& f : listed_) {
      xml << "  <file size=\"" << f.size << "\"";
      if (!f.md5sum.empty()) xml << " md5sum=\"" << f.md5sum << "\"";
      xml << ">" << f.name << "</file>\n";
    }
    xml << "</contentlist>\n";
    writeFile(agentDir_ + "/contentlist.xml", xml.str());
  }

  // Runs a fresh action on cfg_; the status as it was right after
  // execute() (the action's destruction then shows idle again).
  StatusView run() {
    RetrieveContentAction action;
    action.setConfig(&cfg_);
    action.execute();
    return viewStatus(readFile(session_->getStatusFileName()));
  }

  // The error that run() ended with, checked to be the dump retrieval
  // wrapper; its cause's message.
  std::string failure() {
    try {
      run();
    } catch (const Exc<&CantRetrieveDump>& e) {
      EXPECT_STREQ(e.what(), "Error during dump retrieval");
      if (e.inner() == nullptr) return "no cause";
      return e.inner()->code() + ": " + e.inner()->what();
    }
    return "no error";
  }

  std::string sessionFile(const std::string& name) const {
    return session_->getDir() + "/" + name;
  }
  std::string remote(const std::string& name) const {
    return agentDir_ + "/" + name;
  }

  ferrow_test::TempDir dir_;
  std::string agentDir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
  std::vector<Listed> listed_;
};

std::vector<std::string> executed(const LogCapture& log) {
  std::vector<std::string> lines;
  for (const std::string& line : log.lines()) {
    if (line.rfind("Executing ", 0) == 0) lines.push_back(line);
  }
  return lines;
}

TEST_F(RetrieveContentActionTest, FetchesRemovesAndPointsToTheDump) {
  std::string a = addArchive("a.tgz", 200000);
  std::string b = addArchive("sub/dir/b.tgz", 70000);
  writeList();
  LogCapture ssh("p.Ssh");
  StatusView status = run();

  EXPECT_TRUE(readFile(sessionFile("a.tgz")) == a);
  EXPECT_TRUE(readFile(sessionFile("sub/dir/b.tgz")) == b);
  EXPECT_FALSE(fileExists(remote("a.tgz")));
  EXPECT_FALSE(fileExists(remote("sub/dir/b.tgz")));
  EXPECT_EQ(readFile(sessionFile("dump-name")),
            session_->getDir() + "/dump.xml");
  EXPECT_EQ(readFile(sessionFile("migration-result-name")),
            session_->getDir() + "/migration.result");
  EXPECT_EQ(readFile(remote("calls")), "0|--get-content-list\n");

  // New directories for the archives belong to the panel's account.
  struct stat info;
  ASSERT_EQ(stat(sessionFile("sub/dir").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755u);
  const passwd* panel = getpwnam("dyradm");
  EXPECT_EQ(info.st_uid, panel->pw_uid);
  EXPECT_EQ(info.st_gid, panel->pw_gid);

  const std::string cd = "Executing sh -c cd\\ " + agentDir_ + "\\;\\ ";
  EXPECT_THAT(
      executed(ssh),
      ElementsAre(
          cd + "/bin/sh\\ " + agentDir_ + "/agent.sh\\ --get-content-list" +
              " on the remote host",
          "Executing cat " + remote("a.tgz") + " on the remote host",
          cd + "rm\\ " + remote("a.tgz") + " on the remote host",
          "Executing cat " + remote("sub/dir/b.tgz") + " on the remote host",
          cd + "rm\\ " + remote("sub/dir/b.tgz") + " on the remote host"));

  ASSERT_TRUE(status.complete);
  EXPECT_EQ(status.phase, "files");
  EXPECT_EQ(status.host, "127.0.0.1");
  EXPECT_EQ(status.total, "2");
  EXPECT_EQ(status.left, "0");
  EXPECT_EQ(status.sizeTotal, "270000");
  EXPECT_EQ(status.sizeLeft, "0");
  EXPECT_EQ(status.currentFile, "sub/dir/b.tgz");
  EXPECT_EQ(status.currentSize, "70000");
  EXPECT_EQ(status.currentSizeLeft, "0");
  EXPECT_THAT(readFile(session_->getStatusFileName()), HasSubstr("<idle/>"));
}

TEST_F(RetrieveContentActionTest, SudoListsAndRemovesAsRoot) {
  configure(ferrow_test::sudoAccount(), true);
  std::string a = addArchive("a.tgz", 50000);
  std::string b = addArchive("sub/b.tgz", 1000);
  writeList();
  run();
  EXPECT_TRUE(readFile(sessionFile("a.tgz")) == a);
  EXPECT_TRUE(readFile(sessionFile("sub/b.tgz")) == b);
  // The agent directory is root's: only root could remove its files.
  EXPECT_FALSE(fileExists(remote("a.tgz")));
  EXPECT_FALSE(fileExists(remote("sub/b.tgz")));
  EXPECT_EQ(readFile(remote("calls")), "0|--get-content-list\n");
}

TEST_F(RetrieveContentActionTest, RerunSkipsLocalCopiesWithTheListedSum) {
  std::string kept = addArchive("kept.tgz", 30000);
  addArchive("unsummed.tgz", 20000, "");
  std::string stale = addArchive("stale.tgz", 10000);
  std::string nested = addArchive("sub/nested.tgz", 5000);
  std::string deep = addArchive("sub/deep.tgz", 4000);
  writeList();
  // Copies left by an earlier run. The skip test looks in the session
  // directory by base name only: sub/nested.tgz is found as nested.tgz,
  // while a copy at sub/deep.tgz itself is not looked at.
  writeFile(sessionFile("kept.tgz"), kept);
  writeFile(sessionFile("unsummed.tgz"), "an earlier copy");
  writeFile(sessionFile("stale.tgz"), stale.substr(1));
  writeFile(sessionFile("nested.tgz"), nested);
  boost::filesystem::create_directories(sessionFile("sub"));
  writeFile(sessionFile("sub/deep.tgz"), deep);
  LogCapture ssh("p.Ssh");
  StatusView status = run();

  EXPECT_TRUE(fileExists(remote("kept.tgz")));
  EXPECT_TRUE(fileExists(remote("sub/nested.tgz")));
  EXPECT_FALSE(fileExists(remote("unsummed.tgz")));
  EXPECT_FALSE(fileExists(remote("stale.tgz")));
  EXPECT_FALSE(fileExists(remote("sub/deep.tgz")));
  EXPECT_EQ(readFile(sessionFile("unsummed.tgz")).size(), 20000u);
  EXPECT_TRUE(readFile(sessionFile("stale.tgz")) == stale);
  EXPECT_FALSE(fileExists(sessionFile("sub/nested.tgz")));
  for (const std::string& line : executed(ssh)) {
    EXPECT_THAT(line, ::testing::Not(HasSubstr("kept.tgz")));
    EXPECT_THAT(line, ::testing::Not(HasSubstr("nested.tgz")));
  }
  // Skipped archives stay in the size left; every file counts as done.
  EXPECT_EQ(status.left, "0");
  EXPECT_EQ(status.sizeLeft, "35000");
  EXPECT_EQ(status.currentFile, "sub/deep.tgz");
  EXPECT_EQ(status.currentSizeLeft, "0");
}

TEST_F(RetrieveContentActionTest, DumpsDirReceivesArchivesSessionHoldsSkips) {
  const std::string dumps = dir_.path() + "/dumps";
  mkdir(dumps.c_str(), 0700);
  cfg_.dumpsDir = dumps;
  std::string inSession = addArchive("s.tgz", 3000);
  std::string inDumps = addArchive("d.tgz", 4000);
  std::string fresh = addArchive("x/f.tgz", 5000);
  writeList();
  writeFile(sessionFile("s.tgz"), inSession);
  writeFile(dumps + "/d.tgz", inDumps);
  run();

  EXPECT_TRUE(fileExists(remote("s.tgz")));
  EXPECT_FALSE(fileExists(dumps + "/s.tgz"));
  EXPECT_FALSE(fileExists(remote("d.tgz")));  // its copy is not looked at
  EXPECT_TRUE(readFile(dumps + "/d.tgz") == inDumps);
  EXPECT_TRUE(readFile(dumps + "/x/f.tgz") == fresh);
  EXPECT_FALSE(fileExists(sessionFile("x/f.tgz")));
  EXPECT_EQ(readFile(sessionFile("dump-name")), dumps + "/dump.xml");
  EXPECT_EQ(readFile(sessionFile("migration-result-name")),
            dumps + "/migration.result");
}

TEST_F(RetrieveContentActionTest, FailedListCommandCarriesTheAgentsError) {
  addArchive("a.tgz", 100);
  writeList();
  writeFile(agentDir_ + "/failure", "no dump made yet\n");
  EXPECT_EQ(failure(),
            "CantRetrieveContentList: Error during content list retrieval: "
            "no dump made yet\n");
  EXPECT_FALSE(fileExists(sessionFile("a.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("dump-name")));
  EXPECT_TRUE(fileExists(remote("a.tgz")));
}

TEST_F(RetrieveContentActionTest, FetchFailureStopsAtThatFile) {
  std::string a = addArchive("a.tgz", 1000);
  addArchive("gone.tgz", 1000);
  addArchive("c.tgz", 1000);
  writeList();
  unlink(remote("gone.tgz").c_str());
  EXPECT_EQ(failure(), "CantRetrieveContentFile: Failed to retrieve file '" +
                           remote("gone.tgz") + "' from '127.0.0.1' to '" +
                           sessionFile("gone.tgz") +
                           "': cat: " + remote("gone.tgz") +
                           ": No such file or directory\n");
  // What was fetched before stays, and is gone on the source host.
  EXPECT_TRUE(readFile(sessionFile("a.tgz")) == a);
  EXPECT_FALSE(fileExists(remote("a.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("c.tgz")));
  EXPECT_TRUE(fileExists(remote("c.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("dump-name")));
}

TEST_F(RetrieveContentActionTest, RemovalFailureIsOnlyLogged) {
  // Remotely proc/version is the kernel's file, which cat reads and rm
  // cannot remove; locally it is an ordinary new file.
  ASSERT_EQ(symlink("/proc", remote("proc").c_str()), 0);
  listed_.push_back({"proc/version", readFile("/proc/version").size(), ""});
  std::string b = addArchive("b.tgz", 2000);
  writeList();
  Log4cppDebugLog debugLog(false, false);
  theDebugLog = &debugLog;
  LogCapture log("p.log");
  run();

  EXPECT_EQ(readFile(sessionFile("proc/version")), readFile("/proc/version"));
  EXPECT_TRUE(readFile(sessionFile("b.tgz")) == b);
  EXPECT_TRUE(fileExists(sessionFile("dump-name")));
  std::string logged;
  for (const std::string& line : log.lines()) logged += line + "\n";
  EXPECT_THAT(logged, HasSubstr("Unable to remove remote file '" +
                                remote("proc/version") +
                                "' from '127.0.0.1': rm: cannot remove"));
}

// --- no archive is removed on the source host unless its copy is sound -----

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

class VerifiedFetchTest : public RetrieveContentActionTest {
 protected:
  void SetUp() override {
    RetrieveContentActionTest::SetUp();
    theLog = &log_;
  }

  std::string fetchFailure(const std::string& name, const std::string& why) {
    return "CantRetrieveContentFile: Failed to retrieve file '" + remote(name) +
           "' from '127.0.0.1' to '" + sessionFile(name) + "': " + why;
  }

  FakeLog log_;
};

TEST_F(VerifiedFetchTest, SizeOtherThanListedKeepsTheSourceCopy) {
  std::string first = addArchive("first.tgz", 3000);
  addArchive("short.tgz", 1000);
  listed_.back().size = 1001;
  addArchive("long.tgz", 1000);
  listed_.back().size = 999;
  std::vector<Listed> all = listed_;
  listed_ = {all[0], all[1]};
  writeList();
  EXPECT_EQ(
      failure(),
      fetchFailure("short.tgz", "received 1000 bytes, but 1001 are listed"));
  // What came before is complete and gone from the source; the faulty
  // archive stays there, and no partial copy is left here.
  EXPECT_TRUE(readFile(sessionFile("first.tgz")) == first);
  EXPECT_FALSE(fileExists(remote("first.tgz")));
  EXPECT_TRUE(fileExists(remote("short.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("short.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("dump-name")));
  EXPECT_TRUE(log_.entries.empty());  // the size says nothing of the sum

  listed_ = {all[2]};
  writeList();
  EXPECT_EQ(failure(),
            fetchFailure("long.tgz", "received more than 999 bytes"));
  EXPECT_TRUE(fileExists(remote("long.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("long.tgz")));
}

TEST_F(VerifiedFetchTest, WrongSumIsRecordedAndTheSourceCopyKept) {
  const std::string listedSum(32, 'a');
  std::string bytes = addArchive("sub/a.tgz", 70000, listedSum.c_str());
  writeList();
  const std::string actual = countMd5Sum(bytes);
  EXPECT_EQ(failure(),
            fetchFailure("sub/a.tgz", "received data has MD5 sum " + actual +
                                          ", but " + listedSum + " is listed"));
  // The listed sum stands in the "has" place, as the record's readers
  // expect.
  EXPECT_THAT(log_.entries,
              ElementsAre("WrongMd5Sum: Problem during content retrieval: "
                          "downloaded sub/a.tgz has MD5 sum " +
                          listedSum + ", but it has to be " + actual +
                          ". Restarting download."));
  EXPECT_TRUE(fileExists(remote("sub/a.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("sub/a.tgz")));

  // Once the list is right, a rerun fetches the kept copy.
  listed_.back().md5sum = actual;
  writeList();
  run();
  EXPECT_TRUE(readFile(sessionFile("sub/a.tgz")) == bytes);
  EXPECT_FALSE(fileExists(remote("sub/a.tgz")));
}

TEST_F(VerifiedFetchTest, EndlessArchiveIsCutOffAtTheListedSize) {
  ASSERT_EQ(symlink("/dev/zero", remote("endless.tgz").c_str()), 0);
  listed_.push_back({"endless.tgz", 100000, ""});
  writeList();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failure(),
            fetchFailure("endless.tgz", "received more than 100000 bytes"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  EXPECT_FALSE(fileExists(sessionFile("endless.tgz")));
  EXPECT_TRUE(fileExists(remote("endless.tgz")));
}

TEST_F(VerifiedFetchTest, LocalFileThatCannotBeCreatedKeepsTheSourceCopy) {
  addArchive("sub/a.tgz", 100);
  writeList();
  writeFile(sessionFile("sub"), "a file in the way of the directory");
  EXPECT_EQ(failure(), fetchFailure("sub/a.tgz", "cannot create " +
                                                     sessionFile("sub/a.tgz") +
                                                     ": Not a directory"));
  EXPECT_TRUE(fileExists(remote("sub/a.tgz")));
}

TEST_F(VerifiedFetchTest, WrongPasswordIsWrappedWithItsCause) {
  addArchive("a.tgz", 100);
  writeList();
  cfg_.password += "x";
  try {
    run();
    ADD_FAILURE() << "a wrong password was accepted";
  } catch (const Exc<&CantRetrieveDump>& e) {
    ASSERT_NE(nullptr, e.inner());
    EXPECT_EQ("SshInvalidCredentials", e.inner()->code());
  }
  EXPECT_TRUE(fileExists(remote("a.tgz")));
}

// --- hostile content lists ---------------------------------------------------

TEST_F(RetrieveContentActionTest, NamesLeavingTheDirectoriesFetchNothing) {
  // Files that a name with ".." or an absolute one would reach, on both
  // sides (the source host is this machine).
  writeFile(dir_.path() + "/outside.tgz", "precious");
  for (const char* name :
       {"../outside.tgz", "sub/../../outside.tgz", "/etc/hostname"}) {
    listed_.clear();
    addArchive("fine.tgz", 100);
    listed_.push_back({name, 8, ""});
    writeList();
    LogCapture ssh("p.Ssh");
    EXPECT_EQ(failure(), std::string("tError_WrongContent: The content list "
                                     "names the file '") +
                             name +
                             "': a name must be relative and must not "
                             "contain '..'.");
    // Nothing fetched or removed, not even the harmless file listed first.
    EXPECT_EQ(executed(ssh).size(), 1u) << name;
    EXPECT_FALSE(fileExists(sessionFile("fine.tgz")));
    EXPECT_TRUE(fileExists(remote("fine.tgz")));
  }
  EXPECT_EQ(readFile(dir_.path() + "/outside.tgz"), "precious");
  EXPECT_TRUE(fileExists("/etc/hostname"));
  EXPECT_FALSE(fileExists(sessionFile("etc/hostname")));
}

TEST_F(RetrieveContentActionTest, MalformedListsFailBeforeAnyFetch) {
  addArchive("a.tgz", 100);
  const struct {
    const char* list;
    const char* cause;
  } cases[] = {
      {"<contentlist size=\"100\" unpacked=\"1\"><file size=\"1OO\">a.tgz"
       "</file></contentlist>",
       "tError_WrongContent: Attribute 'size' of element 'file' is not a "
       "valid number: '1OO'."},
      {"<contentlist size=\"100\" unpacked=\"1\"><file size=\"100\">a.tgz"
       "</file><file size=\"99999999999999999999\">b</file></contentlist>",
       "tError_WrongContent: Attribute 'size' of element 'file' is not a "
       "valid number: '99999999999999999999'."},
      {"<contentlist size=\"-1\" unpacked=\"1\"></contentlist>",
       "tError_WrongContent: Attribute 'size' of element 'contentlist' is "
       "not a valid number: '-1'."},
      {"<contentlist size=\"100\" unpacked=\"1\"><file size=\"100\">a.t",
       "tError_ParseFile: "},
  };
  for (const auto& c : cases) {
    writeFile(agentDir_ + "/contentlist.xml", c.list);
    LogCapture ssh("p.Ssh");
    EXPECT_THAT(failure(), ::testing::StartsWith(c.cause));
    EXPECT_EQ(executed(ssh).size(), 1u) << c.list;
    EXPECT_TRUE(fileExists(remote("a.tgz")));
    EXPECT_FALSE(fileExists(sessionFile("a.tgz")));
  }
}

TEST_F(RetrieveContentActionTest, FloodedErrorTextIsKeptWithinBounds) {
  writeList();
  const std::string flood = std::string(4 << 20, 'e');
  writeFile(agentDir_ + "/failure", "first line\n" + flood + "\nlast line\n");
  std::string message = failure();
  EXPECT_LT(message.size(), 100000u);
  EXPECT_THAT(message, ::testing::StartsWith(
                           "CantRetrieveContentList: Error during content list "
                           "retrieval: first line\n"));
  EXPECT_THAT(message, HasSubstr(" bytes left out "));
  EXPECT_THAT(message, ::testing::EndsWith("\nlast line\n"));
}

TEST_F(RetrieveContentActionTest, EndlessListIsCutOffAtItsBound) {
  addArchive("a.tgz", 100);
  unlink((agentDir_ + "/contentlist.xml").c_str());
  ASSERT_EQ(symlink("/dev/zero", (agentDir_ + "/contentlist.xml").c_str()), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failure(),
            "CantRetrieveContentList: Error during content list retrieval: "
            "the content list is longer than 67108864 bytes");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
  EXPECT_TRUE(fileExists(remote("a.tgz")));
  EXPECT_FALSE(fileExists(sessionFile("a.tgz")));
}

// --- free space --------------------------------------------------------------

// Runs `body` in a forked child that has a private 1 MiB tmpfs mounted at
// `mountPoint`; returns what the body returned, or a description of how
// the child failed.
std::string withPrivateTmpfs(const std::string& mountPoint,
                             const std::function<std::string()>& body) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return "pipe failed";
  pid_t pid = fork();
  if (pid == 0) {
    close(pipeFds[0]);
    std::string report;
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=1m") != 0) {
      report = std::string("no private tmpfs: ") + strerror(errno);
    } else {
      try {
        report = body();
      } catch (const std::exception& e) {
        report = std::string("unexpected ") + e.what();
      }
    }
    ssize_t ignored = write(pipeFds[1], report.data(), report.size());
    (void)ignored;
    _exit(0);
  }
  close(pipeFds[1]);
  std::string report;
  char buffer[4096];
  for (ssize_t got; (got = read(pipeFds[0], buffer, sizeof buffer)) > 0;) {
    report.append(buffer, got);
  }
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return report;
}

class FreeSpaceTest : public RetrieveContentActionTest {
 protected:
  void SetUp() override {
    RetrieveContentActionTest::SetUp();
    dumps_ = dir_.path() + "/dumps";
    mkdir(dumps_.c_str(), 0755);
    cfg_.dumpsDir = dumps_;
    archive_ = addArchive("a.tgz", 5000);
  }

  // Lists a total of the tmpfs's free space plus `extra` bytes and runs
  // the action there. Returns what happened: "fetched" or the error, and
  // whether the remote archive is left; free_ is the space found.
  std::string runWithTotalAboveFree(int64_t extra) {
    std::string report = withPrivateTmpfs(dumps_, [this, extra]() {
      int64_t free = static_cast<int64_t>(getFreeSpace(dumps_));
      writeList(free + extra);
      std::string outcome = "fetched";
      try {
        run();
      } catch (const Exc<&CantRetrieveDump>& e) {
        outcome = e.inner() ? e.inner()->what() : "no cause";
      }
      if (fileExists(dumps_ + "/a.tgz") &&
          readFile(dumps_ + "/a.tgz") != archive_) {
        outcome += ", damaged";
      }
      if (fileExists(remote("a.tgz"))) outcome += ", remote kept";
      return std::to_string(free) + "\n" + outcome;
    });
    std::string::size_type line = report.find('\n');
    if (line == std::string::npos) return report;
    free_ = std::stoll(report.substr(0, line));
    return report.substr(line + 1);
  }

  std::string dumps_;
  std::string archive_;
  int64_t free_ = -1;
};

TEST_F(FreeSpaceTest, TotalEqualToTheFreeSpacePasses) {
  EXPECT_EQ(runWithTotalAboveFree(0), "fetched");
}

TEST_F(FreeSpaceTest, OneByteMoreThanFreeFailsBeforeAnyFetch) {
  std::string outcome = runWithTotalAboveFree(1);
  ASSERT_GT(free_, 0) << outcome;
  EXPECT_EQ(outcome, "Selected filesystem has only " + std::to_string(free_) +
                         " free space, but " + std::to_string(free_ + 1) +
                         " is needed for operation, remote kept");
  EXPECT_FALSE(fileExists(sessionFile("dump-name")));
}

TEST_F(FreeSpaceTest, NoCheckSpaceIgnoresTheTotal) {
  cfg_.noCheckSpace = true;
  EXPECT_EQ(runWithTotalAboveFree(int64_t(1) << 50), "fetched");
}

TEST_F(FreeSpaceTest, FullDestinationStopsTheFetchAndKeepsTheSource) {
  cfg_.noCheckSpace = true;
  addArchive("big.tgz", 3 << 20);
  addArchive("after.tgz", 100);
  writeList();
  std::string report = withPrivateTmpfs(dumps_, [this]() {
    std::string outcome = failure();
    // The partial copy is gone; the archive before it is complete.
    if (fileExists(dumps_ + "/big.tgz")) outcome += ", partial copy left";
    if (readFile(dumps_ + "/a.tgz") != archive_) outcome += ", a.tgz damaged";
    return outcome;
  });
  EXPECT_EQ(report, "CantRetrieveContentFile: Failed to retrieve file '" +
                        remote("big.tgz") + "' from '127.0.0.1' to '" + dumps_ +
                        "/big.tgz': cannot write " + dumps_ +
                        "/big.tgz: No space left on device");
  EXPECT_FALSE(fileExists(remote("a.tgz")));
  EXPECT_TRUE(fileExists(remote("big.tgz")));
  EXPECT_TRUE(fileExists(remote("after.tgz")));
}

// --- what a concurrent reader of migration.status sees ----------------------

TEST_F(RetrieveContentActionTest, ReaderSeesCompleteDocumentsInOrder) {
  // Files large enough that a document from inside one stays on disk for
  // many polls, even in a slow (sanitizer) build.
  const int64_t kSize = 8 << 20;
  for (int i = 0; i < 3; ++i) addArchive("part" + std::to_string(i), kSize);
  writeList();
  writeFile(agentDir_ + "/delay", "0.3");  // time to see the dump phase
  const std::string path = session_->getStatusFileName();
  std::vector<std::string> seen;
  std::atomic<bool> done(false);
  auto poll = [&]() {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)),
                     std::istreambuf_iterator<char>());
    if (seen.empty() || seen.back() != text) seen.push_back(text);
  };
  {
    RetrieveContentAction action;
    action.setConfig(&cfg_);
    poll();  // the document the constructor saved
    std::thread reader([&]() {
      while (!done) poll();
    });
    action.execute();
    done = true;
    reader.join();
  }
  poll();

  std::vector<std::string> phases;
  int64_t lastSizeLeft = 3 * kSize;
  int midFile = 0;
  for (const std::string& text : seen) {
    StatusView view = viewStatus(text);
    ASSERT_TRUE(view.complete) << "incomplete document:\n" << text;
    if (phases.empty() || phases.back() != view.phase) {
      phases.push_back(view.phase);
    }
    if (view.phase != "files") continue;
    EXPECT_EQ(view.total, "3");
    EXPECT_EQ(view.sizeTotal, std::to_string(3 * kSize));
    EXPECT_EQ(view.currentSize, std::to_string(kSize));
    int64_t sizeLeft = std::stoll(view.sizeLeft);
    EXPECT_LE(sizeLeft, lastSizeLeft);
    lastSizeLeft = sizeLeft;
    int64_t currentLeft = std::stoll(view.currentSizeLeft);
    if (currentLeft > 0 && currentLeft < kSize) ++midFile;
  }
  EXPECT_THAT(phases, ElementsAre("idle", "dumpfile", "files", "idle"));
  EXPECT_EQ(lastSizeLeft, 0);
  // Progress inside a file is shown: the first chunk's figures, later ones
  // at most every 100 ms.
  EXPECT_GE(midFile, 1);
}

// --- the progress updater alone ----------------------------------------------

class MockStatus : public MigrationStatus {
 public:
  MOCK_METHOD(void, setIdle, (), (override));
  MOCK_METHOD(void, setAgentParams, (const std::string&), (override));
  MOCK_METHOD(void, setAgentOperation, (agentOperation), (override));
  MOCK_METHOD(void, setTransferSpeed, (const std::string&), (override));
  MOCK_METHOD(void, setTransferDump, (), (override));
  MOCK_METHOD(void, setTransferTotals, (const std::string&, const std::string&),
              (override));
  MOCK_METHOD(void, setTransferFilesLeft, (const std::string&), (override));
  MOCK_METHOD(void, setTransferSizeLeft, (const std::string&), (override));
  MOCK_METHOD(void, setCurrentFile, (const std::string&, const std::string&),
              (override));
  MOCK_METHOD(void, setTransferCurrentFileSizeLeft, (const std::string&),
              (override));
  MOCK_METHOD(void, setDeployTotals, (const std::string&, const std::string&),
              (override));
  MOCK_METHOD(void, setDeploy, (const std::string&, const std::string&),
              (override));
  MOCK_METHOD(void, setCurrentObject, (const std::string&, objectType),
              (override));
  MOCK_METHOD(void, setTranslate, (), (override));
  MOCK_METHOD(void, saveFile, (), (override));
};

// Lets a test watch every call the action makes on its status document.
class ObservedAction : public RetrieveContentAction {
 public:
  explicit ObservedAction(std::unique_ptr<MigrationStatus> status) {
    status_ = std::move(status);
  }
};

TEST_F(RetrieveContentActionTest, EmptyListSetsTotalsAndWritesThePointers) {
  writeList(777);
  auto status = std::make_unique<::testing::StrictMock<MockStatus>>();
  {
    ::testing::InSequence order;
    EXPECT_CALL(*status, setAgentParams("127.0.0.1"));
    EXPECT_CALL(*status, setTransferDump());
    EXPECT_CALL(*status, saveFile());
    // Totals are only shown by the first save of a file, which never comes.
    EXPECT_CALL(*status, setTransferTotals("0", "777"));
    EXPECT_CALL(*status, setIdle());  // the action's end
    EXPECT_CALL(*status, saveFile());
  }
  {
    ObservedAction action(std::move(status));
    action.setConfig(&cfg_);
    action.execute();
  }
  EXPECT_EQ(readFile(sessionFile("dump-name")),
            session_->getDir() + "/dump.xml");
  EXPECT_TRUE(fileExists(sessionFile("migration-result-name")));
}

std::time_t fakeNow = 1000;
std::time_t fakeClock() { return fakeNow; }
// Each chunk comes a save interval after the one before: every chunk saves.
int64_t fakeSaveMs = 0;
int64_t slowChunks() { return fakeSaveMs += 100; }

void expectChunk(MockStatus& status, const char* speed, const char* sizeLeft,
                 const char* currentLeft) {
  EXPECT_CALL(status, setTransferSpeed(std::string(speed)));
  EXPECT_CALL(status, setTransferSizeLeft(std::string(sizeLeft)));
  EXPECT_CALL(status, setTransferCurrentFileSizeLeft(std::string(currentLeft)));
  EXPECT_CALL(status, saveFile());
}

TEST(FileRetrievalProgressUpdaterTest, EveryChunkSetsFiguresAndSaves) {
  ::testing::StrictMock<MockStatus> status;
  ::testing::InSequence order;
  fakeNow = 1000;
  FileRetrievalProgressUpdater updater(status, 10000, 2, &fakeClock,
                                       &slowChunks);

  // Within the first second the speed is 0.
  expectChunk(status, "0", "9000", "3000");
  expectChunk(status, "0", "8500", "2500");
  // Averaged over the whole phase, in whole bytes per second.
  expectChunk(status, "833", "7500", "1500");
  // The next file: its own size left, the overall figures go on.
  expectChunk(status, "1250", "5000", "3500");

  updater.startFile(4000);
  updater(1000);
  updater.update(500);
  fakeNow = 1003;
  updater(1000);
  EXPECT_EQ(updater.fileDone(), 1);
  updater.startFile(6000);
  fakeNow = 1004;
  updater(2500);
  EXPECT_EQ(updater.transferred(), 5000);
  EXPECT_EQ(updater.sizeLeft(), 5000);
  EXPECT_EQ(updater.fileDone(), 0);
}

// --- the local MD5 checks
// -----------------------------------------------------

class Md5CheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
    theLog = &log_;
    writeFile(session_->getDir() + "/a.tgz", "archive");
  }
  void TearDown() override {
    theLog = nullptr;
    theSession = nullptr;
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  FakeLog log_;
};

TEST_F(Md5CheckTest, OnlyARegularFileWithTheSumCounts) {
  const std::string sum = countMd5Sum(std::string("archive"));
  RetrieveContentAction action;
  EXPECT_TRUE(action.checkMD5({"x/a.tgz", 7, sum}));
  EXPECT_FALSE(action.checkMD5({"a.tgz", 7, std::string(32, 'f')}));
  EXPECT_FALSE(action.checkMD5({"a.tgz", 7, ""}));
  EXPECT_FALSE(action.checkMD5({"b.tgz", 7, sum}));
  // A directory of the name, as another archive's path may leave, is no
  // copy and no error.
  mkdir((session_->getDir() + "/dir.tgz").c_str(), 0755);
  EXPECT_FALSE(action.checkMD5({"y/dir.tgz", 7, sum}));
}

TEST_F(Md5CheckTest, CheckFileRecordsAMismatchOnly) {
  const std::string sum = countMd5Sum(std::string("archive"));
  const std::string other(32, 'f');
  RetrieveContentAction action;
  action.checkFile({"sub/a.tgz", 7, sum});
  action.checkFile({"missing.tgz", 7, other});
  EXPECT_TRUE(log_.entries.empty());
  action.checkFile({"sub/a.tgz", 7, other});
  EXPECT_THAT(log_.entries,
              ElementsAre("WrongMd5Sum: Problem during content retrieval: "
                          "downloaded sub/a.tgz has MD5 sum " +
                          other + ", but it has to be " + sum +
                          ". Restarting download."));
}

}  // namespace
}  // namespace tovel
