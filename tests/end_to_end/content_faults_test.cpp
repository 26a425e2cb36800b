// "--get-content" and "--dump-all" meeting faults, end to end: wrong or
// unusual listings, a full destination, a source that stalls and dies,
// hostile lists, a flooding remote program, and cancelling by signal.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/algorithm/string/case_conv.hpp>
#include <climits>
#include <boost/filesystem.hpp>
#include <chrono>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "commons/checksum.h"
#include "support/reference_source.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Listed {
  std::string name;
  uint64_t size;
  std::string md5sum;
  bool sized = true;
};

uint64_t sizeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

// Polls every ms until ready() holds; false after `ms` ms.
bool waitFor(const std::function<bool()>& ready, int ms = 30000) {
  for (int round = 0; round < ms; ++round, usleep(1000))
    if (ready()) return true;
  return false;
}

// The local files that archives were fetched to, in order, as the debug
// log names them.
std::vector<std::string> fetchedFiles(const std::string& log) {
  static const std::regex fetch("Reading data to the file ([^\n]*)");
  std::vector<std::string> found;
  for (std::sregex_iterator it(log.begin(), log.end(), fetch), end; it != end;
       ++it)
    found.push_back((*it)[1]);
  return found;
}

class ContentFaultsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
    signal(SIGPIPE, SIG_IGN);  // a killed fetch closes the test's FIFO
  }

  // On the source host (unless it is to be a FIFO), listed truthfully.
  std::string addArchive(const std::string& name, size_t size,
                         bool write = true) {
    std::string bytes = archiveBytes(size, static_cast<unsigned>(size));
    if (write) writeFile(remote(name), bytes);
    listed_.push_back({name, size, tovel::countMd5Sum(bytes)});
    return bytes;
  }
  void writeList() {
    uint64_t total = 0;
    std::string files;
    for (const Listed& f : listed_) {
      total += f.size;
      files += "<file" +
               (f.sized ? " size=\"" + std::to_string(f.size) + "\"" : "") +
               " md5sum=\"" + f.md5sum + "\">" + f.name + "</file>\n";
    }
    writeFile(remote("contentlist.xml"),
              "<contentlist size=\"" + std::to_string(total) +
                  "\" unpacked=\"" + std::to_string(total) + "\">\n" + files +
                  "</contentlist>\n");
  }

  RunResult run(std::vector<std::string> args,
                std::map<std::string, std::string> env = {},
                const RunOptions& options = {}) {
    args.insert(args.end(), {"--session-path", session()});
    for (const std::string& arg : agent_.args()) args.push_back(arg);
    env.insert(login_.env.begin(), login_.env.end());
    return install_.run(options, withLogin(login_, args), env);
  }
  RunResult getContent(std::vector<std::string> more = {},
                       const RunOptions& options = {}) {
    more.insert(more.begin(), "--get-content");
    return run(more, {}, options);
  }

  // Once ferrow opens the FIFO `name`, writes the first n bytes into it
  // and waits until they reach the local copy; *fifo stays open.
  bool feedFifo(const std::string& name, const std::string& bytes, size_t n,
                int* fifo) {
    return waitFor([&] {
             *fifo = open(remote(name).c_str(), O_WRONLY | O_NONBLOCK);
             return *fifo >= 0;
           }) &&
           fcntl(*fifo, F_SETFL, 0) == 0 &&
           write(*fifo, bytes.data(), n) == static_cast<ssize_t>(n) &&
           waitFor([&] { return sizeOf(local(name)) >= n; });
  }

  std::string session() const { return install_.sessionPath(); }
  std::string local(const std::string& name) const {
    return session() + "/" + name;
  }
  std::string remote(const std::string& name) const {
    return agent_.file(name);
  }
  std::string record() const { return readFile(local("transfer.result")); }
  std::string debugLog() const { return readFile(local("migration.log")); }
  std::string fetchFailure(const std::string& name, const std::string& why) {
    return "Failed to retrieve file '" + remote(name) +
           "' from '127.0.0.1' to '" + local(name) + "': " + why;
  }

  // exitCode 2 is the step's own; another is the cause's.
  void expectFailedFetch(const RunResult& r, const std::string& innerCode,
                         int exitCode = 2) {
    EXPECT_EQ(r.exitCode, exitCode) << r.err;
    EXPECT_EQ(r.err, "Error during dump retrieval");
    for (const std::string& part : std::vector<std::string>{
             "status=\"error\"", "code=\"CantRetrieveDump\"",
             "code=\"" + innerCode + "\"", "</execution-result>"})
      EXPECT_THAT(record(), HasSubstr(part));
  }
  void expectFetched(const RunResult& r) {
    EXPECT_EQ(0, r.exitCode) << r.err << readFile(local("transfer.result"));
    for (const Listed& f : listed_) {
      EXPECT_EQ(tovel::countMd5Sum(readFile(local(f.name))),
                boost::to_lower_copy(f.md5sum))
          << f.name;
      EXPECT_FALSE(fileExists(remote(f.name))) << f.name;
    }
  }

  FerrowInstallation install_;
  ScriptedAgent agent_{install_, "cat contentlist.xml\n"};
  SourceLogin login_ = sourceLogin(rootAccount(), false);
  std::vector<Listed> listed_;
};

// A source archive is removed only once its local copy is sound: a wrong
// listed size, then a wrong sum, keep it; an archive listed without a size
// is fetched whole; the rerun lists the right sum in capitals.
TEST_F(ContentFaultsTest, WrongListedSizeOrSumKeepsTheSourceArchive) {
  std::string first = addArchive("first.tgz", 100000);
  listed_.back().sized = false;
  addArchive("a.tgz", 300000);
  const std::string actual = listed_.back().md5sum;
  const std::string wrong = "0123456789abcdef0123456789abcdef";
  listed_.back().size += 1;
  writeList();
  expectFailedFetch(getContent(), "CantRetrieveContentFile");
  EXPECT_THAT(record(),
              HasSubstr(fetchFailure(
                  "a.tgz", "received 300000 bytes, but 300001 are listed")));
  EXPECT_TRUE(readFile(local("first.tgz")) == first);
  EXPECT_FALSE(fileExists(remote("first.tgz")));
  listed_.back().size -= 1;
  listed_.back().md5sum = wrong;
  writeList();
  expectFailedFetch(getContent(), "CantRetrieveContentFile");
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
  listed_.back().md5sum = boost::to_upper_copy(actual);
  writeList();
  expectFetched(getContent());
}

TEST_F(ContentFaultsTest, FullDestinationFailsPromptlyAndKeepsTheSource) {
  const std::string dumps = install_.root() + "/dumps";
  mkdir(dumps.c_str(), 0755);
  addArchive("small.tgz", 1000);
  addArchive("big.tgz", 8 << 20);
  writeList();
  RunOptions tmpfs;
  tmpfs.mountSetup = "mount -t tmpfs -o size=1m tmpfs " + dumps;
  expectFailedFetch(getContent({"--dumps-dir", dumps}, tmpfs), "NotEnoughSpace");
  Clock::time_point start = Clock::now();
  RunResult r = getContent({"--dumps-dir", dumps, "--no-check-space"}, tmpfs);
  EXPECT_LT(secondsSince(start), 30);
  expectFailedFetch(r, "CantRetrieveContentFile");
  const std::string big = dumps + "/big.tgz";
  EXPECT_THAT(
      record(),
      HasSubstr(remote("big.tgz") + "' from '127.0.0.1' to '" + big +
                "': cannot write " + big + ": No space left on device"));
  EXPECT_FALSE(fileExists(remote("small.tgz")));
  EXPECT_TRUE(fileExists(remote("big.tgz")));
  // The tmpfs lived in the run's namespace only.
  EXPECT_TRUE(boost::filesystem::is_empty(dumps));
}

// The killed archive is a FIFO: its bytes reach the remote "cat" only as
// the test writes them. After 1 MiB the source stalls, and
// "migration.status" must show the bytes received long before the kill.
TEST_F(ContentFaultsTest, ServerKilledMidFetchEndsWith18AndRerunCompletes) {
  std::string first = addArchive("first.tgz", 3 << 20);
  const std::string killed = addArchive("killed.tgz", 8 << 20, false);
  addArchive("last.tgz", 2 << 20);
  writeList();
  ASSERT_EQ(0, mkfifo(remote("killed.tgz").c_str(), 0644));

  RunResult r;
  std::thread run([&]() { r = getContent(); });
  int fifo = -1;
  bool midFetch = feedFifo("killed.tgz", killed, 1 << 20, &fifo);
  Clock::time_point stalled = Clock::now();
  const std::string left = "size-left=\"" + std::to_string(9 << 20) + "\"";
  EXPECT_TRUE(midFetch &&
              waitFor(
                  [&] {
                    return readFile(local("migration.status")).find(left) !=
                           std::string::npos;
                  },
                  1000));
  EXPECT_LT(secondsSince(stalled), 0.4) << "figures not saved while stalled";
  SshdServer::shared().killConnections();
  Clock::time_point killedAt = Clock::now();
  run.join();
  if (fifo >= 0) close(fifo);
  EXPECT_LT(secondsSince(killedAt), 5);

  // The step's own failure wraps the cause, whose code is the exit code;
  // every file written is whole.
  expectFailedFetch(r, "SshConnectionFault", 18);
  EXPECT_EQ(compactXml(readFile(local("migration.status"))),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            "<migration-status><idle/></migration-status>\n");
  // What was fetched stays; the interrupted copy does not pass for an
  // archive; the source keeps everything not yet fetched.
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
  expectFetched(getContent());
  EXPECT_THAT(fetchedFiles(debugLog().substr(logBefore)),
              ElementsAre(local("killed.tgz"), local("last.tgz")));
}

// What a reader of "migration.status" saw: documents that were not
// whole, or figures that went back.
struct StatusReader {
  std::vector<std::string> faults;
  int reads = 0;
  void read(const std::string& doc) {
    static const std::regex files("<files [^>]*left=\"([0-9]+)\"[^>]*"
                                  "size-left=\"(-?[0-9]+)\""),
        current("<current-file[^>]*>([^<]*)<");
    std::smatch f, c;
    ++reads;
    if (doc.find("</migration-status>") == std::string::npos) {
      faults.push_back("not whole: " + doc);
    } else if (std::regex_search(doc, f, files)) {
      std::regex_search(doc, c, current);
      std::vector<long> now = {std::stol(f[1]), std::stol(f[2])};
      std::string name = c.empty() ? "" : c[1].str();
      if (now[0] > last[0] || now[1] > last[1] || name < name_)
        faults.push_back("went back: " + doc);
      last = now;
      name_ = name;
    }
  }
  std::vector<long> last = {LONG_MAX, LONG_MAX};
  std::string name_;
};

// A few hundred small archives, in several commands, from a server that
// lets a connection have two sessions at once. The connection is cut while the source stalls in
// the middle archive (a FIFO): every archive verified by then is gone from
// the source, no other one; the rerun completes, and a reader of the
// status document meanwhile sees only whole documents moving forward.
TEST_F(ContentFaultsTest, ManyArchivesSurviveACutUnderALimitOfTwoSessions) {
  SshdServer limited(2);
  login_ = sourceLogin(rootAccount(), false, limited);
  const size_t kCount = 300, kStall = 150;
  std::vector<std::string> bytes;
  for (size_t i = 0; i < kCount; ++i)
    // Long names: about 100 archives fill one command.
    bytes.push_back(addArchive(std::string(230, 's') + std::to_string(1000 + i) +
                                   ".tgz",
                               2000 + i, i != kStall));
  writeList();
  const std::string stalled = remote(listed_[kStall].name);
  ASSERT_EQ(0, mkfifo(stalled.c_str(), 0644));
  RunResult r;
  std::thread run([&] { r = getContent(); });
  int fifo = -1;
  bool reached =
      waitFor([&] {
        fifo = open(stalled.c_str(), O_WRONLY | O_NONBLOCK);
        return fifo >= 0;
      }) &&
      waitFor([&] { return !fileExists(remote(listed_[kStall - 1].name)); });
  limited.killConnections();
  run.join();
  if (fifo >= 0) close(fifo);
  ASSERT_TRUE(reached);
  expectFailedFetch(r, "SshConnectionFault", 18);
  for (size_t i = 0; i < kCount; ++i) {
    EXPECT_EQ(fileExists(remote(listed_[i].name)), i >= kStall) << i;
    EXPECT_EQ(fileExists(local(listed_[i].name)), i < kStall) << i;
  }

  unlink(stalled.c_str());
  writeFile(stalled, bytes[kStall]);
  std::atomic<bool> done{false};
  StatusReader reader;
  std::thread reading([&] {
    for (int round = 0; !done && round < 200000; ++round)
      reader.read(readFile(local("migration.status")));
  });
  expectFetched(getContent());
  done = true;
  reading.join();
  EXPECT_THAT(reader.faults, IsEmpty());
  EXPECT_GT(reader.reads, 10);
}

// The source's sending program dies in the middle of a batch (it waits
// on a FIFO): the step fails within seconds, naming the archive it never
// sent; what came before stays fetched and gone from the source.
TEST_F(ContentFaultsTest, SenderDyingMidBatchFailsTheStep) {
  std::string first = addArchive("first.tgz", 5000);
  addArchive("stuck.tgz", 5000, false);
  addArchive("last.tgz", 5000);
  writeList();
  ASSERT_EQ(0, mkfifo(remote("stuck.tgz").c_str(), 0644));
  auto isProgram = [](pid_t pid) {
    return procFile(pid, "cmdline").find("eval(pack(q(H*)") != std::string::npos;
  };
  pid_t sender = 0;  // the program whose parent is not the program
  RunResult r;
  std::thread run([&] { r = getContent(); });
  bool found = waitFor([&] { return !fileExists(remote("first.tgz")); }) &&
               waitFor([&] {
                 for (pid_t pid : allPids()) {
                   std::string status = procFile(pid, "status");
                   size_t at = status.find("PPid:");
                   if (isProgram(pid) && at != std::string::npos &&
                       !isProgram(std::atoi(status.c_str() + at + 5)))
                     sender = pid;
                 }
                 return sender != 0;
               });
  Clock::time_point killedAt = Clock::now();
  if (found) kill(sender, SIGKILL);
  run.join();
  ASSERT_TRUE(found);
  EXPECT_LT(secondsSince(killedAt), 5);
  expectFailedFetch(r, "CantRetrieveContentFile");
  EXPECT_THAT(record(), HasSubstr(remote("stuck.tgz") + "' from '127.0.0.1'"));
  EXPECT_THAT(record(), HasSubstr("before the archive was sent"));
  EXPECT_TRUE(readFile(local("first.tgz")) == first);
  EXPECT_FALSE(fileExists(local("stuck.tgz")) || fileExists(local("last.tgz")));
  EXPECT_TRUE(fileExists(remote("last.tgz")));
}

// What the source's sshd sent on the connections that ended since its log
// was `logBefore` long: it logs each when the connection closes.
uint64_t sentSince(size_t logBefore, int connections = 1) {
  static const std::regex sent("Transferred: sent ([0-9]+)");
  uint64_t total = 0;
  waitFor(
      [&] {
        std::string log = SshdServer::shared().logText().substr(logBefore);
        total = 0;
        int found = 0;
        for (std::sregex_iterator it(log.begin(), log.end(), sent), end;
             it != end; ++it, ++found)
          total += std::stoull((*it)[1]);
        return found >= connections;
      },
      5000);
  return total;
}

// The large archive is a FIFO: the run receives what the test writes, 60%
// of it, and is cut there (the connection killed, or ferrow sent SIGTERM).
// The rerun reads the whole archive from the source but receives only
// what the kept copy lacks.
class ResumeTest : public ContentFaultsTest {
 protected:
  static constexpr size_t kSize = 16 << 20, kCut = kSize * 6 / 10;

  std::string cutRun(const std::function<void()>& cut) {
    unlink(local("big.tgz").c_str());  // the previous case's
    unlink(remote("big.tgz").c_str());
    std::string bytes = addArchive("big.tgz", kSize, false);
    writeList();
    EXPECT_EQ(0, mkfifo(remote("big.tgz").c_str(), 0644));
    std::thread run([&] { last_ = getContent(); });
    int fifo = -1;
    bool reached = feedFifo("big.tgz", bytes, kCut, &fifo);
    if (reached) cut();
    run.join();
    if (fifo >= 0) close(fifo);
    EXPECT_TRUE(reached);
    EXPECT_FALSE(fileExists(local("big.tgz")));
    unlink(remote("big.tgz").c_str());
    writeFile(remote("big.tgz"), bytes);
    return bytes;
  }
  // The kept copies: NAME.part beside NAME.list.
  std::vector<std::string> kept() const {
    std::vector<std::string> found;
    boost::filesystem::path store(install_.productRoot() + "/QVT/partial");
    if (!boost::filesystem::exists(store)) return found;
    for (boost::filesystem::recursive_directory_iterator it(store), end;
         it != end; ++it)
      if (boost::filesystem::is_regular_file(it->path()))
        found.push_back(it->path().string());
    return found;
  }
  std::string keptPart() const {
    for (const std::string& path : kept())
      if (path.size() > 5 && path.compare(path.size() - 5, 5, ".part") == 0)
        return path;
    return "";
  }
  // Reruns; returns the bytes the source sent.
  uint64_t rerun() {
    size_t logBefore = SshdServer::shared().logText().size();
    expectFetched(getContent());
    EXPECT_THAT(kept(), IsEmpty());
    return sentSince(logBefore);
  }

  RunResult last_;
};

TEST_F(ResumeTest, ACutFetchResumesWhereItStopped) {
  const struct {
    const char* name;
    std::function<void()> cut;
    int exitCode;
  } cuts[] = {
      {"lost connection", [] { SshdServer::shared().killConnections(); }, 18},
      {"SIGTERM", [this] { kill(findFerrow(session()), SIGTERM); }, 0},
  };
  for (const auto& c : cuts) {
    SCOPED_TRACE(c.name);
    listed_.clear();
    cutRun(c.cut);
    EXPECT_EQ(last_.exitCode, c.exitCode) << last_.err;
    EXPECT_EQ(sizeOf(keptPart()), kCut);
    // Measured: 6 719 568 bytes sent for the 6 710 887 missing.
    uint64_t sent = rerun();
    EXPECT_LT(sent, kSize - kCut + (1 << 20));
    EXPECT_GT(sent, kSize - kCut);
  }
}

// A kept copy that cannot be trusted is dropped and the archive fetched
// whole: bytes altered (found only by the sum, then fetched again in the
// same run), a list that changed the archive's sum or size, a copy longer
// than listed; one of an archive no longer listed is dropped too.
TEST_F(ResumeTest, AnUntrustedKeptCopyGivesAWholeFetch) {
  auto relist = [this](const std::string& name, size_t size) {
    listed_.clear();
    std::string other = archiveBytes(size, 7);
    writeFile(remote(name), other);
    listed_.push_back({name, size, tovel::countMd5Sum(other)});
    writeList();
  };
  const struct {
    const char* name;
    std::function<void(const std::string&)> spoil;
    uint64_t minSent;
  } cases[] = {
      {"altered",
       [](const std::string& part) {
         int fd = open(part.c_str(), O_WRONLY);
         EXPECT_EQ(1, pwrite(fd, "\x01", 1, 4096));
         close(fd);
       },
       kSize + (kSize - kCut)},
      {"other sum", [&](const std::string&) { relist("big.tgz", kSize); },
       kSize},
      {"other size",
       [&](const std::string&) { relist("big.tgz", kSize + 1); }, kSize},
      {"no longer listed",
       [&](const std::string&) { relist("other.tgz", kSize); }, kSize},
      {"longer than listed",
       [](const std::string& part) {
         EXPECT_EQ(0, truncate(part.c_str(), kSize + 1));
       },
       kSize},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    listed_.clear();
    cutRun([] { SshdServer::shared().killConnections(); });
    std::string part = keptPart();
    ASSERT_EQ(sizeOf(part), kCut);
    c.spoil(part);
    EXPECT_GT(rerun(), c.minSent);
    EXPECT_EQ(record().find("Restarting download.") != std::string::npos,
              std::string(c.name) == "altered");
  }
}

// Each list after a sound first entry (one name check, one number parser,
// one XML parser): a clear error, nothing fetched or written anywhere.
TEST_F(ContentFaultsTest, HostileListsAreRefusedBeforeAnyFetch) {
  const struct {
    const char *files, *innerCode, *description;
  } lists[] = {
      // clang-format off
      {"<file size=\"9\">../outside.tgz</file>", "tError_WrongContent", "The content list names the file '../outside.tgz': a name must be relative and must not contain '..'."},
      {"<file size=\"ten\">b.tgz</file>", "tError_WrongContent", "Attribute 'size' of element 'file' is not a valid number: 'ten'."},
      {nullptr, "tError_ParseFile", "was not parsed successfully"},
      // clang-format on
  };
  std::string fine = addArchive("fine.tgz", 10);
  for (const auto& list : lists) {
    SCOPED_TRACE(list.description);
    std::string text =
        "<contentlist size=\"10\" unpacked=\"10\"><file size=\"10\">fine.tgz"
        "</file>" +
        std::string(list.files ? list.files : "") + "</contentlist>";
    writeFile(remote("contentlist.xml"),
              list.files ? text : text.substr(0, 60));
    size_t logBefore =
        fileExists(local("migration.log")) ? debugLog().size() : 0;
    expectFailedFetch(getContent(), list.innerCode);
    EXPECT_THAT(record(), HasSubstr(list.description));
    EXPECT_THAT(fetchedFiles(debugLog().substr(logBefore)), IsEmpty());
    EXPECT_EQ(readFile(remote("fine.tgz")), fine);
    EXPECT_FALSE(fileExists(local("fine.tgz")));
    EXPECT_FALSE(fileExists(install_.root() + "/outside.tgz"));
  }
  writeFile(remote("agent.sh"), "head -c 67108865 /dev/zero\n");
  expectFailedFetch(getContent(), "CantRetrieveContentList");
  EXPECT_THAT(record(), HasSubstr("longer than 67108864 bytes"));
}

// 64 MiB on standard error and on an output nobody reads, at once, then a
// failure: both streams are drained, memory stays bounded (a run needs
// about 14 MiB), and the error keeps both ends of what the program said.
TEST_F(ContentFaultsTest,
       FloodedDumpFailsWithBothEndsOfItsErrorsInBoundedMemory) {
  writeFile(remote("agent.sh"),
            "echo FIRST-ERROR-LINE >&2; z='head -c 67108864 /dev/zero'\n"
            "$z | tr '\\0' e >&2 & $z | tr '\\0' o & wait\n"
            "echo LAST-ERROR-LINE >&2; exit 3\n");
  install_.setWrapper(
      {"/usr/bin/time", "-f", "%M", "-o", install_.root() + "/peak"});
  // A sanitizer build would otherwise hold freed memory back.
  RunResult r =
      run({"--dump-all"}, {{"ASAN_OPTIONS", "quarantine_size_mb=16"}});
  EXPECT_EQ("2 Error during dump retrieval",
            std::to_string(r.exitCode) + " " + r.err);
  std::string record = readFile(local("migration.result"));
  for (const char* part :
       {"FIRST-ERROR-LINE", "LAST-ERROR-LINE", " bytes left out ...]"})
    EXPECT_THAT(record, HasSubstr(part));
  EXPECT_LT(record.size(), 512u * 1024);
  // time(1) puts "Command exited with non-zero status 2" first.
  std::string times = readFile(install_.root() + "/peak");
  EXPECT_LT(std::stol(times.substr(times.rfind('\n', times.size() - 2) + 1)),
            96 * 1024);
}

// SIGTERM (the migration manager) or SIGINT (a person at a terminal) stops
// ferrow between two chunks of a fetch (of a sparse 4 GiB archive), or
// while a silent dump runs, and the run still ends as a terminated one.
TEST_F(ContentFaultsTest, SignalStopsAFetchAndASilentCommand) {
  const uint64_t size = 4ull << 30;
  writeFile(remote("contentlist.xml"),
            "<contentlist size=\"" + std::to_string(size) +
                "\" unpacked=\"1\"><file size=\"" + std::to_string(size) +
                "\">big.tar</file></contentlist>");
  auto runAndSignal = [&](int sig, const std::vector<std::string>& args,
                          const std::function<bool()>& ready,
                          const std::string& recordName, double maxSeconds) {
    SCOPED_TRACE(std::string(sigabbrev_np(sig)) + " " + args[0]);
    RunResult r;
    std::thread running([&] { r = run(args); });
    bool started = waitFor(ready);
    pid_t pid = findFerrow(session());
    Clock::time_point signalled = Clock::now();
    if (started && pid != 0) kill(pid, sig);
    running.join();
    ASSERT_TRUE(started && pid != 0) << "the run never got going: " << r.err;
    EXPECT_LT(secondsSince(signalled), maxSeconds);
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("Migration has been terminated", r.out);
    EXPECT_EQ("", r.err);
    EXPECT_THAT(readFile(local("migration.status")),
                HasSubstr("</migration-status>"));
    EXPECT_THAT(readFile(local(recordName)),
                HasSubstr("<execution-result status=\"success\"/>"));
    EXPECT_THAT(debugLog(), HasSubstr("Migration has been terminated"));
  };
  for (int sig : {SIGTERM, SIGINT}) {
    writeFile(remote("agent.sh"), "cat contentlist.xml\n");
    writeFile(remote("big.tar"), "");
    ASSERT_EQ(0, truncate(remote("big.tar").c_str(), size));
    unlink(local("big.tar").c_str());
    runAndSignal(
        sig, {"--get-content", "--no-check-space"},
        [&] { return sizeOf(local("big.tar")) >= (8u << 20); },
        "transfer.result", 5);
    EXPECT_LT(sizeOf(local("big.tar")), size);
    // Nothing was fetched whole, so nothing is removed from the source.
    EXPECT_EQ(size, sizeOf(remote("big.tar")));

    writeFile(remote("agent.sh"), ": > started; exec sleep 20\n");
    unlink(remote("started").c_str());
    runAndSignal(
        sig, {"--dump-all"}, [&] { return fileExists(remote("started")); },
        "migration.result", 3);
  }
}

}  // namespace
}  // namespace ferrow_test
