// The receiving file counts and sums the bytes that reached it; the
// follower sums exactly what the writer reported, however it is cut, leaves
// no thread behind and never takes a signal meant for the process.
#include "transport/receiving_file.h"

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
#include "support/test_bytes.h"
#include "transport/file_follower.h"

namespace ferrow_test {
namespace {

using tovel::countMd5Sum;
using tovel::FileFollower;
using tovel::ReceivingFile;

// Counting, summing and truncating are shown by the fetches of ssh_test.
TEST(ReceivingFileTest, LimitsAndFailuresAreReportedNotThrown) {
  TempDir dir;
  const std::string path = dir.path() + "/a.tgz";
  ReceivingFile limited(path, 5);
  limited << "abc" << "de";
  EXPECT_TRUE(limited.good());
  limited << "f";
  EXPECT_EQ(limited.bytes(), 5u);
  EXPECT_FALSE(limited.close());
  EXPECT_EQ(limited.md5sum(), "");
  EXPECT_EQ(limited.error(), "received more than 5 bytes");
  EXPECT_EQ(readFile(path), "abcde");
  ReceivingFile done(path);
  done << "x";
  EXPECT_TRUE(done.close());
  done << "y";  // closed means closed
  EXPECT_EQ(done.bytes(), 1u);
  EXPECT_EQ(done.md5sum(), countMd5Sum(std::string("x")));

  ReceivingFile missing(dir.path() + "/no/a.tgz");
  EXPECT_TRUE(missing.bad());
  EXPECT_FALSE(missing.close());
  EXPECT_EQ(missing.error(), "cannot create " + dir.path() +
                                 "/no/a.tgz: No such file or directory");
}

class FollowedFile {
 public:
  explicit FollowedFile(const std::string& path)
      : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {}
  ~FollowedFile() { close(fd_); }
  int fd() const { return fd_; }
  // Appends data in pieces of the given sizes (cycled), reporting each.
  void append(FileFollower& follower, const std::string& data,
              const std::vector<size_t>& pieces) {
    for (size_t at = 0, i = 0; at < data.size(); ++i) {
      size_t size = std::min(pieces[i % pieces.size()], data.size() - at);
      ASSERT_EQ(write(fd_, data.data() + at, size), ssize_t(size));
      at += size;
      follower.written(at);
    }
  }

 private:
  int fd_;
};

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
  const std::set<std::string> before = threadIds();
  const struct {
    size_t size;
    std::vector<size_t> pieces;
    bool thread;  // a file under 1 MiB costs none
  } cases[] = {
      {0, {1}, false},
      {1000000, {65536}, false},
      {(20 << 20) + 17, {65536}, true},            // many batches, odd tail
      {(9 << 20) + 3, {1, 4095, 70001, 3}, true},  // odd pieces
      {3 << 20, {3 << 20}, true},                  // one write
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    const std::string data = archiveBytes(c.size, unsigned(c.size));
    FollowedFile file(dir.path() + "/a.tgz");
    FileFollower follower(file.fd());
    file.append(follower, data, c.pieces);
    EXPECT_EQ(threadIds().size(), before.size() + (c.thread ? 1 : 0));
    std::string error = "not set";
    EXPECT_EQ(follower.finish(&error), countMd5Sum(data));
    EXPECT_EQ(error, "");
    EXPECT_EQ(follower.finish(&error), countMd5Sum(data));
  }
  for (size_t size : {100000, 3 << 20}) {  // without and with the thread
    FollowedFile file(dir.path() + "/a.tgz");
    FileFollower follower(file.fd());
    file.append(follower, archiveBytes(size, 1), {65536});
    // Cut behind the follower's back: it finds less than was reported.
    ASSERT_EQ(ftruncate(file.fd(), 10), 0);
    follower.written(size + 1);
    std::string error;
    EXPECT_EQ(follower.finish(&error), "");
    EXPECT_EQ(error, "the file became shorter");
  }
  for (int i = 0; i < 100; ++i) {
    FollowedFile file(dir.path() + "/a.tgz");
    auto follower = std::make_unique<FileFollower>(file.fd());
    file.append(*follower, archiveBytes(3 << 20, 5), {65536});
    std::string error;
    if (i % 2 == 0) follower->finish(&error);
    follower.reset();  // odd rounds: abandoned with work in hand
  }
  EXPECT_EQ(threadIds(), before);
}

// The process's handlers must run on the writer's thread, where the signal
// guards hold signals back; the sum must not take CPU time from the writer.
TEST(FileFollowerTest, TheThreadStaysOutOfTheWritersWay) {
  TempDir dir;
  FollowedFile file(dir.path() + "/a.tgz");
  const std::set<std::string> before = threadIds();
  FileFollower follower(file.fd());
  file.append(follower, archiveBytes(3 << 20, 9), {65536});
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
    // The thread lowers itself once it runs: up to 2 s to start.
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

}  // namespace
}  // namespace ferrow_test
