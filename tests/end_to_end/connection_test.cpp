// --remove-agent with the real binary against the test sshd and in isolated
// networks: each way of logging in and of becoming root, and how each way
// of failing to reach or log in to a host is told.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/sshd_server.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

// A socket bound to a free port of 127.0.0.1; it listens when listening.
int boundSocket(unsigned short* port, bool listening = true) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  EXPECT_TRUE(bind(fd, raw, size) == 0 && getsockname(fd, raw, &size) == 0);
  *port = ntohs(address.sin_port);
  if (listening) listen(fd, 8);
  return fd;
}

// dir holding a file and a subdirectory with a file, owned by uid:gid.
void makeTree(const std::string& dir, uid_t uid, gid_t gid, mode_t mode) {
  for (const std::string& d : {dir, dir + "/sub"}) {
    mkdir(d.c_str(), mode);
    writeFile(d + "/file", "agent part\n");
    ASSERT_TRUE(chmod(d.c_str(), mode) == 0 &&
                chown(d.c_str(), uid, gid) == 0 &&
                chown((d + "/file").c_str(), uid, gid) == 0);
  }
}

class ConnectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  // --remove-agent, through sudo when given; port 0: the shared server.
  RunResult run(const TestAccount& login,
                const std::string& dir = "/nonexistent-ferrow-agent",
                const char* sudo = nullptr,
                const std::string& host = "127.0.0.1", unsigned short port = 0,
                const RunOptions& options = {},
                const FerrowInstallation* install = nullptr) {
    if (!install) install = &install_;
    // clang-format off
    std::vector<std::string> args = {"--remove-agent", "--host=" + host,
        "--port=" + std::to_string(port ? port : SshdServer::shared().port()),
        "--login=" + login.name, "--agent-dir=" + dir, "--agent-name=x",
        "--session-path=" + install->sessionPath()};
    // clang-format on
    std::map<std::string, std::string> env = {{"DYR_PASSWORD", login.password}};
    if (sudo) {
      args.push_back("--sudo-password");
      env["DYR_SUDO_PASSWORD"] = sudo;
    }
    return install->run(options, args, env);
  }

  std::string sessionFile(const std::string& name) const {
    std::string path = install_.sessionPath() + "/" + name;
    return fileExists(path) ? readFile(path) : "";
  }

  void expectSuccess(const RunResult& r) {
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("", r.err + r.out);
    EXPECT_THAT(compactXml(sessionFile("migration.result")),
                HasSubstr("<execution-result status=\"success\"/>"));
  }

  void expectFailure(const RunResult& r, int exitCode,
                     const std::string& message, const std::string& code) {
    EXPECT_EQ(exitCode, r.exitCode) << message;
    EXPECT_EQ(message, r.err + r.out);
    std::string record = sessionFile("migration.result");
    EXPECT_THAT(
        compactXml(record),
        HasSubstr("<execution-result status=\"error\"><message code=\"" + code +
                  "\" "));
    EXPECT_THAT(record, HasSubstr("<description>" + message));
    EXPECT_THAT(
        sessionFile("migration.log"),
        HasSubstr("Ferrow finished. Exit code: " + std::to_string(exitCode)));
  }

  FerrowInstallation install_;
  TempDir scratch_;
};

TEST_F(ConnectionTest, EachWayOfLoggingInRemovesWhatItMayOrIsRefused) {
  const std::string parent = scratch_.path();
  chmod(parent.c_str(), 0755);
  // The directory is one word for cd and rm however it is spelt; the
  // words it would split into name siblings that must survive.
  std::string hostile = parent + "/agent dir; nocmd & $z 'q";
  for (const std::string& dir :
       {hostile, parent + "/agent", parent + "/agent dir"})
    makeTree(dir, 0, 0, 0755);
  for (int round = 1; round <= 2; ++round) {
    expectSuccess(run(rootAccount(), hostile));
    EXPECT_FALSE(fileExists(hostile)) << round;
  }
  EXPECT_TRUE(fileExists(parent + "/agent dir/sub/file"));
  EXPECT_FALSE(fileExists(install_.sessionPath() + "/migration.status"));

  // Without sudo the sudo account cannot remove root's files, and rm's
  // failure is no error; refused sudo is exit 2 and removes nothing.
  const std::string agent = parent + "/agent";
  expectSuccess(run(sudoAccount(), agent));
  EXPECT_TRUE(fileExists(agent + "/sub/file"));
  for (const auto& [account, password] :
       {std::make_pair(plainAccount(), plainAccount().password.c_str()),
        std::make_pair(sudoAccount(), "wrong")}) {
    SCOPED_TRACE(account.name);
    expectFailure(
        run(account, agent, password), 2,
        "sudo is not allowed for user " + account.name + " on host 127.0.0.1.",
        "SudoNotAllowed");
    EXPECT_TRUE(fileExists(agent + "/sub/file"));
  }
  expectSuccess(run(sudoAccount(), agent, sudoAccount().password.c_str()));
  EXPECT_FALSE(fileExists(agent));
  EXPECT_TRUE(fileExists(parent + "/agent dir"));

  // The server offers this account keyboard-interactive only.
  const passwd* kbd = getpwnam(kbdAccount().name.c_str());
  ASSERT_NE(nullptr, kbd);
  makeTree(parent + "/kbd", kbd->pw_uid, kbd->pw_gid, 0700);
  ASSERT_EQ(0, chown(parent.c_str(), kbd->pw_uid, kbd->pw_gid));
  expectSuccess(run(kbdAccount(), parent + "/kbd"));
  EXPECT_FALSE(fileExists(parent + "/kbd"));
  for (const char* accepted :
       {"Accepted password for ferrowroot ",
        "Accepted keyboard-interactive/pam for ferrowkbd "})
    EXPECT_THAT(SshdServer::shared().logText(), HasSubstr(accepted));

  for (const TestAccount& login :
       {TestAccount{rootAccount().name, "wrong password"},
        TestAccount{kbdAccount().name, "wrong password"},
        pubkeyAccount()}) {  // its password is never asked for
    SCOPED_TRACE(login.name);
    expectFailure(run(login), 17,
                  "Unable to connect to host 127.0.0.1: you have specified "
                  "incorrect username or password",
                  "SshInvalidCredentials");
  }
}

TEST_F(ConnectionTest, EachWayOfBeingUnreachableHasItsExitCode) {
  unsigned short closed = 0;
  int fd = boundSocket(&closed, false);  // connect() to it is refused
  writeFile(install_.root() + "/hosts", "127.0.0.1 localhost\n");
  writeFile(install_.root() + "/nsswitch.conf", "hosts: files\n");
  // setup nullptr: no network namespace of its own. The last, routed onto
  // lo where the SYN is dropped as a martian, times out after about 3 s
  // with one SYN retry.
  const char* kUnreachable =
      "Specified network host 203.0.113.1 is unreachable";
  const struct {
    const char *host, *setup;
    int exitCode;
    const char *message, *code;
  } cases[] = {
      // clang-format off
      {"127.0.0.1", nullptr, 11, "No one listening on the remote address at host 127.0.0.1", "ConnectionRefused"},
      {"nosuchhost.invalid", nullptr, 16, "Unable to resolve hostname nosuchhost.invalid: Name or service not known", "HostNotFound"},
      {"203.0.113.1", "", 13, kUnreachable, "NetworkUnreachable"},
      {"192.0.2.1", "ip route add unreachable 192.0.2.0/24", 14, "No route to host 192.0.2.1", "HostUnreachable"},
      {"198.51.100.1", "ip route add prohibit 198.51.100.0/24", 15, "Unable to connect to host 198.51.100.1: Permission denied", "ConnectionFault"},
      {"198.18.0.1", "sysctl -qw net.ipv4.tcp_syn_retries=1; ip route add 198.18.0.0/24 dev lo", 12, "Timeout while attempting connection to host 198.18.0.1", "ConnectionTimedOut"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host);
    RunOptions options;
    options.isolateNetwork = c.setup != nullptr;
    options.networkSetup = c.setup ? c.setup : "";
    options.binds = {
        {install_.root() + "/hosts", "/etc/hosts"},
        {install_.root() + "/nsswitch.conf", "/etc/nsswitch.conf"}};
    Clock::time_point start = Clock::now();
    RunResult r = run(rootAccount(), "/nonexistent-ferrow-agent", nullptr,
                      c.host, c.setup ? 22 : closed, options);
    EXPECT_LT(secondsSince(start), 10.0);
    expectFailure(r, c.exitCode, c.message, c.code);
  }
  close(fd);
}

// The handshake start and its retry in compatibility mode each give up
// 10 s after the connection is made, however the peer behaves meanwhile: a
// silent peer and one that sends a byte of a never-ending first line every
// 200 ms, both at once.
TEST_F(ConnectionTest, PeerThatNeverSpeaksSshEndsTheRunInBoundedTime) {
  unsigned short ports[2] = {};
  const int silent = boundSocket(&ports[0]), trickling = boundSocket(&ports[1]);
  std::atomic<bool> stop{false};
  std::thread trickler([&] {
    std::vector<int> clients;
    for (int round = 0; round < 300 && !stop; ++round) {
      pollfd entry = {trickling, POLLIN, 0};
      if (poll(&entry, 1, 200) == 1)
        clients.push_back(accept4(trickling, nullptr, nullptr, SOCK_CLOEXEC));
      for (int client : clients) send(client, "x", 1, MSG_NOSIGNAL);
    }
    for (int client : clients) close(client);
  });
  FerrowInstallation other;
  RunResult runs[2];
  double seconds[2] = {};
  Clock::time_point start = Clock::now();
  std::thread first([&] {
    runs[0] = run(rootAccount(), "/x", nullptr, "127.0.0.1", ports[0]);
    seconds[0] = secondsSince(start);
  });
  runs[1] =
      run(rootAccount(), "/x", nullptr, "127.0.0.1", ports[1], {}, &other);
  seconds[1] = secondsSince(start);
  first.join();
  stop = true;
  trickler.join();
  const std::string message =
      "Unable to start SSH session: no SSH handshake from the server within "
      "10 seconds";
  for (int i : {0, 1}) {
    EXPECT_TRUE(seconds[i] >= 19.0 && seconds[i] < 40.0) << seconds[i];
    EXPECT_EQ(message, runs[i].err);
  }
  expectFailure(runs[0], 2, message, "UnableToStartSshSession");
  EXPECT_EQ(2, runs[1].exitCode);
  close(silent);
  close(trickling);
}

}  // namespace
}  // namespace ferrow_test
