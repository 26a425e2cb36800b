#include "support/sshd_server.h"

#include <arpa/inet.h>
#include <dirent.h>
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

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "commons/arg_list.h"
#include "commons/exec_cmd.h"

namespace ferrow_test {
namespace {

typedef std::chrono::steady_clock Clock;

const char kSshd[] = "/usr/sbin/sshd";
const char kLockFile[] = "/run/lock/ferrow-test-accounts.lock";
// Installing packages under the lock can take a while.
constexpr int kLockTimeoutSeconds = 600;
constexpr int kStartAttempts = 5;
constexpr int kBannerTimeoutMs = 10000;
constexpr int kStopGraceMs = 3000;

enum { kRoot, kSudo, kPlain, kKbd, kKey };

const std::vector<TestAccount>& allAccounts() {
  static const std::vector<TestAccount> accounts = {
      {"ferrowroot", "Fr root#1 $x"},   {"ferrowsudo", "Fr sudo#2 'q'"},
      {"ferrowplain", "Fr plain#3 &;"}, {"ferrowkbd", "Fr kbd#4 \\\"d\""},
      {"ferrowkey", "Fr key#5 `k` *"},
  };
  return accounts;
}

void sleepMs(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

int elapsedMs(Clock::time_point since) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                              Clock::now() - since)
                              .count());
}

// An exclusive flock on kLockFile, held for the owner's lifetime.
class AccountsLock {
 public:
  AccountsLock() {
    fd_ = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0)
      throw std::runtime_error(std::string("cannot open ") + kLockFile);
    Clock::time_point start = Clock::now();
    while (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (elapsedMs(start) > kLockTimeoutSeconds * 1000) {
        close(fd_);
        throw std::runtime_error(std::string("timed out locking ") + kLockFile);
      }
      sleepMs(100);
    }
  }
  ~AccountsLock() { close(fd_); }
  AccountsLock(const AccountsLock&) = delete;
  AccountsLock& operator=(const AccountsLock&) = delete;

 private:
  int fd_ = -1;
};

bool packagesPresent() {
  return access(kSshd, X_OK) == 0 && access("/usr/bin/ssh-keygen", X_OK) == 0 &&
         access("/usr/bin/ssh", X_OK) == 0 &&
         access("/usr/bin/sudo", X_OK) == 0;
}

void aptGet(const std::vector<std::string>& args) {
  tovel::ExecCmd apt("apt-get");
  for (const std::string& arg : args) apt << arg;
  apt.setEnv("DEBIAN_FRONTEND", "noninteractive");
  apt.exec();
}

// Runs under the accounts lock; updates the package lists only when the
// install fails on stale ones.
void installPackages() {
  if (packagesPresent()) return;
  const std::vector<std::string> install = {"install",
                                            "-y",
                                            "-q",
                                            "--no-install-recommends",
                                            "openssh-server",
                                            "openssh-client",
                                            "sudo"};
  try {
    aptGet(install);
  } catch (const std::exception&) {
    aptGet({"update", "-q"});
    aptGet(install);
  }
}

bool inGroup(const std::string& user, const char* group) {
  const struct group* entry = getgrnam(group);
  if (entry == nullptr) return false;
  for (char** member = entry->gr_mem; *member != nullptr; ++member)
    if (user == *member) return true;
  return false;
}

void ensureAccount(const TestAccount& account) {
  if (getpwnam(account.name.c_str()) == nullptr) {
    tovel::ExecCmd add("useradd");
    add << "-m"
        << "-d"
        << "/home/" + account.name << "-s"
        << "/bin/sh";
    if (account.name == rootAccount().name)
      add << "-o"
          << "-u"
          << "0"
          << "-g"
          << "0";
    add << account.name;
    add.exec();
  }
  if (account.name == sudoAccount().name && !inGroup(account.name, "sudo")) {
    tovel::ExecCmd join("usermod");
    join << "-a"
         << "-G"
         << "sudo" << account.name;
    join.exec();
  }
}

void ensurePrivilegeSeparationDir() {
  if (mkdir("/run/sshd", 0755) != 0 && errno != EEXIST)
    throw std::runtime_error("cannot create /run/sshd");
}

// A port that was free a moment ago; sshd may still lose it to a race,
// which the caller retries.
unsigned short freePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0;
  close(fd);
  if (!ok) throw std::runtime_error("cannot find a free port");
  return ntohs(addr.sin_port);
}

// Whether 127.0.0.1:port accepts a connection and greets with "SSH-"
// within two seconds.
bool answersBanner(unsigned short port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char banner[4] = {};
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  pollfd ready = {fd, POLLIN, 0};
  ok = ok && poll(&ready, 1, 2000) == 1 &&
       recv(fd, banner, sizeof banner, MSG_WAITALL) == sizeof banner;
  close(fd);
  return ok && std::memcmp(banner, "SSH-", 4) == 0;
}

std::string configText(const std::string& dir, unsigned short port) {
  std::ostringstream text;
  text << "ListenAddress 127.0.0.1\n"
       << "Port " << port << "\n"
       << "HostKey " << dir << "/host_ed25519_key\n"
       << "PidFile " << dir << "/sshd.pid\n"
       << "UsePAM yes\n"
          "PasswordAuthentication yes\n"
          "KbdInteractiveAuthentication yes\n"
          "PubkeyAuthentication yes\n"
          "PermitRootLogin yes\n"
          "StrictModes no\n"
          "UseDNS no\n"
          "LogLevel VERBOSE\n"
          "MaxStartups 100\n"
          "MaxSessions 100\n"
          "PrintMotd no\n"
          "Subsystem sftp internal-sftp\n"
       << "Match User " << kbdAccount().name << "\n"
       << "  PasswordAuthentication no\n"
          "  AuthenticationMethods keyboard-interactive\n"
       << "Match User " << pubkeyAccount().name << "\n"
       << "  AuthenticationMethods publickey\n";
  return text.str();
}

// Forks and execs argv[0] (an absolute path) with /dev/null as standard
// streams. The child gets SIGTERM when this thread ends, so that a test
// program that dies leaves no server behind.
pid_t spawn(const tovel::ArgList& argv) {
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid > 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  int null = open("/dev/null", O_RDWR);
  if (null < 0) _exit(127);
  dup2(null, 0);
  dup2(null, 1);
  dup2(null, 2);
  closefrom(3);
  execv(argv.argv()[0], argv.argv());
  _exit(127);
}

// Waits up to ms for pid to end; reaps it.
bool reapWithin(pid_t pid, int ms) {
  Clock::time_point start = Clock::now();
  do {
    pid_t done = waitpid(pid, nullptr, WNOHANG);
    if (done == pid || (done < 0 && errno == ECHILD)) return true;
    sleepMs(10);
  } while (elapsedMs(start) < ms);
  return false;
}

// The parent pid in /proc/<pid>/stat (after the command in parentheses),
// or -1.
pid_t parentOf(const std::string& pid) {
  std::ifstream in("/proc/" + pid + "/stat");
  std::string stat;
  std::getline(in, stat);
  size_t end = stat.rfind(')');
  if (end == std::string::npos) return -1;
  std::istringstream fields(stat.substr(end + 1));
  char state = 0;
  pid_t ppid = -1;
  fields >> state >> ppid;
  return fields ? ppid : -1;
}

// The name a process runs under ("sshd"), from /proc/<pid>/stat.
std::string commandOf(const std::string& pid) {
  std::ifstream in("/proc/" + pid + "/stat");
  std::string stat;
  std::getline(in, stat);
  size_t start = stat.find('(');
  size_t end = stat.rfind(')');
  if (start == std::string::npos || end == std::string::npos) return "";
  return stat.substr(start + 1, end - start - 1);
}

// The sshd processes at and below pid, parents first.
void collectSshd(pid_t pid, std::vector<pid_t>* found) {
  found->push_back(pid);
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  if (!proc) return;
  while (const dirent* entry = readdir(proc.get())) {
    std::string name = entry->d_name;
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (parentOf(name) == pid && commandOf(name) == "sshd") {
      collectSshd(std::stoi(name), found);
    }
  }
}

}  // namespace

const TestAccount& rootAccount() { return allAccounts()[kRoot]; }
const TestAccount& sudoAccount() { return allAccounts()[kSudo]; }
const TestAccount& plainAccount() { return allAccounts()[kPlain]; }
const TestAccount& kbdAccount() { return allAccounts()[kKbd]; }
const TestAccount& pubkeyAccount() { return allAccounts()[kKey]; }
std::vector<TestAccount> testAccounts() { return allAccounts(); }

std::string homeOf(const TestAccount& account) {
  const passwd* entry = getpwnam(account.name.c_str());
  if (entry == nullptr) throw std::runtime_error("no account " + account.name);
  return entry->pw_dir;
}

void setUpTestAccounts() {
  AccountsLock lock;
  installPackages();
  std::string passwords;
  for (const TestAccount& account : allAccounts()) {
    ensureAccount(account);
    passwords += account.name + ":" + account.password + "\n";
  }
  tovel::ExecCmd chpasswd("chpasswd");
  chpasswd.setInput(passwords);
  chpasswd.exec();
}

void ensureTestAccounts() {
  static std::once_flag done;
  std::call_once(done, setUpTestAccounts);
}

SshdServer::SshdServer() : dir_(std::make_unique<TempDir>()), owner_(getpid()) {
  ensureTestAccounts();
  ensurePrivilegeSeparationDir();
  tovel::ExecCmd keygen("ssh-keygen");
  keygen << "-q"
         << "-t"
         << "ed25519"
         << "-N"
         << ""
         << "-f" << directory() + "/host_ed25519_key";
  keygen.exec();
  for (int attempt = 0; attempt < kStartAttempts; ++attempt)
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
  writeFile(directory() + "/sshd_config", configText(directory(), port));
  tovel::ArgList argv;
  argv << kSshd << "-D"
       << "-e"
       << "-f" << directory() + "/sshd_config"
       << "-E" << directory() + "/sshd.log";
  pid_ = spawn(argv);
  port_ = port;
  Clock::time_point start = Clock::now();
  while (elapsedMs(start) < kBannerTimeoutMs) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = 0;  // most likely lost the port to another program
      return false;
    }
    if (answersBanner(port)) {
      // The probe's own connection process ends once it sees the close.
      for (int i = 0; i < 500 && !connectionPids().empty(); ++i) sleepMs(10);
      return true;
    }
    sleepMs(50);
  }
  stop();
  return false;
}

std::string SshdServer::logText() const {
  std::string name = directory() + "/sshd.log";
  return fileExists(name) ? readFile(name) : std::string();
}

std::vector<pid_t> SshdServer::connectionPids() const {
  std::vector<pid_t> children;
  if (pid_ == 0) return children;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  if (!proc) throw std::runtime_error("cannot read /proc");
  while (const dirent* entry = readdir(proc.get())) {
    std::string name = entry->d_name;
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (parentOf(name) == pid_) children.push_back(std::stoi(name));
  }
  return children;
}

void SshdServer::killConnection(pid_t monitor) {
  std::vector<pid_t> pids;
  collectSshd(monitor, &pids);
  for (pid_t pid : pids) kill(pid, SIGKILL);
}

void SshdServer::killConnections() const {
  for (pid_t monitor : connectionPids()) killConnection(monitor);
}

std::vector<pid_t> SshdServer::waitForConnections(size_t count,
                                                  int timeoutMs) const {
  Clock::time_point start = Clock::now();
  std::vector<pid_t> pids = connectionPids();
  while (pids.size() < count && elapsedMs(start) < timeoutMs) {
    sleepMs(20);
    pids = connectionPids();
  }
  return pids;
}

void SshdServer::stop() {
  if (pid_ == 0 || getpid() != owner_) return;
  // Open sessions would outlive the listener; they belong to this test.
  for (pid_t child : connectionPids()) kill(child, SIGTERM);
  kill(pid_, SIGTERM);
  if (!reapWithin(pid_, kStopGraceMs)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = 0;
}

}  // namespace ferrow_test
