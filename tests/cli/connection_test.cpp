// The real binary's --remove-agent against a real sshd on 127.0.0.1 and in
// isolated networks: each way of logging in and of becoming root, and how
// every way of failing to reach or log in to a host is told by the exit
// code, the standard error and the run record.
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
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/sshd_server.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

typedef std::chrono::steady_clock Clock;

const char kLocalHost[] = "127.0.0.1";

// A TCP socket bound to a free port of 127.0.0.1; throws when none can be.
int boundLoopbackSocket(unsigned short* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("cannot bind a port of 127.0.0.1");
  }
  *port = ntohs(address.sin_port);
  return fd;
}

// A port of 127.0.0.1 held bound but not listening, so that a connect()
// to it is refused for as long as the object lives.
class ClosedPort {
 public:
  ClosedPort() : fd_(boundLoopbackSocket(&port_)) {}
  ~ClosedPort() { close(fd_); }
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;
  unsigned short port() const { return port_; }

 private:
  unsigned short port_ = 0;
  int fd_;
};

// A port of 127.0.0.1 that accepts TCP but never speaks SSH. Silent: the
// kernel completes connections on the backlog and nobody ever reads or
// writes. Trickling: one thread accepts each connection and sends a byte of
// a never-ending first line every 200 ms, so no single wait of the client
// runs long, for at most a minute.
class MuteServer {
 public:
  enum Kind { kSilent, kTrickling };
  explicit MuteServer(Kind kind) : fd_(boundLoopbackSocket(&port_)) {
    if (listen(fd_, 8) != 0) throw std::runtime_error("cannot listen");
    if (kind == kTrickling) trickler_ = std::thread([this] { trickle(); });
  }
  ~MuteServer() {
    stop_ = true;
    shutdown(fd_, SHUT_RDWR);
    if (trickler_.joinable()) trickler_.join();
    close(fd_);
  }
  MuteServer(const MuteServer&) = delete;
  MuteServer& operator=(const MuteServer&) = delete;
  unsigned short port() const { return port_; }

 private:
  void trickle() {
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
  }

  unsigned short port_ = 0;
  int fd_;
  std::atomic<bool> stop_{false};
  std::thread trickler_;
};

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error("cannot " + what);
}

struct passwd accountEntry(const TestAccount& account) {
  const struct passwd* entry = getpwnam(account.name.c_str());
  check(entry != nullptr, "find account " + account.name);
  return *entry;
}

// Makes dir holding a file and a subdirectory with a file, everything
// owned by uid:gid, the directories with mode.
void makeTree(const std::string& dir, uid_t uid, gid_t gid, mode_t mode) {
  for (const std::string& d : {dir, dir + "/sub"}) {
    check(mkdir(d.c_str(), mode) == 0 && chmod(d.c_str(), mode) == 0,
          "make " + d);
    writeFile(d + "/file", "agent part\n");
    check(chown(d.c_str(), uid, gid) == 0 &&
              chown((d + "/file").c_str(), uid, gid) == 0,
          "chown " + d);
  }
}

// A scratch directory that others may enter, owned by uid:gid.
void openUp(const TempDir& dir, uid_t uid, gid_t gid) {
  check(chmod(dir.path().c_str(), 0755) == 0 &&
            chown(dir.path().c_str(), uid, gid) == 0,
        "open up " + dir.path());
}

// One run of --remove-agent.
struct Removal {
  TestAccount login;
  std::string agentDir = "/nonexistent-ferrow-agent";
  std::string host = kLocalHost;
  unsigned short port = 0;  // 0: the shared server's port
  bool sudo = false;
  std::string sudoPassword;  // DYR_SUDO_PASSWORD when sudo is set
  RunOptions options;
};

Removal removal(const TestAccount& login, const std::string& agentDir) {
  Removal r;
  r.login = login;
  r.agentDir = agentDir;
  return r;
}

Removal sudoRemoval(const TestAccount& login, const std::string& agentDir,
                    const std::string& sudoPassword) {
  Removal r = removal(login, agentDir);
  r.sudo = true;
  r.sudoPassword = sudoPassword;
  return r;
}

RunResult run(const FerrowInstallation& install, const Removal& removal) {
  unsigned short port =
      removal.port != 0 ? removal.port : SshdServer::shared().port();
  std::vector<std::string> args = {"--remove-agent",
                                   "--host=" + removal.host,
                                   "--port=" + std::to_string(port),
                                   "--login=" + removal.login.name,
                                   "--agent-dir=" + removal.agentDir,
                                   "--agent-name=x",
                                   "--session-path=" + install.sessionPath()};
  std::map<std::string, std::string> env = {
      {"DYR_PASSWORD", removal.login.password}};
  if (removal.sudo) {
    args.push_back("--sudo-password");
    env["DYR_SUDO_PASSWORD"] = removal.sudoPassword;
  }
  return install.run(removal.options, args, env);
}

// A session file's text; empty when the run left none.
std::string sessionFile(const FerrowInstallation& install,
                        const std::string& name) {
  std::string path = install.sessionPath() + "/" + name;
  return fileExists(path) ? readFile(path) : "";
}

std::string runRecord(const FerrowInstallation& install) {
  return compactXml(sessionFile(install, "migration.result"));
}

std::string debugLog(const FerrowInstallation& install) {
  return sessionFile(install, "migration.log");
}

void expectSuccess(const FerrowInstallation& install, const RunResult& r,
                   const std::string& what) {
  EXPECT_EQ(0, r.exitCode) << what << ": " << r.err;
  EXPECT_EQ("", r.err) << what;
  EXPECT_EQ("", r.out) << what;
  EXPECT_THAT(runRecord(install),
              HasSubstr("<execution-result status=\"success\"/>"))
      << what;
}

// The message goes to standard error as it is, without a line break, and
// the run record names the failure by its code.
void expectFailure(const FerrowInstallation& install, const RunResult& r,
                   int exitCode, const std::string& message,
                   const std::string& code) {
  EXPECT_EQ(exitCode, r.exitCode) << message << "\n" << debugLog(install);
  EXPECT_EQ(message, r.err);
  EXPECT_EQ("", r.out);
  std::string record = runRecord(install);
  EXPECT_THAT(record, HasSubstr("<execution-result status=\"error\">"));
  EXPECT_THAT(record, HasSubstr("<message code=\"" + code + "\" "));
  EXPECT_THAT(record, HasSubstr("<description>" + message)) << code;
  EXPECT_THAT(debugLog(install), HasSubstr("Ferrow finished. Exit code: " +
                                           std::to_string(exitCode)));
}

// Hosts and name service fixtures bound over /etc, so that names resolve
// from the fixture hosts file alone and unknown ones fail at once.
RunOptions hostsFixture(const FerrowInstallation& install,
                        const std::string& hosts) {
  writeFile(install.root() + "/hosts", hosts);
  writeFile(install.root() + "/nsswitch.conf", "hosts: files\n");
  RunOptions options;
  options.binds = {{install.root() + "/hosts", "/etc/hosts"},
                   {install.root() + "/nsswitch.conf", "/etc/nsswitch.conf"}};
  return options;
}

class ConnectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }
};

// --- removal through each login --------------------------------------------

TEST_F(ConnectionTest, RootLoginRemovesARootOwnedTreeAndMayRepeat) {
  TempDir scratch;
  std::string agent = scratch.path() + "/agent";
  makeTree(agent, 0, 0, 0700);
  FerrowInstallation install;
  for (int round = 1; round <= 2; ++round) {
    RunResult r = run(install, removal(rootAccount(), agent));
    expectSuccess(install, r, "round " + std::to_string(round));
    EXPECT_FALSE(fileExists(agent));
    EXPECT_TRUE(fileExists(scratch.path()));
  }
  // Removal keeps no migration status.
  EXPECT_FALSE(fileExists(install.sessionPath() + "/migration.status"));
}

TEST_F(ConnectionTest, SudoLoginRemovesWhatOnlyRootMay) {
  TempDir scratch;
  openUp(scratch, 0, 0);
  std::string agent = scratch.path() + "/agent";
  makeTree(agent, 0, 0, 0755);

  // Without sudo the same login cannot, and rm's failure is not an error.
  FerrowInstallation plainInstall;
  RunResult plain = run(plainInstall, removal(sudoAccount(), agent));
  expectSuccess(plainInstall, plain, "without sudo");
  ASSERT_TRUE(fileExists(agent + "/sub/file"));

  FerrowInstallation install;
  RunResult r =
      run(install, sudoRemoval(sudoAccount(), agent, sudoAccount().password));
  expectSuccess(install, r, "with sudo");
  EXPECT_FALSE(fileExists(agent));
  EXPECT_TRUE(fileExists(scratch.path()));
}

TEST_F(ConnectionTest, KeyboardInteractiveLoginRemovesItsOwnDirectory) {
  struct passwd kbd = accountEntry(kbdAccount());
  TempDir scratch;
  openUp(scratch, kbd.pw_uid, kbd.pw_gid);
  std::string agent = scratch.path() + "/agent";
  makeTree(agent, kbd.pw_uid, kbd.pw_gid, 0700);
  FerrowInstallation install;
  RunResult r = run(install, removal(kbdAccount(), agent));
  expectSuccess(install, r, kbdAccount().name);
  EXPECT_FALSE(fileExists(agent));
}

// The directory is one word for rm however it is spelt; the words it would
// split into name siblings that must survive. (A quote character cannot be
// tried: the directory also goes unquoted after "cd" in the same command.)
TEST_F(ConnectionTest, AgentDirectoryWithBlanksAndShellCharactersIsOneWord) {
  TempDir scratch;
  const std::string parent = scratch.path();
  std::string agent = parent + "/agent dir; nocmd & $z";
  makeTree(agent, 0, 0, 0700);
  const std::vector<std::string> siblings = {parent + "/agent",
                                             parent + "/agent dir"};
  for (const std::string& sibling : siblings) makeTree(sibling, 0, 0, 0700);
  FerrowInstallation install;
  RunResult r = run(install, removal(rootAccount(), agent));
  expectSuccess(install, r, agent);
  EXPECT_FALSE(fileExists(agent));
  for (const std::string& sibling : siblings) {
    EXPECT_TRUE(fileExists(sibling + "/sub/file")) << sibling;
  }
}

// --- refused logins ----------------------------------------------------------

TEST_F(ConnectionTest, RefusedLoginsExitWith17) {
  const std::vector<TestAccount> logins = {
      {rootAccount().name, "wrong password"},
      {plainAccount().name, plainAccount().password + "x"},
      {kbdAccount().name, "wrong password"},
      pubkeyAccount(),  // its password is never asked for
  };
  for (const TestAccount& login : logins) {
    SCOPED_TRACE(login.name);
    FerrowInstallation install;
    RunResult r = run(install, removal(login, "/nonexistent-ferrow-agent"));
    expectFailure(install, r, 17,
                  "Unable to connect to host 127.0.0.1: you have specified "
                  "incorrect username or password",
                  "SshInvalidCredentials");
  }
}

// --- hosts that cannot be reached ------------------------------------------

TEST_F(ConnectionTest, ClosedPortExitsWith11) {
  ClosedPort closed;
  FerrowInstallation install;
  Removal request = removal(rootAccount(), "/nonexistent-ferrow-agent");
  request.port = closed.port();
  RunResult r = run(install, request);
  expectFailure(install, r, 11,
                "No one listening on the remote address at host 127.0.0.1",
                "ConnectionRefused");
}

// Each start (and its retry in compatibility mode) gives up 10 s after
// the connection is made, however the peer behaves meanwhile.
TEST_F(ConnectionTest, PeerThatNeverSpeaksSshEndsTheRunInBoundedTime) {
  for (MuteServer::Kind kind : {MuteServer::kSilent, MuteServer::kTrickling}) {
    MuteServer mute(kind);
    FerrowInstallation install;
    Removal request = removal(rootAccount(), "/nonexistent-ferrow-agent");
    request.port = mute.port();
    Clock::time_point start = Clock::now();
    RunResult r = run(install, request);
    double seconds =
        std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GE(seconds, 19.0) << kind;
    EXPECT_LT(seconds, 40.0) << kind;
    expectFailure(install, r, 2,
                  "Unable to start SSH session: no SSH handshake from the "
                  "server within 10 seconds",
                  "UnableToStartSshSession");
  }
}

TEST_F(ConnectionTest, UnknownHostExitsWith16) {
  FerrowInstallation install;
  Removal request = removal(rootAccount(), "/nonexistent-ferrow-agent");
  request.host = "nosuchhost.invalid";
  request.options = hostsFixture(install, "127.0.0.1 localhost\n");
  Clock::time_point start = Clock::now();
  RunResult r = run(install, request);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 10.0);
  expectFailure(install, r, 16,
                "Unable to resolve hostname nosuchhost.invalid: Name or "
                "service not known",
                "HostNotFound");
  EXPECT_THAT(debugLog(install),
              HasSubstr("Unable to resolve nosuchhost.invalid: Name or "
                        "service not known"));
}

struct Unreachable {
  const char* setup;
  const char* address;
  int exitCode;
  std::string message;
  const char* code;
};

TEST_F(ConnectionTest, EachWayOfBeingUnreachableHasItsExitCode) {
  const std::vector<Unreachable> cases = {
      {"", kNetworkUnreachableAddress, 13,
       "Specified network host 203.0.113.1 is unreachable",
       "NetworkUnreachable"},
      {kNoRouteToHostSetup, kNoRouteToHostAddress, 14,
       "No route to host 192.0.2.1", "HostUnreachable"},
      {kPermissionDeniedSetup, kPermissionDeniedAddress, 15,
       "Unable to connect to host 198.51.100.1: Permission denied",
       "ConnectionFault"},
      {kTimeoutNetworkSetup, kTimeoutAddress, 12,
       "Timeout while attempting connection to host 198.18.0.1",
       "ConnectionTimedOut"},
  };
  for (const Unreachable& c : cases) {
    SCOPED_TRACE(c.address);
    FerrowInstallation install;
    Removal request = removal(rootAccount(), "/nonexistent-ferrow-agent");
    request.host = c.address;
    request.port = 22;
    request.options.isolateNetwork = true;
    request.options.networkSetup = c.setup;
    Clock::time_point start = Clock::now();
    RunResult r = run(install, request);
    // Only the system's own connect time-out applies.
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(),
              30.0);
    expectFailure(install, r, c.exitCode, c.message, c.code);
  }
}

// --- several addresses for one name ------------------------------------------

TEST_F(ConnectionTest, EveryAddressOfANameIsTriedInTurn) {
  FerrowInstallation install;
  RunOptions options =
      hostsFixture(install, "::1 dualhost\n127.0.0.1 dualhost\n::1 v6only\n");
  // The server listens on 127.0.0.1 only; the resolver lists ::1 first.
  RunResult order = runInNamespace("getent ahosts dualhost", options);
  ASSERT_EQ(0, order.exitCode) << order.err;
  // glibc lists ::1 only on hosts with a global IPv6 address.
  if (order.out.rfind("::1 ", 0) != 0) {
    GTEST_SKIP() << "the resolver does not list ::1 first here:\n" << order.out;
  }

  TempDir scratch;
  std::string agent = scratch.path() + "/agent";
  makeTree(agent, 0, 0, 0700);
  Removal dual = removal(rootAccount(), agent);
  dual.host = "dualhost";
  dual.options = options;
  RunResult r = run(install, dual);
  expectSuccess(install, r, "dualhost");
  EXPECT_FALSE(fileExists(agent));
  std::string port = std::to_string(SshdServer::shared().port());
  EXPECT_THAT(debugLog(install),
              HasSubstr("Unable to open socket to dualhost:" + port +
                        ": Connection refused\n"));

  // ::1 alone is tried and refused.
  FerrowInstallation v6install;
  Removal v6 = removal(rootAccount(), "/nonexistent-ferrow-agent");
  v6.host = "v6only";
  v6.options = options;
  RunResult refused = run(v6install, v6);
  expectFailure(v6install, refused, 11,
                "No one listening on the remote address at host v6only",
                "ConnectionRefused");
}

// --- sudo refused ------------------------------------------------------------

TEST_F(ConnectionTest, RefusedSudoExitsWith2AndLeavesTheDirectory) {
  TempDir scratch;
  openUp(scratch, 0, 0);
  std::string agent = scratch.path() + "/agent";
  makeTree(agent, 0, 0, 0755);
  const std::vector<Removal> cases = {
      sudoRemoval(plainAccount(), agent, plainAccount().password),
      sudoRemoval(sudoAccount(), agent, "wrong sudo password"),
  };
  for (const Removal& c : cases) {
    SCOPED_TRACE(c.login.name);
    FerrowInstallation install;
    RunResult r = run(install, c);
    expectFailure(
        install, r, 2,
        "sudo is not allowed for user " + c.login.name + " on host 127.0.0.1.",
        "SudoNotAllowed");
    EXPECT_TRUE(fileExists(agent + "/sub/file"));
  }
}

}  // namespace
}  // namespace ferrow_test
