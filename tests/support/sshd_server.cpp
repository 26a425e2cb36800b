#include "support/sshd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "commons/arg_list.h"
#include "commons/exec_cmd.h"

namespace ferrow_test {
namespace {

const TestAccount kAccounts[] = {
    {"ferrowroot", "Fr root#1 $x"},   {"ferrowsudo", "Fr sudo#2 'q'"},
    {"ferrowplain", "Fr plain#3 &;"}, {"ferrowkbd", "Fr kbd#4 \\\"d\""},
    {"ferrowkey", "Fr key#5 `k` *"},
};

void ensureAccount(const TestAccount& account) {
  if (getpwnam(account.name.c_str()) == nullptr) {
    tovel::ExecCmd add("useradd");
    add << "-m" << "-s" << "/bin/sh";
    if (&account == &rootAccount()) add << "-o" << "-u" << "0" << "-g" << "0";
    add << account.name;
    add.exec();
  }
  if (&account == &sudoAccount()) {
    tovel::ExecCmd join("usermod");
    join << "-a" << "-G" << "sudo" << account.name;
    join.exec();
  }
}

void setUpTestAccounts() {
  // Test programs running at once take turns; the lock goes with the fd.
  int lock = open("/run/lock/ferrow-test-accounts.lock",
                  O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0)
    throw std::runtime_error("cannot lock the test accounts");
  std::string passwords;
  for (const TestAccount& account : kAccounts) {
    ensureAccount(account);
    passwords += account.name + ":" + account.password + "\n";
  }
  tovel::ExecCmd chpasswd("chpasswd");
  chpasswd.setInput(passwords);
  chpasswd.exec();
  close(lock);
}

sockaddr_in loopback(unsigned short port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// A port that was free a moment ago; losing it to a race is retried.
unsigned short freePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr = loopback(0);
  socklen_t length = sizeof addr;
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0;
  close(fd);
  if (!ok) throw std::runtime_error("cannot find a free port");
  return ntohs(addr.sin_port);
}

// Whether 127.0.0.1:port greets with "SSH-" within two seconds.
bool answersBanner(unsigned short port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr = loopback(port);
  char banner[4] = {};
  pollfd ready = {fd, POLLIN, 0};
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            poll(&ready, 1, 2000) == 1 &&
            recv(fd, banner, sizeof banner, MSG_WAITALL) == sizeof banner;
  close(fd);
  return ok && std::memcmp(banner, "SSH-", 4) == 0;
}

std::string configText(const std::string& dir, unsigned short port) {
  std::ostringstream text;
  text << "ListenAddress 127.0.0.1\nPort " << port << "\nHostKey " << dir
       << "/host_key\nPidFile " << dir << "/sshd.pid\n"
       << "UsePAM yes\nPasswordAuthentication yes\n"
          "KbdInteractiveAuthentication yes\nPermitRootLogin yes\n"
          "StrictModes no\nUseDNS no\nLogLevel VERBOSE\nMaxStartups 100\n"
          "MaxSessions 100\nPrintMotd no\n"
       << "Match User " << kbdAccount().name
       << "\n  AuthenticationMethods keyboard-interactive\n"
       << "Match User " << pubkeyAccount().name
       << "\n  AuthenticationMethods publickey\n";
  return text.str();
}

// Runs sshd in a mount namespace of its own where a copy of its PAM file
// without the failure delay is bound. Standard streams go to /dev/null; the
// child gets SIGTERM when the starting thread ends, so that a test program
// that dies leaves no server behind.
pid_t spawnSshd(const std::string& dir) {
  std::string pam = readFile("/etc/pam.d/sshd");
  pam = std::regex_replace(
      pam, std::regex("@include common-auth"),
      "auth [success=1 default=ignore] pam_unix.so nullok nodelay\n"
      "auth requisite pam_deny.so\nauth required pam_permit.so");
  writeFile(dir + "/pam", pam);
  tovel::ArgList argv;
  argv << "/usr/bin/unshare" << "-m" << "--propagation" << "private" << "sh"
       << "-c" << "mount --bind \"$0\" /etc/pam.d/sshd && exec \"$@\""
       << dir + "/pam" << "/usr/sbin/sshd" << "-D" << "-e" << "-f"
       << dir + "/sshd_config" << "-E" << dir + "/sshd.log";
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid > 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  int null = open("/dev/null", O_RDWR);
  for (int fd = 0; fd < 3; ++fd) dup2(null, fd);
  closefrom(3);
  execv(argv.argv()[0], argv.argv());
  _exit(127);
}

std::vector<pid_t> childrenOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" +
                   std::to_string(pid) + "/children");
  std::vector<pid_t> children;
  for (pid_t child; in >> child;) children.push_back(child);
  return children;
}

void pause(int ms) { usleep(ms * 1000); }

}  // namespace

const TestAccount& rootAccount() { return kAccounts[0]; }
const TestAccount& sudoAccount() { return kAccounts[1]; }
const TestAccount& plainAccount() { return kAccounts[2]; }
const TestAccount& kbdAccount() { return kAccounts[3]; }
const TestAccount& pubkeyAccount() { return kAccounts[4]; }

std::string homeOf(const TestAccount& account) {
  const passwd* entry = getpwnam(account.name.c_str());
  if (entry == nullptr) throw std::runtime_error("no account " + account.name);
  return entry->pw_dir;
}

void ensureTestAccounts() {
  static std::once_flag done;
  std::call_once(done, setUpTestAccounts);
}

SshdServer::SshdServer() : dir_(std::make_unique<TempDir>()), owner_(getpid()) {
  ensureTestAccounts();
  mkdir("/run/sshd", 0755);  // privilege separation
  tovel::ExecCmd keygen("ssh-keygen");
  keygen << "-q" << "-t" << "ed25519" << "-N" << ""
         << "-f" << dir_->path() + "/host_key";
  keygen.exec();
  for (int attempt = 0; attempt < 5; ++attempt)
    if (tryStart(freePort())) return;
  throw std::runtime_error("sshd did not start; its log:\n" + logText());
}

SshdServer::~SshdServer() {
  if (getpid() != owner_) (void)dir_.release();
  stop();
}

SshdServer& SshdServer::shared() {
  static SshdServer server;
  return server;
}

bool SshdServer::tryStart(unsigned short port) {
  writeFile(dir_->path() + "/sshd_config", configText(dir_->path(), port));
  pid_ = spawnSshd(dir_->path());
  port_ = port;
  for (int round = 0; round < 200; ++round) {  // 10 s
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = 0;  // most likely lost the port to another program
      return false;
    }
    if (answersBanner(port)) {
      // The probe's own connection process ends once it sees the close.
      for (int i = 0; i < 500 && !connectionPids().empty(); ++i) pause(10);
      return true;
    }
    pause(50);
  }
  stop();
  return false;
}

std::string SshdServer::logText() const {
  std::string name = dir_->path() + "/sshd.log";
  return fileExists(name) ? readFile(name) : std::string();
}

std::vector<pid_t> SshdServer::connectionPids() const {
  return pid_ == 0 ? std::vector<pid_t>() : childrenOf(pid_);
}

void SshdServer::killConnection(pid_t monitor) {
  std::vector<pid_t> pids = {monitor};
  for (size_t i = 0; i < pids.size() && i < 100; ++i) {
    for (pid_t child : childrenOf(pids[i])) {
      std::ifstream comm("/proc/" + std::to_string(child) + "/comm");
      std::string name;
      if (comm >> name && name.compare(0, 4, "sshd") == 0)
        pids.push_back(child);
    }
  }
  for (pid_t pid : pids) kill(pid, SIGKILL);
}

void SshdServer::killConnections() const {
  for (pid_t monitor : connectionPids()) killConnection(monitor);
}

void SshdServer::stop() {
  if (pid_ == 0 || getpid() != owner_) return;
  // Open sessions would outlive the listener; they belong to this test.
  for (pid_t child : connectionPids()) kill(child, SIGTERM);
  kill(pid_, SIGTERM);
  bool gone = false;
  for (int i = 0; i < 300 && !gone; ++i) {
    gone = waitpid(pid_, nullptr, WNOHANG) != 0;
    if (!gone) pause(10);
  }
  if (!gone) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = 0;
}

}  // namespace ferrow_test
