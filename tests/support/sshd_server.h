// A real OpenSSH server on 127.0.0.1 and the local accounts that log in to
// it (created on first use, under a lock shared by test programs).
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

const TestAccount& rootAccount();    // a second name for uid 0 and gid 0
const TestAccount& sudoAccount();    // in group "sudo": sudo asks its password
const TestAccount& plainAccount();   // no sudo rights
const TestAccount& kbdAccount();     // offered keyboard-interactive only
const TestAccount& pubkeyAccount();  // offered publickey only, has no key
std::string homeOf(const TestAccount& account);

// /proc: every pid; /proc/<pid>/<name> ("" when gone); the running built
// ferrow whose arguments hold marker (0 when none does).
std::vector<pid_t> allPids();
std::string procFile(pid_t pid, const std::string& name);
pid_t findFerrow(const std::string& marker);

// One sshd on 127.0.0.1, with its own directory holding the configuration,
// a host key and the log. Logins go through PAM without the delay after a
// wrong password (a private copy of the sshd PAM file, bound in the
// server's own mount namespace).
class SshdServer {
 public:
  // Waits until it listens; throws when it cannot. maxSessions: the
  // channels it lets one connection have open at once.
  explicit SshdServer(int maxSessions = 100);
  ~SshdServer();
  SshdServer(const SshdServer&) = delete;
  SshdServer& operator=(const SshdServer&) = delete;

  static SshdServer& shared();  // started on first call

  unsigned short port() const { return port_; }
  std::string logText() const;
  // Kills (SIGKILL) every connection's sshd processes, parents first,
  // leaving the commands they run: killing a command first would let sshd
  // report its end before the connection goes.
  void killConnections() const;

 private:
  std::unique_ptr<TempDir> dir_;
  pid_t pid_ = 0;
  pid_t owner_ = 0;
  unsigned short port_ = 0;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_SSHD_SERVER_H_
