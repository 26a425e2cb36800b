// A real OpenSSH server on 127.0.0.1 for end-to-end tests, and the local
// accounts that log in to it. The accounts are created on first use, under
// a file lock shared by concurrently running test programs.
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

// "ferrowroot": a second name for uid 0 and gid 0.
const TestAccount& rootAccount();
// "ferrowsudo": member of group "sudo", so sudo asks for its password.
const TestAccount& sudoAccount();
// "ferrowplain": no sudo rights.
const TestAccount& plainAccount();
// "ferrowkbd": the server offers it keyboard-interactive only.
const TestAccount& kbdAccount();
// "ferrowkey": the server offers it publickey only (no key is installed).
const TestAccount& pubkeyAccount();

std::string homeOf(const TestAccount& account);

// Creates the missing accounts and sets every password, once per process;
// root's own entry is never touched. Throws std::runtime_error.
void ensureTestAccounts();

// One sshd on 127.0.0.1 on a free port, with its own directory holding the
// configuration, a host key and the log. Logins go through PAM, whose
// two-second delay after a wrong password is left out (a private copy of
// the sshd PAM file, bound in the server's own mount namespace).
class SshdServer {
 public:
  // Ensures the accounts, starts sshd and waits for its "SSH-" greeting.
  // Throws std::runtime_error when it cannot.
  SshdServer();
  ~SshdServer();  // stops the server, removes its directory
  SshdServer(const SshdServer&) = delete;
  SshdServer& operator=(const SshdServer&) = delete;

  // A server started on first call and stopped when the process exits.
  static SshdServer& shared();

  unsigned short port() const { return port_; }
  // The contents of the server's log so far.
  std::string logText() const;

  // The listener's children: one monitor process per open connection.
  std::vector<pid_t> connectionPids() const;
  // Kills (SIGKILL) the monitor and its sshd children, parents first,
  // leaving the command the connection runs: killing the command first
  // would let sshd report its end before the connection goes.
  static void killConnection(pid_t monitor);
  void killConnections() const;  // every open connection

 private:
  bool tryStart(unsigned short port);
  void stop();

  // Released, not removed, by a forked child of the starting process.
  std::unique_ptr<TempDir> dir_;
  pid_t pid_ = 0;
  pid_t owner_ = 0;
  unsigned short port_ = 0;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_SSHD_SERVER_H_
