// The test sshd: it starts, greets, serves every test account with the
// method it is meant to offer, and stops by pid.
#include "support/sshd_server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "commons/exec_cmd.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

// A connected socket to 127.0.0.1:port, or -1 with errno set.
int connectTo(unsigned short port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
    return fd;
  int err = errno;
  close(fd);
  errno = err;
  return -1;
}

// What the peer sends within ms, up to its close or 255 bytes.
std::string readWithin(int fd, int ms) {
  std::string text;
  char buffer[256];
  pollfd ready = {fd, POLLIN, 0};
  while (text.size() < 255 && poll(&ready, 1, ms) == 1) {
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    text.append(buffer, n);
    if (text.find('\n') != std::string::npos) break;
  }
  return text;
}

TEST(SshdServerTest, StartsGreetsAndStopsByPid) {
  std::string directory;
  unsigned short port = 0;
  {
    SshdServer server;
    directory = server.directory();
    port = server.port();
    ASSERT_GT(server.pid(), 0);
    EXPECT_THAT(server.logText(),
                HasSubstr("Server listening on 127.0.0.1 port " +
                          std::to_string(port) + "."));
    int fd = connectTo(port);
    ASSERT_GE(fd, 0) << strerror(errno);
    EXPECT_EQ(0u, readWithin(fd, 5000).find("SSH-2.0-OpenSSH"));
    close(fd);

    pid_t pid = server.pid();
    server.stop();
    EXPECT_EQ(0, server.pid());
    EXPECT_EQ(-1, kill(pid, 0));
    EXPECT_EQ(-1, connectTo(port));
    EXPECT_EQ(ECONNREFUSED, errno);
  }
  struct stat info;
  EXPECT_NE(0, stat(directory.c_str(), &info)) << "directory left behind";
}

TEST(SshdServerTest, KillingAConnectionProcessDropsThatConnection) {
  SshdServer& server = SshdServer::shared();
  int fd = connectTo(server.port());
  ASSERT_GE(fd, 0) << strerror(errno);
  ASSERT_EQ(0u, readWithin(fd, 5000).find("SSH-"));
  std::vector<pid_t> pids = server.waitForConnections(1);
  ASSERT_EQ(1u, pids.size());

  ASSERT_EQ(0, kill(pids[0], SIGKILL));
  char byte;
  pollfd ready = {fd, POLLIN, 0};
  ASSERT_EQ(1, poll(&ready, 1, 5000)) << "connection still open";
  EXPECT_GE(0, recv(fd, &byte, 1, 0));
  close(fd);
  EXPECT_EQ(0, kill(server.pid(), 0)) << "the listener must survive";
  for (int i = 0; i < 100 && !server.connectionPids().empty(); ++i)
    usleep(20000);
  EXPECT_THAT(server.connectionPids(), IsEmpty());
}

// Logs in with the OpenSSH client, typing the password through an askpass
// program so that it passes byte for byte; returns "<code>\n<output>".
class LoginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    askpass_ = dir_.path() + "/askpass";
    writeFile(askpass_, "#!/bin/sh\nprintf '%s\\n' \"$FERROW_TEST_SECRET\"\n");
    chmod(askpass_.c_str(), 0755);
  }

  tovel::ExecCmd login(const std::string& user, const std::string& password,
                       const std::string& methods) {
    tovel::ExecCmd ssh("timeout");
    ssh << "30"
        << "ssh"
        << "-F"
        << "/dev/null"
        << "-o"
        << "StrictHostKeyChecking=no"
        << "-o"
        << "UserKnownHostsFile=/dev/null"
        << "-o"
        << "PreferredAuthentications=" + methods << "-o"
        << "NumberOfPasswordPrompts=1"
        << "-p" << std::to_string(SshdServer::shared().port())
        << user + "@127.0.0.1"
        << "echo \"$USER\"; id -u";
    ssh.setEnv("SSH_ASKPASS", askpass_);
    ssh.setEnv("SSH_ASKPASS_REQUIRE", "force");
    ssh.setEnv("FERROW_TEST_SECRET", password);
    ssh.execCmdLine();
    return ssh;
  }

  TempDir dir_;
  std::string askpass_;
};

TEST_F(LoginTest, PasswordAccountsLogInWithTheirPasswordOnly) {
  for (const TestAccount& account :
       {rootAccount(), sudoAccount(), plainAccount()}) {
    tovel::ExecCmd right = login(account.name, account.password, "password");
    EXPECT_EQ(0, right.getReturnCode()) << account.name << right.getErrors();
    std::string uid = std::to_string(getpwnam(account.name.c_str())->pw_uid);
    EXPECT_EQ(account.name + "\n" + uid + "\n", right.getOutput());

    tovel::ExecCmd wrong =
        login(account.name, account.password + "x", "password");
    EXPECT_EQ(255, wrong.getReturnCode()) << account.name;
    EXPECT_THAT(wrong.getErrors(), HasSubstr("Permission denied"));
  }
}

TEST_F(LoginTest, KeyboardInteractiveAccountIsOfferedNothingElse) {
  const TestAccount& kbd = kbdAccount();
  tovel::ExecCmd viaKbd = login(kbd.name, kbd.password, "keyboard-interactive");
  EXPECT_EQ(0, viaKbd.getReturnCode()) << viaKbd.getErrors();
  EXPECT_THAT(viaKbd.getOutput(), ::testing::StartsWith(kbd.name + "\n"));

  tovel::ExecCmd viaPassword = login(kbd.name, kbd.password, "password");
  EXPECT_EQ(255, viaPassword.getReturnCode());
  EXPECT_THAT(viaPassword.getErrors(),
              HasSubstr("Permission denied (keyboard-interactive)."));
}

TEST_F(LoginTest, PublickeyAccountRefusesPasswords) {
  const TestAccount& key = pubkeyAccount();
  tovel::ExecCmd r =
      login(key.name, key.password, "password,keyboard-interactive");
  EXPECT_EQ(255, r.getReturnCode());
  EXPECT_THAT(r.getErrors(), HasSubstr("Permission denied (publickey)."));
}

}  // namespace
}  // namespace ferrow_test
