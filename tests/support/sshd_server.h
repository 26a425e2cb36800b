// A real OpenSSH server on 127.0.0.1 for end-to-end tests, and the local
// accounts that log in to it. The packages (openssh-server, openssh-client,
// sudo) are installed and the accounts created on first use; both steps are
// serialised between concurrently running test programs by a file lock.
#ifndef FERROW_TESTS_SUPPORT_SSHD_SERVER_H_
#define FERROW_TESTS_SUPPORT_SSHD_SERVER_H_

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"

namespace ferrow_test {

// A local account with login shell /bin/sh and a home directory. Every
// password holds a blank and shell characters, to catch quoting faults.
struct TestAccount {
  std::string name;
  std::string password;
};

// "ferrowroot": a second name for uid 0 (gid 0, home /home/ferrowroot).
const TestAccount& rootAccount();
// "ferrowsudo": member of group "sudo", so sudo asks for its password.
const TestAccount& sudoAccount();
// "ferrowplain": no sudo rights.
const TestAccount& plainAccount();
// "ferrowkbd": the server offers it keyboard-interactive only.
const TestAccount& kbdAccount();
// "ferrowkey": the server offers it publickey only (no key is installed).
const TestAccount& pubkeyAccount();
// The five accounts above.
std::vector<TestAccount> testAccounts();

// The home directory of account (from the password database).
std::string homeOf(const TestAccount& account);

// Installs the packages when /usr/sbin/sshd or sudo is missing, then creates
// the accounts that are missing and sets every password; safe to repeat.
// Root's own entry is never touched. Throws std::runtime_error.
void setUpTestAccounts();
// setUpTestAccounts() once per process.
void ensureTestAccounts();

// One sshd listening on 127.0.0.1 on a free port, with its own directory
// holding the configuration, an ed25519 host key, the pid file and the log.
// Password and keyboard-interactive logins go through PAM; root may log in.
class SshdServer {
 public:
  // Ensures the accounts, then starts sshd and waits until it answers with
  // its "SSH-" banner. Throws std::runtime_error when it cannot.
  SshdServer();
  // Stops the server (see stop()) and removes its directory.
  ~SshdServer();
  SshdServer(const SshdServer&) = delete;
  SshdServer& operator=(const SshdServer&) = delete;

  // A server started on first call and stopped when the process exits.
  static SshdServer& shared();

  unsigned short port() const { return port_; }
  // The listener's pid; 0 once stopped.
  pid_t pid() const { return pid_; }
  const std::string& directory() const { return dir_->path(); }
  // The contents of the server's log so far.
  std::string logText() const;

  // The listener's direct children: one monitor process per open
  // connection. Killing one with SIGKILL drops that connection.
  std::vector<pid_t> connectionPids() const;
  // Kills (SIGKILL) the server side of the connection whose monitor is
  // `monitor`: the monitor and its sshd children, parents first, leaving
  // the command the connection runs. Killing the command first would let
  // sshd report its end before the connection goes.
  static void killConnection(pid_t monitor);
  // The same for every open connection.
  void killConnections() const;
  // Polls for up to timeoutMs until at least count connections are open;
  // returns their pids (fewer on timeout).
  std::vector<pid_t> waitForConnections(size_t count,
                                        int timeoutMs = 10000) const;

  // Sends SIGTERM and reaps the listener, SIGKILL after 3 s. Does nothing
  // when already stopped, or in a forked child of the starting process.
  void stop();

 private:
  bool tryStart(unsigned short port);

  // Released, not removed, by a forked child of the starting process.
  std::unique_ptr<TempDir> dir_;
  pid_t pid_ = 0;
  pid_t owner_ = 0;
  unsigned short port_ = 0;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_SSHD_SERVER_H_
