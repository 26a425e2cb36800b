// The SSH transport against the real sshd: commands, transfers, lost
// connections, termination; the follower that sums what was written.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commons/checksum.h"
#include "commons/termination.h"
#include "support/sshd_server.h"
#include "transport/file_follower.h"
#include "transport/libssh2_errors.h"
#include "transport/session.h"
#include "transport/ssh_transfer.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using tovel::Exc;
using tovel::Ssh;
using Clock = std::chrono::steady_clock;

std::unique_ptr<Ssh> login(const TestAccount& account, bool plain = false) {
  tovel::HostKeyPolicy unchecked;  // the end-to-end tests check keys
  unchecked.checking = tovel::HostKeyChecking::kNo;
  return std::make_unique<Ssh>("127.0.0.1", account.name, account.password,
                               plain, SshdServer::shared().port(), unchecked);
}

// Runs command; "STATUS|OUT|ERR".
std::string run(Ssh& ssh, const std::string& command,
                const std::string& input = "",
                Ssh::Counter& counter = Ssh::null_counter) {
  std::istringstream in(input);
  std::ostringstream out, err;
  int status = ssh.exec(command, in, out, err, false, false, counter);
  return std::to_string(status) + "|" + out.str() + "|" + err.str();
}

// Counts, or at its first chunk calls onFirst.
struct Counting : Ssh::Counter {
  void update(size_t bytes) override {
    if (chunks++ == 0 && onFirst) onFirst();
    total += bytes;
  }
  size_t total = 0, chunks = 0;
  std::function<void()> onFirst;
};

class SshTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }
};

TEST_F(SshTest, StatusStreamsInputAndSignals) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  EXPECT_EQ(run(*ssh, "echo out; echo err >&2; exit 3"), "3|out\n|err\n");
  // cat ends only when its input does: EOF is sent at once.
  EXPECT_EQ(run(*ssh, "cat; echo done", "a line\nno break"),
            "0|a line\nno breakdone\n|");
  EXPECT_EQ(run(*ssh, "exit 4", std::string(4 << 20, 'x')), "4||");
  // A command killed by a signal does not look successful.
  EXPECT_EQ(run(*ssh, "kill -TERM $$"), std::to_string(128 + SIGTERM) + "||");
  Counting counter;
  EXPECT_TRUE(run(*ssh, "head -c 300000 /dev/zero; echo noise >&2", "",
                  counter) == "0|" + std::string(300000, '\0') + "|noise\n");
  EXPECT_EQ(counter.total, 300000u);  // standard output only
  EXPECT_GE(counter.chunks, 5u);      // chunks of at most 64 KiB
  // This libssh2 has no "none" cipher: the session is refused, not opened
  // encrypted behind the user's back.
  EXPECT_THROW(login(plainAccount(), true), Exc<&tovel::UnableToStartSshSession>);
  // No descriptor left for the socket: the same failure, not a stray
  // runtime_error. (A sanitizer build cannot check a call without a free
  // descriptor of its own.)
#if !defined(__SANITIZE_ADDRESS__)
  rlimit saved, none;
  getrlimit(RLIMIT_NOFILE, &saved);
  const int next = dup(0);
  close(next);
  none = {static_cast<rlim_t>(next), saved.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  std::string message;
  try {
    login(plainAccount());
  } catch (const Exc<&tovel::UnableToStartSshSession>& e) {
    message = e.what();
  }
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(message, "Unable to start SSH session: socket: Too many open files");
#endif
}

TEST_F(SshTest, LargeInputAndOutputFlowTogether) {
  // Input sent whole before reading would deadlock once both channel
  // windows and pipe buffers are full: a few MiB each way.
  const std::string input = archiveBytes(8 << 20, 3);
  std::istringstream in(input);
  std::ostringstream out, err;
  EXPECT_EQ(login(plainAccount())
                ->exec("cat", in, out, err, true, true, Ssh::null_counter),
            0);
  EXPECT_TRUE(out.str() == input);
}

TEST_F(SshTest, ReceiveMovesEveryByteAndStopsAtOnceAtAWriteFailure) {
  TempDir dir;
  chmod(dir.path().c_str(), 0777);
  const std::string content = archiveBytes(3 << 20, 1) + "secret-content";
  const std::string remote = dir.path() + "/a file; with $odd 'name'";
  writeFile(remote, content);
  LogCapture log("p.Ssh");
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  std::ostringstream err;
  const std::string local = dir.path() + "/copy";
  writeFile(local, std::string(4 << 20, 'o'));  // truncated away
  Counting counter;
  Ssh::Receipt receipt = ssh->receive(remote, err, local, counter);
  EXPECT_EQ(std::to_string(receipt.status) + "|" + receipt.writeError + "|" +
                std::to_string(receipt.bytes) + "|" + receipt.md5sum + "|" +
                std::to_string(counter.total),
            "0||" + std::to_string(content.size()) + "|" +
                tovel::countMd5Sum(content) + "|" +
                std::to_string(content.size()));
  EXPECT_TRUE(readFile(local) == content);
  EXPECT_THAT(log.lines(),
              ::testing::Each(::testing::Not(HasSubstr("secret-content"))));
  receipt = ssh->receive(dir.path() + "/missing", err, local, counter);
  EXPECT_EQ(std::to_string(receipt.status) + "|" +
                std::to_string(receipt.bytes) + "|" + err.str(),
            "1|0|cat: " + dir.path() + "/missing: No such file or directory\n");

  auto start = Clock::now();
  // Endless data into a full device: only a prompt stop ends this.
  receipt = ssh->receive("/dev/zero", err, "/dev/full", counter);
  EXPECT_EQ(std::to_string(receipt.status) + "|" +
                std::to_string(receipt.bytes) + "|" + receipt.writeError,
            "-1|0|cannot write /dev/full: No space left on device");
  EXPECT_THROW(ssh->get("/dev/zero", err, "/dev/full", counter),
               Exc<&tovel::StreamWrite>);
  // More than the limit is a write failure too, and also stops the fetch.
  receipt = ssh->receive("/dev/zero", err, dir.path() + "/z", counter, 100000);
  EXPECT_EQ(receipt.writeError, "received more than 100000 bytes");
  EXPECT_LE(receipt.bytes, 100000u);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(run(*ssh, "echo still"), "0|still\n|");
}

// A terminated run does not wait for the remote command: it drops the
// connection.
TEST_F(SshTest, TerminationStopsATransferBetweenChunksAndDropsTheConnection) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  Counting terminator;
  terminator.onFirst = [] { tovel::terminateProgram(); };
  std::ostringstream out, err;
  auto start = Clock::now();
  EXPECT_THROW(ssh->exec("head -c 50000000 /dev/zero; sleep 20", out, err, true,
                         terminator),
               tovel::MigrationTerminatedException);
  tovel::isProgramTerminated = false;
  EXPECT_LT(out.str().size(), 50000000u);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_THROW(run(*ssh, "echo gone"), Exc<&tovel::SshConnectionFault>);
}

std::set<std::string> threadIds() {
  std::set<std::string> ids;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ids.insert(entry->d_name);
  closedir(dir);
  return ids;
}

// However the writes are cut, the sum is that of what was reported; a file
// cut behind its back is refused; no thread outlives its follower.
TEST(FileFollowerTest, SumsWhatWasReportedHoweverItIsCut) {
  TempDir dir;
  const std::set<std::string> before = threadIds();
  // Writes size bytes to a new file in pieces of the given sizes (cycled),
  // reporting each; returns the follower and the bytes' sum.
  auto follow = [&](size_t size, std::vector<size_t> pieces, int* fd) {
    *fd = open((dir.path() + "/f").c_str(),
               O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    auto follower = std::make_unique<tovel::FileFollower>(*fd);
    const std::string data = archiveBytes(size, unsigned(size));
    for (size_t at = 0, i = 0; at < size; ++i) {
      size_t piece = std::min(pieces[i % pieces.size()], size - at);
      EXPECT_EQ(write(*fd, data.data() + at, piece), ssize_t(piece));
      follower->written(at += piece);
    }
    return std::make_pair(std::move(follower), tovel::countMd5Sum(data));
  };
  // clang-format off
  const struct { size_t size; std::vector<size_t> pieces; bool thread; } cases[] = {
      {1000000, {65536}, false},                    // under 1 MiB: no thread
      {(20 << 20) + 17, {65536}, true},             // many batches, odd tail
      {(9 << 20) + 3, {1, 4095, 70001, 3}, true},   // odd pieces
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    int fd = -1;
    auto [follower, sum] = follow(c.size, c.pieces, &fd);
    EXPECT_EQ(threadIds().size(), before.size() + (c.thread ? 1 : 0));
    std::string error = "not set";
    EXPECT_EQ(follower->finish(&error) + error, sum);
    EXPECT_EQ(follower->finish(&error), sum);
    close(fd);
  }
  int fd = -1;  // a file cut behind the follower's back
  auto followed = follow(3 << 20, {65536}, &fd);
  ASSERT_EQ(ftruncate(fd, 10), 0);
  followed.first->written((3 << 20) + 1);
  std::string error;
  EXPECT_EQ(followed.first->finish(&error) + error, "the file became shorter");
  close(fd);
  followed = follow(3 << 20, {65536}, &fd);  // abandoned with work in hand
  followed.first.reset();
  close(fd);
  EXPECT_EQ(threadIds(), before);
}

}  // namespace
}  // namespace ferrow_test
