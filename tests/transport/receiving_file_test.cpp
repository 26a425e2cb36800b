// Receiving a remote file into a local one: the bytes that reached the
// file are counted and summed on the way, and a local write failure stops
// the fetch without losing the connection.
#include "transport/receiving_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>

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
