// "--get-content" under faults, end to end with the real binary and the
// test sshd: archives whose listed size or sum is wrong, a destination that
// fills up, the server side killed in the middle of a fetch, and content
// lists that are malformed or try to reach outside their directories.
// A fake agent prints the content list the test wrote.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "commons/checksum.h"
#include "support/ferrow_runner.h"
#include "support/source_login.h"
#include "support/sshd_server.h"
#include "support/test_bytes.h"

namespace ferrow_test {
namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::Not;

const char kAgentScript[] = "cat contentlist.xml\n";

struct Listed {
  std::string name;
  uint64_t size;
  std::string md5sum;
};

std::string contentList(const std::vector<Listed>& files) {
  uint64_t total = 0;
  for (const Listed& f : files) total += f.size;
  std::ostringstream xml;
  xml << "<contentlist size=\"" << total << "\" unpacked=\"" << total
      << "\">\n";
  for (const Listed& f : files) {
    xml << "  <file size=\"" << f.size << "\" md5sum=\"" << f.md5sum << "\">"
        << f.name << "</file>\n";
  }
  xml << "</contentlist>\n";
  return xml.str();
}

uint64_t sizeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

// The "cat ..." commands that the debug log shows, in order.
std::vector<std::string> catCommands(const std::string& log) {
  std::vector<std::string> found;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    std::string::size_type at = line.find("Executing cat ");
    if (at != std::string::npos) found.push_back(line.substr(at + 14));
  }
  return found;
}

class ContentFaultsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
    // A killed fetch closes the pipe the test writes into.
    signal(SIGPIPE, SIG_IGN);
  }

  void SetUp() override {
    std::string control = install_.productRoot() + "/QVT/agents/fake/control";
    fs::create_directories(control);
    writeFile(control + "/spec",
              "EntryPoint: agent.sh\nInterpreter: /bin/sh\n");
    chmod(source_.path().c_str(), 0755);
    mkdir(agentDir().c_str(), 0755);
    writeFile(agentDir() + "/agent.sh", kAgentScript);
    login_ = sourceLogin(rootAccount(), false);
  }

  // Puts an archive on the source host and lists it truthfully.
  std::string addArchive(const std::string& name, size_t size) {
    std::string bytes = archiveBytes(size, static_cast<unsigned>(size));
    writeFile(remote(name), bytes);
    listed_.push_back({name, size, tovel::countMd5Sum(bytes)});
    return bytes;
  }
  void writeList() { writeList(contentList(listed_)); }
  void writeList(const std::string& text) {
    writeFile(agentDir() + "/contentlist.xml", text);
  }

  RunResult getContent(const std::vector<std::string>& more = {},
                       const RunOptions& options = {}) {
    std::vector<std::string> args = {
        "--get-content", "--session-path", session(), "--agent-dir",
        agentDir(),      "--agent-name",   "fake"};
    args.insert(args.end(), more.begin(), more.end());
    return install_.run(options, withLogin(login_, args), login_.env);
  }

  std::string session() const { return install_.sessionPath(); }
  std::string local(const std::string& name) const {
    return session() + "/" + name;
  }
  std::string agentDir() const { return source_.path() + "/agent"; }
  std::string remote(const std::string& name) const {
    return agentDir() + "/" + name;
  }
  std::string record() const { return readFile(local("transfer.result")); }
  std::string debugLog() const { return readFile(local("migration.log")); }

  // The message a failed fetch carries in the run record.
  std::string fetchFailure(const std::string& name, const std::string& why,
                           const std::string& localName = "") const {
    return "Failed to retrieve file '" + remote(name) +
           "' from '127.0.0.1' to '" +
           (localName.empty() ? local(name) : localName) + "': " + why;
  }

  void expectFailedRecord(const std::string& innerCode) const {
    std::string text = compactXml(record());
    EXPECT_THAT(text, HasSubstr("status=\"error\""));
    EXPECT_THAT(text, HasSubstr("code=\"CantRetrieveDump\""));
    EXPECT_THAT(text, HasSubstr("code=\"" + innerCode + "\""));
  }

  FerrowInstallation install_;
  TempDir source_;
  SourceLogin login_;
  std::vector<Listed> listed_;
};

// --- a source archive is removed only once its local copy is sound ----------

TEST_F(ContentFaultsTest, WrongListedSizeKeepsTheSourceArchive) {
  std::string first = addArchive("first.tgz", 100000);
  addArchive("second.tgz", 100000);
  listed_.back().size += 1;
  writeList();
  RunResult r = getContent();
  EXPECT_EQ(r.exitCode, 2) << r.err;
  EXPECT_EQ(r.err, "Error during dump retrieval");
  expectFailedRecord("CantRetrieveContentFile");
  EXPECT_THAT(record(), HasSubstr(fetchFailure(
                            "second.tgz",
                            "received 100000 bytes, but 100001 are listed")));
  EXPECT_TRUE(readFile(local("first.tgz")) == first);
  EXPECT_FALSE(fileExists(remote("first.tgz")));
  EXPECT_TRUE(fileExists(remote("second.tgz")));
  EXPECT_FALSE(fileExists(local("second.tgz")));
}

TEST_F(ContentFaultsTest, WrongListedSumIsRecordedAndFetchedAgainLater) {
  std::string bytes = addArchive("a.tgz", 300000);
  const std::string actual = listed_.back().md5sum;
  const std::string wrong = "0123456789abcdef0123456789abcdef";
  listed_.back().md5sum = wrong;
  writeList();
  RunResult r = getContent();
  EXPECT_EQ(r.exitCode, 2) << r.err;
  expectFailedRecord("CantRetrieveContentFile");
  EXPECT_THAT(record(), HasSubstr("code=\"WrongMd5Sum\""));
  EXPECT_THAT(record(),
              HasSubstr("Problem during content retrieval: downloaded a.tgz "
                        "has MD5 sum " +
                        wrong + ", but it has to be " + actual +
                        ". Restarting download."));
  EXPECT_THAT(record(), HasSubstr(fetchFailure(
                            "a.tgz", "received data has MD5 sum " + actual +
                                         ", but " + wrong + " is listed")));
  EXPECT_TRUE(fileExists(remote("a.tgz")));
  EXPECT_FALSE(fileExists(local("a.tgz")));

  listed_.back().md5sum = actual;
  writeList();
  r = getContent();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(readFile(local("a.tgz")) == bytes);
  EXPECT_FALSE(fileExists(remote("a.tgz")));
}

TEST_F(ContentFaultsTest, FullDestinationFailsPromptlyAndKeepsTheSource) {
  const std::string dumps = install_.root() + "/dumps";
  mkdir(dumps.c_str(), 0755);
  std::string small = addArchive("small.tgz", 1000);
  addArchive("big.tgz", 8 << 20);
  writeList();
  RunOptions tmpfs;
  tmpfs.mountSetup = "mount -t tmpfs -o size=1m tmpfs " + dumps;
  Clock::time_point start = Clock::now();
  RunResult r = getContent({"--dumps-dir", dumps, "--no-check-space"}, tmpfs);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  EXPECT_EQ(r.exitCode, 2) << r.err;
  EXPECT_EQ(r.err, "Error during dump retrieval");
  expectFailedRecord("CantRetrieveContentFile");
  EXPECT_THAT(record(),
              HasSubstr(fetchFailure(
                  "big.tgz",
                  "cannot write " + dumps + "/big.tgz: No space left on device",
                  dumps + "/big.tgz")));
  EXPECT_FALSE(fileExists(remote("small.tgz")));
  EXPECT_TRUE(fileExists(remote("big.tgz")));
  // The tmpfs lived in the run's namespace only: nothing reached the
  // directory beneath it.
  EXPECT_TRUE(fs::is_empty(dumps));
}

// --- the server side killed in the middle of a large fetch ------------------

// A remote archive that is a FIFO: its bytes reach "cat" only as the test
// writes them, so the connection can be killed at a known point.
class RemoteFifo {
 public:
  explicit RemoteFifo(const std::string& path) : path_(path) {
    if (mkfifo(path.c_str(), 0644) != 0) throw std::runtime_error("mkfifo");
  }
  ~RemoteFifo() {
    if (fd_ >= 0) close(fd_);
  }
  // Waits up to 30 s for the remote cat to open it; false if it never did.
  bool waitForReader() {
    Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
    while (fd_ < 0 && Clock::now() < deadline) {
      fd_ = open(path_.c_str(), O_WRONLY | O_NONBLOCK);
      if (fd_ < 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (fd_ >= 0) fcntl(fd_, F_SETFL, 0);
    return fd_ >= 0;
  }
  bool write(const std::string& bytes) {
    return ::write(fd_, bytes.data(), bytes.size()) ==
           static_cast<ssize_t>(bytes.size());
  }

 private:
  std::string path_;
  int fd_ = -1;
};

// Polls until path holds at least size bytes; false after 30 s.
bool waitForSize(const std::string& path, uint64_t size) {
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
  while (sizeOf(path) < size) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

TEST_F(ContentFaultsTest, ServerKilledMidFetchEndsWith18AndRerunCompletes) {
  std::string first = addArchive("first.tgz", 3 << 20);
  const std::string killed = archiveBytes(8 << 20, 99);
  listed_.push_back({"killed.tgz", killed.size(), tovel::countMd5Sum(killed)});
  std::string last = addArchive("last.tgz", 2 << 20);
  writeList();
  RemoteFifo fifo(remote("killed.tgz"));

  RunResult r;
  std::thread run([&]() { r = getContent(); });
  bool midFetch = fifo.waitForReader() &&
                  fifo.write(killed.substr(0, 1 << 20)) &&
                  waitForSize(local("killed.tgz"), 1 << 20);
  SshdServer::shared().killConnections();
  Clock::time_point killedAt = Clock::now();
  run.join();
  EXPECT_TRUE(midFetch);
  EXPECT_LT(Clock::now() - killedAt, std::chrono::seconds(5));

  EXPECT_EQ(r.exitCode, 18) << r.err;
  // The step's own failure wraps the cause, whose code is the exit code.
  EXPECT_EQ(r.err, "Error during dump retrieval");
  // Every file written is whole: the status document, the run record.
  EXPECT_EQ(compactXml(readFile(local("migration.status"))),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            "<migration-status><idle/></migration-status>\n");
  std::string text = compactXml(record());
  EXPECT_THAT(text, HasSubstr("<execution-result status=\"error\">"));
  EXPECT_THAT(text, HasSubstr("code=\"CantRetrieveDump\""));
  EXPECT_THAT(text, HasSubstr("code=\"SshConnectionFault\""));
  EXPECT_THAT(text, HasSubstr("</execution-result>"));
  // What was fetched before stays; the interrupted copy is not left to
  // pass for an archive; the source keeps everything not yet fetched.
  EXPECT_TRUE(readFile(local("first.tgz")) == first);
  EXPECT_FALSE(fileExists(remote("first.tgz")));
  EXPECT_FALSE(fileExists(local("killed.tgz")));
  EXPECT_TRUE(fileExists(remote("killed.tgz")));
  EXPECT_TRUE(fileExists(remote("last.tgz")));

  // The rerun fetches only what is missing: the first archive, gone from
  // the source, is skipped by its sum.
  unlink(remote("killed.tgz").c_str());
  writeFile(remote("killed.tgz"), killed);
  size_t logBefore = debugLog().size();
  r = getContent();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_THAT(
      catCommands(debugLog().substr(logBefore)),
      ::testing::ElementsAre(remote("killed.tgz") + " on the remote host",
                             remote("last.tgz") + " on the remote host"));
  EXPECT_TRUE(readFile(local("first.tgz")) == first);
  EXPECT_TRUE(readFile(local("killed.tgz")) == killed);
  EXPECT_TRUE(readFile(local("last.tgz")) == last);
  EXPECT_FALSE(fileExists(remote("killed.tgz")));
  EXPECT_FALSE(fileExists(remote("last.tgz")));
}

// --- malformed, truncated and hostile content lists -------------------------

struct HostileList {
  const char* label;
  std::function<std::string()> text;  // the agent's whole output
  const char* innerCode;
  const char* description;  // part of the cause's text in the run record
};

// Test names and messages show the case's label, not its bytes.
void PrintTo(const HostileList& list, std::ostream* os) { *os << list.label; }

std::string listOf(const std::string& files, const std::string& total = "10") {
  return "<contentlist size=\"" + total + "\" unpacked=\"10\">" +
         "<file size=\"10\">fine.tgz</file>" + files + "</contentlist>";
}

std::string manyFilesThen(const std::string& last) {
  std::string files;
  for (int i = 0; i < 100000; ++i) {
    files += "<file size=\"10\">f" + std::to_string(i) + ".tgz</file>";
  }
  return listOf(files + last);
}

const HostileList kHostileLists[] = {
    {"DotDot", [] { return listOf("<file size=\"9\">../outside.tgz</file>"); },
     "tError_WrongContent",
     "The content list names the file '../outside.tgz': a name must be "
     "relative and must not contain '..'."},
    {"DotDotInside",
     [] { return listOf("<file size=\"9\">x/../../../outside.tgz</file>"); },
     "tError_WrongContent", "names the file 'x/../../../outside.tgz'"},
    {"Absolute", [] { return listOf("<file size=\"9\">/etc/hostname</file>"); },
     "tError_WrongContent", "names the file '/etc/hostname'"},
    {"NonNumericSize", [] { return listOf("<file size=\"ten\">b.tgz</file>"); },
     "tError_WrongContent",
     "Attribute 'size' of element 'file' is not a valid number: 'ten'."},
    {"NegativeSize", [] { return listOf("<file size=\"-10\">b.tgz</file>"); },
     "tError_WrongContent", "not a valid number: '-10'."},
    {"HugeSize",
     [] { return listOf("<file size=\"18446744073709551615\">b.tgz</file>"); },
     "tError_WrongContent", "not a valid number: '18446744073709551615'."},
    {"HugeTotal", [] { return listOf("", "99999999999999999999"); },
     "tError_WrongContent",
     "Attribute 'size' of element 'contentlist' is not a valid number"},
    {"HugeCountThenDotDot",
     [] { return manyFilesThen("<file size=\"9\">../outside.tgz</file>"); },
     "tError_WrongContent", "names the file '../outside.tgz'"},
    {"Truncated", [] { return listOf("").substr(0, 60); }, "tError_ParseFile",
     "was not parsed successfully"},
    {"NotXml", [] { return std::string("perl: not found\n"); },
     "tError_ParseFile", "was not parsed successfully"},
    {"Empty", [] { return std::string(); }, "AssertionFailed",
     "Assertion failed"},
};

class HostileListTest : public ContentFaultsTest,
                        public ::testing::WithParamInterface<HostileList> {};

TEST_P(HostileListTest, ClearErrorNothingFetchedNothingWrittenOutside) {
  std::string fine = addArchive("fine.tgz", 10);
  writeFile(source_.path() + "/outside.tgz", "precious!");
  writeList(GetParam().text());
  Clock::time_point start = Clock::now();
  RunResult r = getContent();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
  EXPECT_EQ(r.exitCode, 2) << r.err;
  EXPECT_EQ(r.err, "Error during dump retrieval");
  expectFailedRecord(GetParam().innerCode);
  EXPECT_THAT(record(), HasSubstr(GetParam().description));
  EXPECT_THAT(catCommands(debugLog()), ::testing::IsEmpty());
  EXPECT_EQ(readFile(remote("fine.tgz")), fine);
  EXPECT_FALSE(fileExists(local("fine.tgz")));
  EXPECT_EQ(readFile(source_.path() + "/outside.tgz"), "precious!");
  EXPECT_FALSE(fileExists(install_.root() + "/outside.tgz"));
  EXPECT_FALSE(fileExists(local("etc/hostname")));
  EXPECT_FALSE(fileExists(local("dump-name")));
}

INSTANTIATE_TEST_SUITE_P(Lists, HostileListTest,
                         ::testing::ValuesIn(kHostileLists),
                         [](const ::testing::TestParamInfo<HostileList>& info) {
                           return std::string(info.param.label);
                         });

}  // namespace
}  // namespace ferrow_test
