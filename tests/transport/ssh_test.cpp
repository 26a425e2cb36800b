// The SSH transport against a real sshd on 127.0.0.1: login, remote
// commands with their streams and status, file transfer by cat, lost
// connections and the termination flag.
#include <arpa/inet.h>
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "commons/socket.h"
#include "commons/termination.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"
#include "support/sshd_server.h"
#include "transport/session.h"
#include "transport/ssh_transfer.h"

namespace ferrow_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using tovel::Exc;
using tovel::Ssh;

const char kLocalHost[] = "127.0.0.1";

std::unique_ptr<Ssh> login(const TestAccount& account) {
  return std::make_unique<Ssh>(kLocalHost, account.name, account.password,
                               false, SshdServer::shared().port());
}

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome run(Ssh& ssh, const std::string& command, const std::string& input = "",
            Ssh::Counter& counter = Ssh::null_counter) {
  std::istringstream in(input);
  std::ostringstream out, err;
  int status = ssh.exec(command, in, out, err, false, false, counter);
  return {status, out.str(), err.str()};
}

// A port of 127.0.0.1 held bound but not listening, so that a connect()
// to it is refused for as long as the object lives.
class ClosedPort {
 public:
  ClosedPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    bind(fd_, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
  }
  ~ClosedPort() { close(fd_); }
  unsigned short port() const { return port_; }

 private:
  int fd_;
  unsigned short port_ = 0;
};

class SshTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }
};

// --- connection ------------------------------------------------------------

TEST(SocketTest, RefusedConnectionNamesTheHostOnly) {
  ClosedPort closed;
  try {
    tovel::Socket socket(kLocalHost, closed.port());
    FAIL() << "connected to a closed port";
  } catch (const Exc<&tovel::ConnectionRefused>& e) {
    EXPECT_STREQ(e.what(),
                 "No one listening on the remote address at host 127.0.0.1");
  }
}

TEST(SocketTest, ConnectsToAListener) {
  tovel::Socket socket(kLocalHost, SshdServer::shared().port());
  EXPECT_GE(socket.fd(), 0);
}

// --- login -----------------------------------------------------------------

TEST_F(SshTest, PasswordAndKeyboardInteractiveLoginsRunCommands) {
  for (const TestAccount& account : {plainAccount(), kbdAccount()}) {
    std::unique_ptr<Ssh> ssh = login(account);
    EXPECT_EQ(run(*ssh, "id -un").out, account.name + "\n") << account.name;
  }
}

TEST_F(SshTest, KeyboardInteractiveIsTriedAfterARejectedPassword) {
  LogCapture log("p.libssh2pp.Session");
  EXPECT_THROW(login({plainAccount().name, "wrong password"}),
               Exc<&tovel::SshInvalidCredentials>);
  std::vector<std::string> lines = log.lines();
  EXPECT_NE(
      std::find(lines.begin(), lines.end(), "Trying 'password' authentication"),
      lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "Trying 'keyboard-interactive' authentication"),
            lines.end());
}

TEST_F(SshTest, RefusedLoginsGiveInvalidCredentials) {
  const TestAccount cases[] = {{plainAccount().name, "wrong password"},
                               pubkeyAccount(),
                               {kbdAccount().name, "wrong password"}};
  for (const TestAccount& account : cases) {
    try {
      login(account);
      ADD_FAILURE() << account.name << " logged in";
    } catch (const Exc<&tovel::SshInvalidCredentials>& e) {
      EXPECT_STREQ(e.what(),
                   "Unable to connect to host 127.0.0.1: you have specified "
                   "incorrect username or password");
    }
  }
}

TEST_F(SshTest, MethodListIsSplitAtCommas) {
  // The server allows one user name per session.
  auto methodsOf = [](const TestAccount& account) {
    tovel::Socket socket(kLocalHost, SshdServer::shared().port());
    tovel::libssh2pp::Session session(socket.fd(), false, false);
    std::vector<std::string> methods;
    session.getAuthMethodsList(account.name, methods);
    return methods;
  };
  EXPECT_THAT(methodsOf(pubkeyAccount()), ElementsAre("publickey"));
  EXPECT_THAT(methodsOf(plainAccount()),
              ElementsAre("publickey", "password", "keyboard-interactive"));
}

TEST_F(SshTest, CipherNoneCannotStartASession) {
  try {
    Ssh ssh(kLocalHost, plainAccount().name, plainAccount().password, true,
            SshdServer::shared().port());
    FAIL() << "a session without encryption started";
  } catch (const Exc<&tovel::UnableToStartSshSession>& e) {
    EXPECT_THAT(e.what(),
                ::testing::StartsWith("Unable to start SSH session: "));
  }
}

// --- remote commands -------------------------------------------------------

TEST_F(SshTest, StatusAndStreamsAreKeptApart) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  Outcome outcome = run(*ssh, "echo out; echo err >&2; exit 3");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "out\n");
  EXPECT_EQ(outcome.err, "err\n");

  Outcome silent = run(*ssh, "true");
  EXPECT_EQ(silent.status, 0);
  EXPECT_EQ(silent.out + silent.err, "");
}

TEST_F(SshTest, InputArrivesAndEndsWithEof) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  // cat ends only when its input does: EOF must be sent at once.
  EXPECT_EQ(run(*ssh, "cat").out, "");
  EXPECT_EQ(run(*ssh, "cat; echo done", "a line\nno break").out,
            "a line\nno breakdone\n");
  // A command that reads nothing still gets the rest of a large input
  // dropped cleanly.
  EXPECT_EQ(run(*ssh, "exit 4", std::string(4 << 20, 'x')).status, 4);
}

TEST_F(SshTest, LargeInputAndOutputFlowTogether) {
  // 64 MiB each way through one command: input sent whole before reading
  // would deadlock once both windows are full.
  std::string input(64 << 20, '\0');
  for (size_t i = 0; i < input.size(); ++i) input[i] = char(i * 7 + i / 4096);
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  std::istringstream in(input);
  std::ostringstream out, err;
  int status = ssh->exec("cat; cat /dev/null >&2", in, out, err, true, true,
                         Ssh::null_counter);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out.str().size(), input.size());
  EXPECT_TRUE(out.str() == input);
}

TEST_F(SshTest, ACommandKilledBySignalDoesNotLookSuccessful) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  EXPECT_EQ(run(*ssh, "kill -9 $$").status, 128 + SIGKILL);
  EXPECT_EQ(run(*ssh, "kill -TERM $$").status, 128 + SIGTERM);
}

class CountingCounter : public Ssh::Counter {
 public:
  void update(size_t bytes) override {
    total += bytes;
    ++chunks;
  }
  size_t total = 0;
  size_t chunks = 0;
};

TEST_F(SshTest, CounterIsToldStandardOutputOnly) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  CountingCounter counter;
  Outcome outcome =
      run(*ssh, "head -c 300000 /dev/zero; echo noise >&2", "", counter);
  EXPECT_EQ(outcome.out.size(), 300000u);
  EXPECT_EQ(counter.total, 300000u);
  EXPECT_GE(counter.chunks, 5u);  // chunks of at most 64 KiB
}

// --- file transfer ---------------------------------------------------------

TEST_F(SshTest, PutAndGetRoundTripOddNamesAndBytes) {
  TempDir dir;
  chmod(dir.path().c_str(), 0777);
  std::string content;
  for (int i = 0; i < 200000; ++i) content += char(i % 251);
  std::string remote = dir.path() + "/a file; with $odd 'name'";
  std::unique_ptr<Ssh> ssh = login(plainAccount());

  std::istringstream in(content);
  ssh->put(in, remote);
  EXPECT_EQ(readFile(remote), content);

  std::ostringstream out;
  EXPECT_EQ(ssh->get(out, remote), 0);
  EXPECT_TRUE(out.str() == content);

  std::string local = dir.path() + "/copy";
  writeFile(local, "longer old content that must be truncated away....");
  CountingCounter counter;
  std::ostringstream err;
  EXPECT_EQ(ssh->get(remote, err, local, counter), 0);
  EXPECT_TRUE(readFile(local) == content);
  EXPECT_EQ(counter.total, content.size());

  ssh->put(local, remote + ".2");
  EXPECT_TRUE(readFile(remote + ".2") == content);
}

TEST_F(SshTest, GetOfAMissingFileReturnsCatsStatusAndText) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  std::ostringstream out, err;
  int status = ssh->get(out, err, "/nonexistent/file", Ssh::null_counter);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(out.str(), "");
  EXPECT_THAT(err.str(), HasSubstr("No such file or directory"));
}

TEST_F(SshTest, FileContentsNeverReachTheLog) {
  TempDir dir;
  chmod(dir.path().c_str(), 0777);
  LogCapture log("p.Ssh");
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  std::istringstream in("secret-content");
  ssh->put(in, dir.path() + "/f");
  std::ostringstream out;
  ssh->get(out, dir.path() + "/f");
  ASSERT_EQ(out.str(), "secret-content");
  for (const std::string& line : log.lines()) {
    EXPECT_THAT(line, ::testing::Not(HasSubstr("secret-content")));
  }
}

// --- failures during a command ---------------------------------------------

// Drops the connection from the server's side at the first output chunk.
class ConnectionKiller : public Ssh::Counter {
 public:
  void update(size_t) override {
    if (done_) return;
    done_ = true;
    SshdServer::shared().killConnections();
  }

 private:
  bool done_ = false;
};

TEST_F(SshTest, ConnectionDroppedMidCommandIsReportedPromptly) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  ConnectionKiller killer;
  auto start = std::chrono::steady_clock::now();
  try {
    run(*ssh, "echo started; exec sleep 20", "", killer);
    FAIL() << "the command outlived its connection";
  } catch (const Exc<&tovel::SshConnectionFault>& e) {
    EXPECT_STREQ(e.what(), "Lost connection with the remote host");
  }
  // Well below the remote sleep: the loss was seen, not waited out.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

class Terminator : public Ssh::Counter {
 public:
  void update(size_t) override { tovel::terminateProgram(); }
};

// A terminated run ends at once: it does not wait for the remote command
// to finish before closing its channel, but drops the connection.
TEST_F(SshTest, TerminationStopsATransferBetweenChunksAndDropsTheConnection) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  Terminator terminator;
  std::ostringstream out, err;
  auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(ssh->exec("head -c 50000000 /dev/zero; sleep 20", out, err, true,
                         terminator),
               tovel::MigrationTerminatedException);
  tovel::isProgramTerminated = false;
  EXPECT_LT(out.str().size(), 50000000u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_THROW(run(*ssh, "echo gone"), Exc<&tovel::SshConnectionFault>);
}

// An alarm that runs a command of its own while another one is running,
// as the dump's status pull does.
class NestedAlarm : public tovel::Alarm {
 public:
  explicit NestedAlarm(Ssh& ssh) : ssh_(ssh) {}
  void doAlarm() override {
    ssh_.setAlarm(nullptr);
    std::ostringstream out;
    ssh_.get(out, "/etc/hostname");
    nested = out.str();
    ++calls;
  }
  std::string nested;
  int calls = 0;

 private:
  Ssh& ssh_;
};

TEST_F(SshTest, AlarmMayRunACommandWhileAnotherOneRuns) {
  std::unique_ptr<Ssh> ssh = login(plainAccount());
  NestedAlarm alarm(*ssh);
  ssh->setAlarm(&alarm);
  Outcome outcome = run(*ssh, "head -c 1000000 /dev/zero; sleep 1; echo end");
  EXPECT_EQ(alarm.calls, 1);
  EXPECT_EQ(alarm.nested, readFile("/etc/hostname"));
  EXPECT_EQ(outcome.out.size(), 1000004u);
  EXPECT_EQ(outcome.status, 0);
}

}  // namespace
}  // namespace ferrow_test
