// The SSH transport against the real sshd on 127.0.0.1: login, remote
// commands with their streams and status, transfers by cat, lost
// connections and the termination flag.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libssh2.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>

#include "commons/checksum.h"
#include "commons/socket.h"
#include "commons/termination.h"
#include "errors/tags.h"
#include "support/log_capture.h"
#include "support/sshd_server.h"
#include "support/test_bytes.h"
#include "transport/session.h"
#include "transport/ssh_transfer.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using tovel::Exc;
using tovel::Ssh;
using Clock = std::chrono::steady_clock;

std::unique_ptr<Ssh> login(const TestAccount& account) {
  return std::make_unique<Ssh>("127.0.0.1", account.name, account.password,
                               false, SshdServer::shared().port());
}

struct Outcome {
  int status;
  std::string out, err;
};

Outcome run(Ssh& ssh, const std::string& command, const std::string& input = "",
            Ssh::Counter& counter = Ssh::null_counter) {
  std::istringstream in(input);
  std::ostringstream out, err;
  int status = ssh.exec(command, in, out, err, false, false, counter);
  return {status, out.str(), err.str()};
}

struct Counting : Ssh::Counter {
  void update(size_t bytes) override { total += bytes, ++chunks; }
  size_t total = 0, chunks = 0;
};

class SshTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }
};

// Archives travel on exec channels: their window must be far beyond the
// 64 KiB of the library's default for a long round trip.
TEST_F(SshTest, ExecChannelsOfferTheLargeWindow) {
  tovel::Socket socket("127.0.0.1", SshdServer::shared().port());
  tovel::libssh2pp::Session session(socket.fd(), false, false);
  session.authorize(rootAccount().name, rootAccount().password);
  using tovel::libssh2pp::Channel;
  for (auto mode : {Channel::kBlocking, Channel::kNonBlocking}) {
    std::unique_ptr<Channel> channel = session.openExecChannel("true", mode);
    unsigned long initial = 0;
    libssh2_channel_window_read_ex(channel->get(), nullptr, &initial);
    EXPECT_EQ(initial, tovel::libssh2pp::Session::kExecChannelWindowSize);
  }
}

TEST_F(SshTest, StatusStreamsInputAndSignals) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  Outcome both = run(*ssh, "echo out; echo err >&2; exit 3");
  EXPECT_EQ(both.status, 3);
  EXPECT_EQ(both.out, "out\n");
  EXPECT_EQ(both.err, "err\n");
  // cat ends only when its input does: EOF is sent at once.
  EXPECT_EQ(run(*ssh, "cat").status, 0);
  EXPECT_EQ(run(*ssh, "cat; echo done", "a line\nno break").out,
            "a line\nno breakdone\n");
  EXPECT_EQ(run(*ssh, "exit 4", std::string(4 << 20, 'x')).status, 4);
  // A command killed by a signal does not look successful.
  EXPECT_EQ(run(*ssh, "kill -9 $$").status, 128 + SIGKILL);
  EXPECT_EQ(run(*ssh, "kill -TERM $$").status, 128 + SIGTERM);

  Counting counter;
  Outcome counted = run(*ssh, "head -c 300000 /dev/zero; echo noise >&2; "
                              "echo more >&2", "", counter);
  EXPECT_EQ(counted.out.size(), 300000u);
  EXPECT_EQ(counter.total, 300000u);  // standard output only
  EXPECT_GE(counter.chunks, 5u);      // chunks of at most 64 KiB
}

TEST_F(SshTest, LargeInputAndOutputFlowTogether) {
  // 64 MiB each way through one command: input sent whole before reading
  // would deadlock once both windows are full.
  const std::string input = archiveBytes(64 << 20, 3);
  std::istringstream in(input);
  std::ostringstream out, err;
  EXPECT_EQ(login(plainAccount())->exec("cat", in, out, err, true, true,
                                        Ssh::null_counter),
            0);
  EXPECT_TRUE(out.str() == input);
}

TEST_F(SshTest, PutGetAndReceiveMoveEveryByteAndLogNone) {
  TempDir dir;
  chmod(dir.path().c_str(), 0777);
  const std::string content = archiveBytes(3 << 20, 1) + "secret-content";
  const std::string remote = dir.path() + "/a file; with $odd 'name'";
  LogCapture log("p.Ssh");
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  std::istringstream in(content);
  ssh->put(in, remote);
  EXPECT_TRUE(readFile(remote) == content);
  std::ostringstream out, err;
  EXPECT_EQ(ssh->get(out, remote), 0);
  EXPECT_TRUE(out.str() == content);
  const std::string local = dir.path() + "/copy";
  writeFile(local, std::string(4 << 20, 'o'));  // truncated away
  Counting counter;
  Ssh::Receipt receipt = ssh->receive(remote, err, local, counter);
  EXPECT_EQ(receipt.status, 0);
  EXPECT_EQ(receipt.writeError, "");
  EXPECT_EQ(receipt.bytes, content.size());
  EXPECT_EQ(counter.total, content.size());
  EXPECT_EQ(receipt.md5sum, tovel::countMd5Sum(content));
  EXPECT_TRUE(readFile(local) == content);
  for (const std::string& line : log.lines()) {
    EXPECT_THAT(line, ::testing::Not(HasSubstr("secret-content")));
  }

  receipt = ssh->receive(dir.path() + "/missing", err, local, counter);
  EXPECT_EQ(receipt.status, 1);
  EXPECT_EQ(receipt.bytes, 0u);
  EXPECT_EQ(err.str(),
            "cat: " + dir.path() + "/missing: No such file or directory\n");
}

TEST_F(SshTest, WriteFailureStopsTheReceiptAtOnceAndKeepsTheConnection) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  std::ostringstream err;
  Counting counter;
  auto start = Clock::now();
  // Endless data into a full device: only a prompt stop ends this.
  Ssh::Receipt receipt = ssh->receive("/dev/zero", err, "/dev/full", counter);
  EXPECT_EQ(receipt.status, -1);
  EXPECT_EQ(receipt.bytes, 0u);
  EXPECT_EQ(receipt.writeError,
            "cannot write /dev/full: No space left on device");
  EXPECT_GT(counter.total, 0u);
  EXPECT_THROW(ssh->get("/dev/zero", err, "/dev/full", counter),
               Exc<&tovel::StreamWrite>);
  // More than the limit is a write failure too, and also stops the fetch.
  TempDir dir;
  receipt = ssh->receive("/dev/zero", err, dir.path() + "/z", counter, 100000);
  EXPECT_EQ(receipt.writeError, "received more than 100000 bytes");
  EXPECT_LE(receipt.bytes, 100000u);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(run(*ssh, "echo still").out, "still\n");
}

// Drops the connection from the server's side at the first output chunk.
struct ConnectionKiller : Ssh::Counter {
  void update(size_t) override {
    if (!done) SshdServer::shared().killConnections();
    done = true;
  }
  bool done = false;
};

TEST_F(SshTest, ConnectionDroppedMidCommandIsReportedPromptly) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  ConnectionKiller killer;
  auto start = Clock::now();
  try {
    run(*ssh, "echo started; exec sleep 20", "", killer);
    FAIL() << "the command outlived its connection";
  } catch (const Exc<&tovel::SshConnectionFault>& e) {
    EXPECT_STREQ(e.what(), "Lost connection with the remote host");
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
}

struct Terminator : Ssh::Counter {
  void update(size_t) override { tovel::terminateProgram(); }
};

// A terminated run does not wait for the remote command: it drops the
// connection.
TEST_F(SshTest, TerminationStopsATransferBetweenChunksAndDropsTheConnection) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  Terminator terminator;
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

}  // namespace
}  // namespace ferrow_test
