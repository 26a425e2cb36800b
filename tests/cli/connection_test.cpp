// --remove-agent with the real binary against the test sshd and in isolated
// networks: each way of logging in and of becoming root, and how each way
// of failing to reach or log in to a host is told by the exit code, the
// standard error and the run record.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/sshd_server.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A socket bound to a free port of 127.0.0.1: while it does not listen, a
// connect() to the port is refused.
class LoopbackPort {
 public:
  LoopbackPort() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (fd_ < 0 || bind(fd_, raw, size) != 0 ||
        getsockname(fd_, raw, &size) != 0)
      throw std::runtime_error("cannot bind a port of 127.0.0.1");
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackPort() {
    stop_ = true;
    shutdown(fd_, SHUT_RDWR);
    if (trickler_.joinable()) trickler_.join();
    close(fd_);
  }
  unsigned short port() const { return port_; }

  // Accepts TCP but never speaks SSH: the kernel completes connections and
  // nobody reads or writes.
  void listenSilently() { listen(fd_, 8); }
  // Accepts each connection and sends a byte of a never-ending first line
  // every 200 ms, so that no single wait of the client runs long.
  void listenTrickling() {
    listen(fd_, 8);
    trickler_ = std::thread([this] {
      std::vector<int> clients;
      for (int round = 0; round < 300 && !stop_; ++round) {
        pollfd entry = {fd_, POLLIN, 0};
        if (poll(&entry, 1, 200) == 1 && (entry.revents & POLLIN)) {
          int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
          if (client >= 0) clients.push_back(client);
        }
        for (int client : clients) send(client, "x", 1, MSG_NOSIGNAL);
      }
      for (int client : clients) close(client);
    });
  }

 private:
  int fd_;
  unsigned short port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread trickler_;
};

// Makes dir holding a file and a subdirectory with a file, all owned by
// uid:gid, the directories with mode.
void makeTree(const std::string& dir, uid_t uid, gid_t gid, mode_t mode) {
  for (const std::string& d : {dir, dir + "/sub"}) {
    mkdir(d.c_str(), mode);
    writeFile(d + "/file", "agent part\n");
    if (chmod(d.c_str(), mode) != 0 || chown(d.c_str(), uid, gid) != 0 ||
        chown((d + "/file").c_str(), uid, gid) != 0)
      throw std::runtime_error("cannot set up " + d);
  }
}

// One run of --remove-agent.
struct Removal {
  explicit Removal(const TestAccount& account,
                   const std::string& dir = "/nonexistent-ferrow-agent")
      : login(account), agentDir(dir) {}
  TestAccount login;
  std::string agentDir;
  std::string host = "127.0.0.1";
  unsigned short port = 0;  // 0: the shared server's
  bool sudo = false;
  std::string sudoPassword;
  RunOptions options;
};

class ConnectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  RunResult run(const Removal& removal) { return run(removal, install_); }
  static RunResult run(const Removal& removal,
                       const FerrowInstallation& install) {
    unsigned short port =
        removal.port ? removal.port : SshdServer::shared().port();
    std::vector<std::string> args = {
        "--remove-agent", "--host=" + removal.host,
        "--port=" + std::to_string(port), "--login=" + removal.login.name,
        "--agent-dir=" + removal.agentDir, "--agent-name=x",
        "--session-path=" + install.sessionPath()};
    std::map<std::string, std::string> env = {
        {"DYR_PASSWORD", removal.login.password}};
    if (removal.sudo) {
      args.push_back("--sudo-password");
      env["DYR_SUDO_PASSWORD"] = removal.sudoPassword;
    }
    return install.run(removal.options, args, env);
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

  // The message goes to standard error as it is, without a line break, and
  // the run record names the failure by its code.
  void expectFailure(const RunResult& r, int exitCode,
                     const std::string& message, const std::string& code) {
    EXPECT_EQ(exitCode, r.exitCode) << message;
    EXPECT_EQ(message, r.err);
    EXPECT_EQ("", r.out);
    std::string record = compactXml(sessionFile("migration.result"));
    EXPECT_THAT(record, HasSubstr("<execution-result status=\"error\">"));
    EXPECT_THAT(record, HasSubstr("<message code=\"" + code + "\" "));
    EXPECT_THAT(record, HasSubstr("<description>" + message));
    EXPECT_THAT(sessionFile("migration.log"),
                HasSubstr("Ferrow finished. Exit code: " +
                          std::to_string(exitCode)));
  }

  // The server's log says the account logged in by method.
  static void expectAccepted(const std::string& method,
                             const TestAccount& account) {
    EXPECT_THAT(SshdServer::shared().logText(),
                HasSubstr("Accepted " + method + " for " + account.name + " "));
  }

  FerrowInstallation install_;
  TempDir scratch_;
};

// The directory is one word for rm however it is spelt; the words it would
// split into name siblings that must survive. (No quote character: the
// directory also goes unquoted after "cd".)
TEST_F(ConnectionTest, RootLoginRemovesOneWordDirectoryAndMayRepeat) {
  const std::string parent = scratch_.path();
  std::string agent = parent + "/agent dir; nocmd & $z";
  for (const std::string& dir :
       {agent, parent + "/agent", parent + "/agent dir"})
    makeTree(dir, 0, 0, 0700);
  Removal removal{rootAccount(), agent};
  for (int round = 1; round <= 2; ++round) {
    SCOPED_TRACE(round);
    expectSuccess(run(removal));
    EXPECT_FALSE(fileExists(agent));
  }
  EXPECT_TRUE(fileExists(parent + "/agent/sub/file"));
  EXPECT_TRUE(fileExists(parent + "/agent dir/sub/file"));
  EXPECT_FALSE(fileExists(install_.sessionPath() + "/migration.status"));
  expectAccepted("password", rootAccount());
}

TEST_F(ConnectionTest, SudoLoginRemovesWhatOnlyRootMay) {
  chmod(scratch_.path().c_str(), 0755);
  std::string agent = scratch_.path() + "/agent";
  makeTree(agent, 0, 0, 0755);
  // Without sudo the same login cannot, and rm's failure is no error.
  expectSuccess(run(Removal{sudoAccount(), agent}));
  ASSERT_TRUE(fileExists(agent + "/sub/file"));
  Removal removal{sudoAccount(), agent};
  removal.sudo = true;
  removal.sudoPassword = sudoAccount().password;
  expectSuccess(run(removal));
  EXPECT_FALSE(fileExists(agent));
  EXPECT_TRUE(fileExists(scratch_.path()));
}

TEST_F(ConnectionTest, RefusedSudoExitsWith2AndLeavesTheDirectory) {
  chmod(scratch_.path().c_str(), 0755);
  std::string agent = scratch_.path() + "/agent";
  makeTree(agent, 0, 0, 0755);
  for (const auto& c : {std::make_pair(plainAccount(), plainAccount().password),
                        std::make_pair(sudoAccount(), std::string("wrong"))}) {
    SCOPED_TRACE(c.first.name);
    Removal removal{c.first, agent};
    removal.sudo = true;
    removal.sudoPassword = c.second;
    expectFailure(run(removal), 2,
                  "sudo is not allowed for user " + c.first.name +
                      " on host 127.0.0.1.",
                  "SudoNotAllowed");
    EXPECT_TRUE(fileExists(agent + "/sub/file"));
  }
}

TEST_F(ConnectionTest, KeyboardInteractiveLoginRemovesItsOwnDirectory) {
  const passwd* kbd = getpwnam(kbdAccount().name.c_str());
  ASSERT_NE(nullptr, kbd);
  std::string agent = scratch_.path() + "/agent";
  makeTree(agent, kbd->pw_uid, kbd->pw_gid, 0700);
  ASSERT_EQ(0, chown(scratch_.path().c_str(), kbd->pw_uid, kbd->pw_gid));
  expectSuccess(run(Removal{kbdAccount(), agent}));
  EXPECT_FALSE(fileExists(agent));
  // The server offers this account nothing else.
  expectAccepted("keyboard-interactive/pam", kbdAccount());
}

TEST_F(ConnectionTest, RefusedLoginsExitWith17) {
  for (const TestAccount& login :
       {TestAccount{rootAccount().name, "wrong password"},
        TestAccount{kbdAccount().name, "wrong password"},
        pubkeyAccount()}) {  // its password is never asked for
    SCOPED_TRACE(login.name);
    expectFailure(run(Removal{login}), 17,
                  "Unable to connect to host 127.0.0.1: you have specified "
                  "incorrect username or password",
                  "SshInvalidCredentials");
  }
}

struct Unreachable {
  std::string host;
  const char* setup;  // nullptr: no network namespace of its own
  int exitCode;
  std::string message;
  const char* code;
};

TEST_F(ConnectionTest, EachWayOfBeingUnreachableHasItsExitCode) {
  LoopbackPort closed;
  writeFile(install_.root() + "/hosts", "127.0.0.1 localhost\n");
  writeFile(install_.root() + "/nsswitch.conf", "hosts: files\n");
  const Unreachable cases[] = {
      {"127.0.0.1", nullptr, 11,
       "No one listening on the remote address at host 127.0.0.1",
       "ConnectionRefused"},
      {"nosuchhost.invalid", nullptr, 16,
       "Unable to resolve hostname nosuchhost.invalid: Name or service not "
       "known",
       "HostNotFound"},
      {kNetworkUnreachableAddress, "", 13,
       "Specified network host 203.0.113.1 is unreachable",
       "NetworkUnreachable"},
      {kNoRouteToHostAddress, kNoRouteToHostSetup, 14,
       "No route to host 192.0.2.1", "HostUnreachable"},
      {kPermissionDeniedAddress, kPermissionDeniedSetup, 15,
       "Unable to connect to host 198.51.100.1: Permission denied",
       "ConnectionFault"},
      {kTimeoutAddress, kTimeoutNetworkSetup, 12,
       "Timeout while attempting connection to host 198.18.0.1",
       "ConnectionTimedOut"},
  };
  for (const Unreachable& c : cases) {
    SCOPED_TRACE(c.host);
    Removal removal{rootAccount()};
    removal.host = c.host;
    removal.port = c.setup ? 22 : closed.port();
    removal.options.isolateNetwork = c.setup != nullptr;
    removal.options.networkSetup = c.setup ? c.setup : "";
    // Names resolve from the fixture hosts file alone.
    removal.options.binds = {
        {install_.root() + "/hosts", "/etc/hosts"},
        {install_.root() + "/nsswitch.conf", "/etc/nsswitch.conf"}};
    Clock::time_point start = Clock::now();
    RunResult r = run(removal);
    // Only the system's own connect time-out applies.
    EXPECT_LT(secondsSince(start), 10.0);
    expectFailure(r, c.exitCode, c.message, c.code);
  }
}

// The handshake start and its retry in compatibility mode each give up
// 10 s after the connection is made, however the peer behaves meanwhile.
// Both kinds of peer run at once.
TEST_F(ConnectionTest, PeerThatNeverSpeaksSshEndsTheRunInBoundedTime) {
  LoopbackPort silent, trickling;
  silent.listenSilently();
  trickling.listenTrickling();
  Removal toSilent{rootAccount()}, toTrickling{rootAccount()};
  toSilent.port = silent.port();
  toTrickling.port = trickling.port();
  FerrowInstallation other;
  RunResult silentRun, tricklingRun;
  double silentSeconds = 0;
  Clock::time_point start = Clock::now();
  std::thread first([&] {
    silentRun = run(toSilent);
    silentSeconds = secondsSince(start);
  });
  tricklingRun = run(toTrickling, other);
  double tricklingSeconds = secondsSince(start);
  first.join();
  const std::string message =
      "Unable to start SSH session: no SSH handshake from the server within "
      "10 seconds";
  for (double seconds : {silentSeconds, tricklingSeconds}) {
    EXPECT_GE(seconds, 19.0);
    EXPECT_LT(seconds, 40.0);
  }
  expectFailure(silentRun, 2, message, "UnableToStartSshSession");
  EXPECT_EQ(2, tricklingRun.exitCode);
  EXPECT_EQ(message, tricklingRun.err);
}

TEST_F(ConnectionTest, EveryAddressOfANameIsTriedInTurn) {
  writeFile(install_.root() + "/hosts", "::1 dualhost\n127.0.0.1 dualhost\n");
  writeFile(install_.root() + "/nsswitch.conf", "hosts: files\n");
  Removal removal{rootAccount(), scratch_.path() + "/agent"};
  removal.host = "dualhost";
  removal.options.binds = {
      {install_.root() + "/hosts", "/etc/hosts"},
      {install_.root() + "/nsswitch.conf", "/etc/nsswitch.conf"}};
  // glibc lists ::1 first only on hosts with a global IPv6 address.
  RunResult order = runInNamespace("getent ahosts dualhost", removal.options);
  if (order.out.rfind("::1 ", 0) != 0)
    GTEST_SKIP() << "the resolver does not list ::1 first here:\n" << order.out;
  makeTree(removal.agentDir, 0, 0, 0700);
  expectSuccess(run(removal));
  EXPECT_FALSE(fileExists(removal.agentDir));
  EXPECT_THAT(sessionFile("migration.log"),
              HasSubstr("Unable to open socket to dualhost:" +
                        std::to_string(SshdServer::shared().port()) +
                        ": Connection refused\n"));
}

}  // namespace
}  // namespace ferrow_test
