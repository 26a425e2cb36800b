#include "support/sshd_server.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

void mustRun(const std::vector<std::string>& argv,
             const std::string& input = "") {
  RunResult r = runCommand(argv, input);
  if (r.exitCode != 0)
    throw std::runtime_error(argv[0] + " failed: " + r.out + r.err);
}

// Creates the missing accounts and sets every password; root's own entry is
// never touched. Test programs running at once take turns.
void setUpTestAccounts() {
  int lock = open("/run/lock/ferrow-test-accounts.lock",
                  O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0)
    throw std::runtime_error("cannot lock the test accounts");
  std::string passwords;
  for (const TestAccount& account : kAccounts) {
    if (getpwnam(account.name.c_str()) == nullptr) {
      std::vector<std::string> add = {"useradd", "-m", "-s", "/bin/sh"};
      if (&account == &kAccounts[0])
        add.insert(add.end(), {"-o", "-u", "0", "-g", "0"});
      add.push_back(account.name);
      mustRun(add);
    }
    passwords += account.name + ":" + account.password + "\n";
  }
  mustRun({"usermod", "-a", "-G", "sudo", sudoAccount().name});
  mustRun({"chpasswd"}, passwords);
  close(lock);
}

std::string configText(const std::string& dir, unsigned short port,
                       int maxSessions) {
  std::ostringstream text;
  text << "ListenAddress 127.0.0.1\nPort " << port << "\nHostKey " << dir
       << "/host_key\nPidFile " << dir << "/sshd.pid\n"
       << "UsePAM yes\nPasswordAuthentication yes\n"
          "KbdInteractiveAuthentication yes\nPermitRootLogin yes\n"
          "StrictModes no\nUseDNS no\nLogLevel VERBOSE\nMaxStartups 100\n"
       << "MaxSessions " << maxSessions << "\nPrintMotd no\n"
       << "Match User " << kbdAccount().name
       << "\n  AuthenticationMethods keyboard-interactive\n"
       << "Match User " << pubkeyAccount().name
       << "\n  AuthenticationMethods publickey\n";
  return text.str();
}

// sshd in a mount namespace of its own, where the PAM file is bound; it
// gets SIGTERM when the starting thread ends, so that a test program that
// dies leaves no server behind.
pid_t spawnSshd(const std::string& dir) {
  tovel::ArgList argv;
  for (const std::string& arg : std::vector<std::string>{
           "setpriv", "--pdeathsig", "TERM", "unshare", "-m", "--propagation",
           "private", "sh", "-c",
           "mount --bind \"$0\" /etc/pam.d/sshd && exec \"$@\"", dir + "/pam",
           "/usr/sbin/sshd", "-D", "-e", "-f", dir + "/sshd_config", "-E",
           dir + "/sshd.log"})
    argv << arg;
  int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  pid_t pid = tovel::forkExecvPipes(null, null, null, "setpriv", argv, "", {});
  close(null);
  return pid;
}

std::vector<pid_t> childrenOf(pid_t pid) {
  std::istringstream in(
      procFile(pid, "task/" + std::to_string(pid) + "/children"));
  std::vector<pid_t> children;
  for (pid_t child; in >> child;) children.push_back(child);
  return children;
}

}  // namespace

const TestAccount& rootAccount() { return kAccounts[0]; }
const TestAccount& sudoAccount() { return kAccounts[1]; }
const TestAccount& plainAccount() { return kAccounts[2]; }
const TestAccount& kbdAccount() { return kAccounts[3]; }
const TestAccount& pubkeyAccount() { return kAccounts[4]; }

std::vector<pid_t> allPids() {
  std::vector<pid_t> pids;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  while (dirent* entry = proc ? readdir(proc.get()) : nullptr)
    if (atoi(entry->d_name) > 0) pids.push_back(atoi(entry->d_name));
  return pids;
}

std::string procFile(pid_t pid, const std::string& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/" + name);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

pid_t findFerrow(const std::string& marker) {
  for (pid_t pid : allPids()) {
    std::string cmdline = procFile(pid, "cmdline");
    if (cmdline.rfind(FERROW_BINARY + std::string(1, '\0'), 0) == 0 &&
        cmdline.find(marker) != std::string::npos)
      return pid;
  }
  return 0;
}

std::string homeOf(const TestAccount& account) {
  const passwd* entry = getpwnam(account.name.c_str());
  if (entry == nullptr) throw std::runtime_error("no account " + account.name);
  return entry->pw_dir;
}

SshdServer::SshdServer(int maxSessions) : dir_(std::make_unique<TempDir>()), owner_(getpid()) {
  static std::once_flag accounts;
  std::call_once(accounts, setUpTestAccounts);
  const std::string dir = dir_->path();
  mkdir("/run/sshd", 0755);  // privilege separation
  mustRun(
      {"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", dir + "/host_key"});
  writeFile(dir + "/pam",
            std::regex_replace(
                readFile("/etc/pam.d/sshd"), std::regex("@include common-auth"),
                "auth [success=1 default=ignore] pam_unix.so nullok nodelay\n"
                "auth requisite pam_deny.so\nauth required pam_permit.so"));
  // Ports below the ephemeral range; one taken by another program makes
  // sshd exit, and the next is tried.
  for (int attempt = 0; attempt < 8 && port_ == 0; ++attempt) {
    unsigned short port = 10000 + (getpid() * 31 + attempt * 2003) % 20000;
    writeFile(dir + "/sshd.log", "");
    writeFile(dir + "/sshd_config", configText(dir, port, maxSessions));
    pid_ = spawnSshd(dir);
    for (int i = 0; i < 500 && port_ == 0; ++i, usleep(20000)) {  // 10 s
      if (logText().find("Server listening on 127.0.0.1 port") !=
          std::string::npos)
        port_ = port;
      else if (waitpid(pid_, nullptr, WNOHANG) == pid_)
        break;
    }
  }
  if (port_ == 0) throw std::runtime_error("sshd did not start:\n" + logText());
}

SshdServer::~SshdServer() {
  if (getpid() != owner_) {  // a forked child: the server is not its own
    (void)dir_.release();
    return;
  }
  for (pid_t child : childrenOf(pid_)) kill(child, SIGTERM);
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

SshdServer& SshdServer::shared() {
  static SshdServer server;
  return server;
}

std::string SshdServer::logText() const {
  return readFile(dir_->path() + "/sshd.log");
}

void SshdServer::killConnections() const {
  std::vector<pid_t> pids = childrenOf(pid_);  // one monitor per connection
  for (size_t i = 0; i < pids.size() && i < 100; ++i)
    for (pid_t child : childrenOf(pids[i]))
      if (procFile(child, "comm").compare(0, 4, "sshd") == 0)
        pids.push_back(child);
  for (pid_t pid : pids) kill(pid, SIGKILL);
}

}  // namespace ferrow_test
