// Receiving a remote file into a local one: the bytes that reached the
// file are counted and summed on the way, and a local write failure stops
// the fetch without losing the connection.
#include "transport/receiving_file.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "commons/checksum.h"
#include "support/ferrow_runner.h"
#include "support/sshd_server.h"
#include "transport/ssh_transfer.h"

namespace ferrow_test {
namespace {

using tovel::countMd5Sum;
using tovel::ReceivingFile;
using tovel::Ssh;

std::string noisyBytes(size_t size) {
  std::string bytes(size, '\0');
  unsigned seed = 7;
  for (size_t i = 0; i < size; ++i) {
    seed = seed * 1103515245u + 12345u;
    bytes[i] = static_cast<char>(seed >> 16);
  }
  return bytes;
}

TEST(ReceivingFileTest, CountsAndSumsWhatReachedTheFile) {
  TempDir dir;
  const std::string path = dir.path() + "/a.tgz";
  writeFile(path, "an older, longer copy that must be truncated away");
  const std::string data = noisyBytes(200000);
  ReceivingFile file(path);
  file.write(data.data(), 1);
  file.write(data.data() + 1, 0);
  file.write(data.data() + 1, 65535);
  file << data.substr(65536);
  ASSERT_TRUE(file.good());
  EXPECT_TRUE(file.close());
  EXPECT_EQ(file.error(), "");
  EXPECT_EQ(file.bytes(), data.size());
  EXPECT_EQ(file.md5sum(), countMd5Sum(data));
  EXPECT_TRUE(readFile(path) == data);
  // Closed means closed: nothing more is taken.
  file.write("x", 1);
  EXPECT_EQ(file.bytes(), data.size());
}

TEST(ReceivingFileTest, NothingBeyondTheLimitIsTaken) {
  TempDir dir;
  ReceivingFile file(dir.path() + "/a.tgz", 5);
  file << "abc"
       << "de";
  EXPECT_TRUE(file.good());
  file << "f";
  EXPECT_TRUE(file.bad());
  EXPECT_EQ(file.bytes(), 5u);
  EXPECT_FALSE(file.close());
  EXPECT_EQ(file.error(), "received more than 5 bytes");
  EXPECT_EQ(readFile(dir.path() + "/a.tgz"), "abcde");
}

TEST(ReceivingFileTest, FailuresAreReportedNotThrown) {
  ReceivingFile full("/dev/full");
  full.write("abc", 3);
  // The write is taken; its failure is known once it was tried, and fails
  // the next one.
  EXPECT_EQ(full.error(), "cannot write /dev/full: No space left on device");
  full.write("def", 3);
  EXPECT_TRUE(full.bad());
  EXPECT_EQ(full.bytes(), 0u);
  EXPECT_FALSE(full.close());
  EXPECT_EQ(full.error(), "cannot write /dev/full: No space left on device");

  TempDir dir;
  ReceivingFile missing(dir.path() + "/no/such/dir/a.tgz");
  EXPECT_TRUE(missing.bad());
  EXPECT_FALSE(missing.close());
  EXPECT_EQ(missing.error(), "cannot create " + dir.path() +
                                 "/no/such/dir/a.tgz: No such file or "
                                 "directory");
}

std::set<std::string> threadIds() {
  std::set<std::string> ids;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/proc/self/task"), closedir);
  while (dirent* entry = readdir(dir.get())) {
    if (entry->d_name[0] != '.') ids.insert(entry->d_name);
  }
  return ids;
}

// A joined thread can stay listed for a moment; a leaked one stays.
size_t threadCountSettlingTo(size_t expected) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  size_t count = threadIds().size();
  while (count != expected && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    count = threadIds().size();
  }
  return count;
}

TEST(ReceivingFileTest, OddPiecesOfALongStreamSumAsInOneGo) {
  TempDir dir;
  const std::string path = dir.path() + "/a.tgz";
  const std::string data = noisyBytes(20 << 20);
  // Sizes that straddle the 64 KiB chunk buffers in every way.
  const size_t pieces[] = {1, 65535, 65537, 7, 131072, 4093, 200001, 65536};
  ReceivingFile file(path);
  size_t offered = 0;
  for (int i = 0; offered < data.size(); ++i) {
    size_t size = std::min(pieces[i % 8], data.size() - offered);
    ASSERT_TRUE(file.write(data.data() + offered, size));
    offered += size;
    if (i == 50) {
      EXPECT_EQ(file.bytes(), offered);
    }
  }
  EXPECT_TRUE(file.close());
  EXPECT_EQ(file.error(), "");
  EXPECT_EQ(file.bytes(), data.size());
  EXPECT_EQ(file.md5sum(), countMd5Sum(data));
  EXPECT_TRUE(readFile(path) == data);
}

TEST(ReceivingFileTest, LaterWriteAndCloseReportAFailedWrite) {
  const std::string chunk(65536, 'x');
  const std::string noSpace = "cannot write /dev/full: No space left on device";
  // A stream of chunks stops within the few buffers in flight.
  ReceivingFile streamed("/dev/full");
  int taken = 0;
  while (taken < 100 && streamed.write(chunk.data(), chunk.size())) ++taken;
  EXPECT_LE(taken, 4);
  EXPECT_TRUE(streamed.bad());
  EXPECT_EQ(streamed.bytes(), 0u);
  EXPECT_FALSE(streamed.close());
  EXPECT_EQ(streamed.error(), noSpace);

  // Only close() is left to tell of a failed last write.
  ReceivingFile last("/dev/full");
  ASSERT_TRUE(last.write(chunk.data(), 10));
  EXPECT_FALSE(last.close());
  EXPECT_TRUE(last.bad());
  EXPECT_EQ(last.error(), noSpace);
}

TEST(ReceivingFileTest, DestroyedUnclosedItWritesWhatItTookAndStops) {
  const size_t threads = threadIds().size();
  TempDir dir;
  const std::string data = noisyBytes(4 << 20);
  {
    ReceivingFile file(dir.path() + "/a.tgz");
    file.write(data.data(), data.size());
  }
  EXPECT_TRUE(readFile(dir.path() + "/a.tgz") == data);
  EXPECT_EQ(threadCountSettlingTo(threads), threads);
  {
    ReceivingFile full("/dev/full");
    for (int i = 0; i < 3; ++i) full.write(data.data(), 65536);
  }
  EXPECT_EQ(threadCountSettlingTo(threads), threads);
}

TEST(ReceivingFileTest, ManyFilesInARowLeaveNoThreadBehind) {
  const size_t threads = threadIds().size();
  TempDir dir;
  const std::string data = noisyBytes(100000);
  const std::string sum = countMd5Sum(data);
  for (int i = 0; i < 300; ++i) {
    ReceivingFile file(dir.path() + "/" + std::to_string(i % 3));
    file.write(data.data(), data.size());
    ASSERT_TRUE(file.close()) << file.error();
    ASSERT_EQ(file.md5sum(), sum);
  }
  EXPECT_EQ(threadCountSettlingTo(threads), threads);
}

// Handlers of SIGALRM, SIGTERM and SIGINT must keep running on the thread
// that pumps the connection, never on the one writing the file.
TEST(ReceivingFileTest, WritingThreadBlocksSignals) {
  TempDir dir;
  const std::set<std::string> before = threadIds();
  ReceivingFile file(dir.path() + "/a.tgz");
  file.write("abc", 3);
  std::set<std::string> added;
  for (const std::string& id : threadIds()) {
    if (before.count(id) == 0) added.insert(id);
  }
  ASSERT_EQ(added.size(), 1u);
  std::istringstream status(
      readFile("/proc/self/task/" + *added.begin() + "/status"));
  std::string line;
  unsigned long long blocked = 0;
  while (std::getline(status, line)) {
    if (line.rfind("SigBlk:", 0) == 0)
      blocked = std::strtoull(line.c_str() + 7, nullptr, 16);
  }
  for (int sig : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE}) {
    EXPECT_TRUE(blocked & (1ull << (sig - 1))) << "signal " << sig;
  }
  EXPECT_TRUE(file.close());
}

class ReceiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    chmod(dir_.path().c_str(), 0755);
    ssh_ = std::make_unique<Ssh>("127.0.0.1", rootAccount().name,
                                 rootAccount().password, false,
                                 SshdServer::shared().port());
  }

  TempDir dir_;
  std::unique_ptr<Ssh> ssh_;
};

class ByteCounter : public Ssh::Counter {
 public:
  void update(size_t bytes) override { total += bytes; }
  size_t total = 0;
};

TEST_F(ReceiveTest, ReceiptMatchesTheRemoteFile) {
  const std::string data = noisyBytes(3 << 20);
  writeFile(dir_.path() + "/remote.tgz", data);
  std::ostringstream err;
  ByteCounter counter;
  Ssh::Receipt receipt = ssh_->receive(dir_.path() + "/remote.tgz", err,
                                       dir_.path() + "/local.tgz", counter);
  EXPECT_EQ(receipt.status, 0);
  EXPECT_EQ(receipt.writeError, "");
  EXPECT_EQ(receipt.bytes, data.size());
  EXPECT_EQ(counter.total, data.size());
  EXPECT_EQ(receipt.md5sum, countMd5Sum(data));
  EXPECT_TRUE(readFile(dir_.path() + "/local.tgz") == data);

  receipt = ssh_->receive(dir_.path() + "/missing.tgz", err,
                          dir_.path() + "/local.tgz", Ssh::null_counter);
  EXPECT_EQ(receipt.status, 1);
  EXPECT_EQ(receipt.bytes, 0u);
  EXPECT_EQ(err.str(), "cat: " + dir_.path() +
                           "/missing.tgz: No such file or directory\n");
}

TEST_F(ReceiveTest, WriteFailureStopsAtOnceAndKeepsTheConnection) {
  auto start = std::chrono::steady_clock::now();
  std::ostringstream err;
  ByteCounter counter;
  // Endless data into a full device: only a prompt stop ends this.
  Ssh::Receipt receipt = ssh_->receive("/dev/zero", err, "/dev/full", counter);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(receipt.status, -1);
  EXPECT_EQ(receipt.bytes, 0u);
  EXPECT_EQ(receipt.writeError,
            "cannot write /dev/full: No space left on device");
  EXPECT_GT(counter.total, 0u);
  // The described get overload reports the same failure as StreamWrite.
  EXPECT_THROW(ssh_->get("/dev/zero", err, "/dev/full", counter),
               tovel::Exc<&tovel::StreamWrite>);

  std::ostringstream out;
  EXPECT_EQ(ssh_->get(out, "/proc/self/cmdline"), 0);
  EXPECT_EQ(out.str().substr(0, 3), std::string("cat", 3));
}

}  // namespace
}  // namespace ferrow_test
