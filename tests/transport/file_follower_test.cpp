// The follower sums exactly what the writer reported, however the writes
// are cut, reports a file that shrank behind it, leaves no thread behind,
// and never takes a signal meant for the process.
#include "transport/file_follower.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commons/checksum.h"
#include "support/ferrow_runner.h"

namespace ferrow_test {
namespace {

using tovel::countMd5Sum;
using tovel::FileFollower;

std::string noisyBytes(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    seed = seed * 1103515245u + 12345u;
    bytes[i] = static_cast<char>(seed >> 16);
  }
  return bytes;
}

class FollowedFile {
 public:
  explicit FollowedFile(const std::string& path)
      : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    EXPECT_GE(fd_, 0);
  }
  ~FollowedFile() { close(fd_); }
  int fd() const { return fd_; }
  // Appends data in pieces of the given sizes (cycled), reporting each.
  void append(FileFollower& follower, const std::string& data,
              const std::vector<size_t>& pieces) {
    for (size_t at = 0, i = 0; at < data.size(); ++i) {
      size_t size = std::min(pieces[i % pieces.size()], data.size() - at);
      ASSERT_EQ(write(fd_, data.data() + at, size), ssize_t(size));
      at += size;
      written_ += size;
      follower.written(written_);
    }
  }

 private:
  int fd_;
  uint64_t written_ = 0;
};

// Ids of this process's threads, from /proc.
std::set<std::string> threadIds() {
  std::set<std::string> ids;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ids.insert(entry->d_name);
  }
  closedir(dir);
  return ids;
}

TEST(FileFollowerTest, SumsWhatWasReportedHoweverItIsCut) {
  TempDir dir;
  struct Case {
    size_t size;
    std::vector<size_t> pieces;
  } cases[] = {
      {0, {1}},
      {1, {1}},
      {300000, {65536}},                     // under one batch
      {(20 << 20) + 17, {65536}},            // many batches, odd tail
      {(9 << 20) + 3, {1, 4095, 70001, 3}},  // odd pieces
      {3 << 20, {3 << 20}},                  // one write of several batches
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    const std::string data = noisyBytes(c.size, unsigned(c.size));
    FollowedFile file(dir.path() + "/a.tgz");
    FileFollower follower(file.fd());
    file.append(follower, data, c.pieces);
    std::string error = "not set";
    EXPECT_EQ(follower.finish(&error), countMd5Sum(data));
    EXPECT_EQ(error, "");
    // A second finish returns the same without waiting for anything.
    EXPECT_EQ(follower.finish(&error), countMd5Sum(data));
  }
}

TEST(FileFollowerTest, AFileThatShrankIsReportedNotSummed) {
  TempDir dir;
  for (size_t size : {100000, 3 << 20}) {  // without and with the thread
    FollowedFile file(dir.path() + "/a.tgz");
    FileFollower follower(file.fd());
    file.append(follower, noisyBytes(size, 1), {65536});
    // Cut behind the follower's back: it finds less than was reported,
    // whether it had already read the start or not.
    ASSERT_EQ(ftruncate(file.fd(), 10), 0);
    follower.written(size + 1);
    std::string error;
    EXPECT_EQ(follower.finish(&error), "");
    EXPECT_EQ(error, "the file became shorter");
  }
}

TEST(FileFollowerTest, NoThreadOutlivesItsFollower) {
  TempDir dir;
  const std::set<std::string> before = threadIds();
  for (int i = 0; i < 200; ++i) {
    FollowedFile file(dir.path() + "/a.tgz");
    auto follower = std::make_unique<FileFollower>(file.fd());
    file.append(*follower, noisyBytes(3 << 20, 5), {65536});
    if (i % 2 == 0) {
      std::string error;
      follower->finish(&error);
    }
    follower.reset();  // odd rounds: abandoned with work in hand
  }
  EXPECT_EQ(threadIds(), before);
}

// The process's handlers must run on the writer's thread, where the signal
// guards around blocking library calls hold signals back; and the sum must
// not take CPU time from the writer while it writes.
TEST(FileFollowerTest, TheThreadStaysOutOfTheWritersWay) {
  TempDir dir;
  FollowedFile file(dir.path() + "/a.tgz");
  const std::set<std::string> before = threadIds();
  FileFollower follower(file.fd());
  file.append(follower, noisyBytes(3 << 20, 9), {65536});
  int followers = 0;
  for (const std::string& tid : threadIds()) {
    if (before.count(tid) != 0) continue;
    ++followers;
    std::ifstream status("/proc/self/task/" + tid + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("SigBlk:", 0) != 0) {
    }
    uint64_t blocked = std::strtoull(line.c_str() + 7, nullptr, 16);
    for (int sig : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1}) {
      EXPECT_NE(blocked & (1ULL << (sig - 1)), 0u) << strsignal(sig);
    }
    // The thread lowers itself once it runs: give it up to 2 s to start.
    int policy = sched_getscheduler(std::stoi(tid));
    for (int i = 0; i < 100 && policy != SCHED_IDLE; ++i) {
      usleep(20000);
      policy = sched_getscheduler(std::stoi(tid));
    }
    EXPECT_EQ(policy, SCHED_IDLE);
  }
  EXPECT_EQ(followers, 1);
  std::string error;
  follower.finish(&error);
}

// A file under 1 MiB is summed when it is complete, without a thread.
TEST(FileFollowerTest, ASmallFileCostsNoThread) {
  TempDir dir;
  FollowedFile file(dir.path() + "/a.tgz");
  const std::set<std::string> before = threadIds();
  FileFollower follower(file.fd());
  const std::string data = noisyBytes(1000000, 3);
  file.append(follower, data, {65536});
  EXPECT_EQ(threadIds(), before);
  std::string error;
  EXPECT_EQ(follower.finish(&error), countMd5Sum(data));
}

}  // namespace
}  // namespace ferrow_test
