#include "commons/exec_cmd.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "commons/host_log.h"
#include "commons/unique_fd.h"
#include "errors/system_error.h"

namespace tovel {
namespace {

// Exit status of a child that could not become the requested program, as a
// shell reports a command it cannot run.
constexpr int kChildFailed = 127;

// How often waitpid is retried when it reports no such child.
constexpr int kEchildRetries = 100;

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};

bool makePipe(Pipe& pipe) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  pipe.readEnd.reset(fds[0]);
  pipe.writeEnd.reset(fds[1]);
  return true;
}

void setNonBlocking(const UniqueFd& fd) {
  int flags = fcntl(fd.get(), F_GETFL);
  if (flags < 0 || fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
    hostLog(HostLogLevel::kError,
            "forkExecvGetOutErr: fcntl(O_NONBLOCK) failed");
  }
}

// Keeps SIGPIPE blocked in this thread while it lives, so that a child
// closing its standard input early shows up as EPIPE instead of killing the
// process. A SIGPIPE raised meanwhile is discarded.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&pipeOnly_);
    sigaddset(&pipeOnly_, SIGPIPE);
    sigset_t pending;
    wasPending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly_, &saved_);
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;
  ~SigpipeBlock() {
    if (!wasPending_) {
      const timespec noWait = {0, 0};
      while (sigtimedwait(&pipeOnly_, nullptr, &noWait) == SIGPIPE) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
  }

 private:
  sigset_t pipeOnly_;
  sigset_t saved_;
  bool wasPending_ = false;
};

// Child side of forkExecvPipes, steps 1 to 3. Each failure throws.
void moveToStandardStreams(int in, int out, int err) {
  // Lift all three above 2 first, so that one landing on 0..2 is not
  // overwritten before it is duplicated.
  const int given[3] = {in, out, err};
  int lifted[3];
  for (int i = 0; i < 3; ++i) {
    lifted[i] = fcntl(given[i], F_DUPFD, 3);
    if (lifted[i] < 0) throwSystemError("forkExecvPipes: dup() failed", errno);
  }
  for (int i = 0; i < 3; ++i) {
    if (dup2(lifted[i], i) < 0) {
      throwSystemError("forkExecvPipes: dup2() failed", errno);
    }
  }
}

void closeFromThree() {
  if (close_range(3, ~0U, 0) == 0) return;
  long tableSize = sysconf(_SC_OPEN_MAX);
  for (long fd = 3; fd < tableSize; ++fd) ::close(static_cast<int>(fd));
}

[[noreturn]] void failUserSwitch(const std::string& user, int error) {
  throwSystemError("forkExecvPipes: p_setuid() to '" + user + "' failed",
                   error);
}

// Changes the real and effective user and groups to the named account;
// root and an empty name leave them alone. An unknown account is a failure,
// not a reason to go on as root.
void switchUser(const std::string& user) {
  if (user.empty()) return;
  errno = 0;
  const passwd* account = getpwnam(user.c_str());
  if (account == nullptr) failUserSwitch(user, errno != 0 ? errno : ENOENT);
  if (account->pw_uid == 0) return;
  if (initgroups(account->pw_name, account->pw_gid) != 0 ||
      setgid(account->pw_gid) != 0 || setuid(account->pw_uid) != 0) {
    failUserSwitch(user, errno);
  }
}

void setEnvironment(const EnvMap& env) {
  for (const auto& entry : env) {
    if (setenv(entry.first.c_str(), entry.second.c_str(), 1) != 0) {
      throwSystemError("forkExecvPipes: setenv() falied", errno);
    }
  }
}

// The forked child never returns: it becomes program or ends with
// kChildFailed. Returning (or throwing) would run the caller's code twice,
// once in each process.
[[noreturn]] void becomeProgram(int in, int out, int err,
                                const std::string& program, char* const* argv,
                                const std::string& user,
                                const EnvMap& env) noexcept {
  try {
    moveToStandardStreams(in, out, err);
    closeFromThree();
    switchUser(user);
    setEnvironment(env);
    execvp(program.c_str(), argv);
    hostLog(HostLogLevel::kError, "forkExecvPipes: execv() failed: %s\n",
            strerror(errno));
  } catch (const std::exception& e) {
    hostLog(HostLogLevel::kError, "%s", e.what());
  } catch (...) {
    hostLog(HostLogLevel::kError, "forkExecvPipes: child set-up failed");
  }
  _exit(kChildFailed);
}

// Writes what the pipe takes of input past written; closes the pipe when
// all is written or the child stopped reading.
void feedInput(UniqueFd& fd, const std::string& input, size_t& written) {
  ssize_t n = write(fd.get(), input.data() + written, input.size() - written);
  if (n >= 0) {
    written += static_cast<size_t>(n);
    if (written == input.size()) fd.reset();
    return;
  }
  if (errno == EINTR || errno == EAGAIN) return;
  // EPIPE: the child closed its standard input; the rest has no reader.
  if (errno != EPIPE) {
    hostLog(HostLogLevel::kError, "forkExecvGetOutErr: write() failed: %s",
            strerror(errno));
  }
  fd.reset();
}

// Appends what is readable to text; end of file (or an error) closes fd.
void collect(UniqueFd& fd, std::string& text) {
  char buffer[65536];
  ssize_t n = read(fd.get(), buffer, sizeof(buffer));
  if (n > 0) {
    text.append(buffer, static_cast<size_t>(n));
    return;
  }
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (n < 0) {
    hostLog(HostLogLevel::kError, "forkExecvGetOutErr: read() failed: %s",
            strerror(errno));
  }
  fd.reset();
}

void watch(const UniqueFd& fd, fd_set& set, int& maxFd) {
  if (!fd) return;
  FD_SET(fd.get(), &set);
  if (fd.get() > maxFd) maxFd = fd.get();
}

// Serves the child's three streams together until all are closed.
void pumpStreams(UniqueFd& in, UniqueFd& out, UniqueFd& err,
                 const std::string& input, std::string& output,
                 std::string& errors) {
  SigpipeBlock sigpipeBlock;
  size_t written = 0;
  while (in || out || err) {
    if (in && written == input.size()) in.reset();
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    int maxFd = -1;
    watch(in, writable, maxFd);
    watch(out, readable, maxFd);
    watch(err, readable, maxFd);
    if (maxFd < 0) break;
    if (select(maxFd + 1, &readable, &writable, nullptr, nullptr) < 0) {
      if (errno == EINTR) continue;
      throwSystemError("forkExecvGetOutErr: select() failed", errno);
    }
    if (in && FD_ISSET(in.get(), &writable)) feedInput(in, input, written);
    if (out && FD_ISSET(out.get(), &readable)) collect(out, output);
    if (err && FD_ISSET(err.get(), &readable)) collect(err, errors);
  }
}

// The exit status, or -1 after a signal death or when waiting fails.
// ECHILD is retried a bounded number of times: with SIGCHLD ignored it would
// repeat for ever.
int waitForChild(pid_t pid) {
  int status = 0;
  int echildRetries = kEchildRetries;
  while (waitpid(pid, &status, 0) != pid) {
    if (errno == EINTR) continue;
    if (errno == ECHILD && echildRetries-- > 0) continue;
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string section(const char* name, const std::string& text) {
  if (text.empty()) return std::string();
  std::string result = std::string(name) + " is\n" + text;
  if (text.back() != '\n') result += '\n';
  return result;
}

}  // namespace

pid_t forkExecvPipes(int in, int out, int err, const std::string& program,
                     const ArgList& args, const std::string& user,
                     const EnvMap& env) {
  // Built before forking, so the child allocates nothing for it.
  char* const* argv = args.argv();
  pid_t pid = fork();
  if (pid < 0) throwSystemError("forkExecvPipes: fork() failed", errno);
  if (pid == 0) becomeProgram(in, out, err, program, argv, user, env);
  return pid;
}

int forkExecvGetInOutErrSuidEnv(std::string input, std::string& output,
                                std::string& errors, const std::string& program,
                                const ArgList& args, const std::string& user,
                                const EnvMap& env) {
  Pipe in, out, err;
  if (!makePipe(in) || !makePipe(out) || !makePipe(err)) {
    hostLog(HostLogLevel::kError, "forkExecvGetOutErr: pipe() failed");
    return -1;
  }
  setNonBlocking(in.writeEnd);
  setNonBlocking(out.readEnd);
  setNonBlocking(err.readEnd);

  pid_t pid = forkExecvPipes(in.readEnd.get(), out.writeEnd.get(),
                             err.writeEnd.get(), program, args, user, env);
  in.readEnd.reset();
  out.writeEnd.reset();
  err.writeEnd.reset();
  try {
    pumpStreams(in.writeEnd, out.readEnd, err.readEnd, input, output, errors);
  } catch (...) {
    // Nobody will read the child's results: end it rather than leave it.
    kill(pid, SIGKILL);
    waitForChild(pid);
    throw;
  }
  return waitForChild(pid);
}

int forkExecvGetOutErrSuidEnv(std::string& output, std::string& errors,
                              const std::string& program, const ArgList& args,
                              const std::string& user, const EnvMap& env) {
  return forkExecvGetInOutErrSuidEnv(std::string(), output, errors, program,
                                     args, user, env);
}

int forkExecvGetOutErrSuid(std::string& output, std::string& errors,
                           const std::string& program, const ArgList& args,
                           const std::string& user) {
  return forkExecvGetInOutErrSuidEnv(std::string(), output, errors, program,
                                     args, user, EnvMap());
}

int forkExecvGetOutErr(std::string& output, std::string& errors,
                       const std::string& program, const ArgList& args) {
  return forkExecvGetInOutErrSuidEnv(std::string(), output, errors, program,
                                     args, std::string(), EnvMap());
}

int forkExecvGetOut(std::string& output, const std::string& program,
                    const ArgList& args) {
  std::string errors;
  return forkExecvGetInOutErrSuidEnv(std::string(), output, errors, program,
                                     args, std::string(), EnvMap());
}

ExecCmd::ExecCmd(const std::string& program) : program_(program) {
  arguments_ << program;
}

ExecCmd& ExecCmd::operator<<(const std::string& argument) {
  arguments_ << argument;
  return *this;
}

void ExecCmd::setEnv(const std::string& name, const std::string& value) {
  environment_[name] = value;
}

int ExecCmd::exec() {
  int code = execCmdLine();
  if (code != 0) reportError();
  return code;
}

int ExecCmd::exec(std::nothrow_t) noexcept { return execCmdLine(); }

int ExecCmd::execCmdLine() {
  executed_ = true;
  // Each run reports its own output only.
  output_.clear();
  errors_.clear();
  returnCode_ = forkExecvGetInOutErrSuidEnv(input_, output_, errors_, program_,
                                            arguments_, user_, environment_);
  finished_ = true;
  savedErrno_ = errno;
  return returnCode_;
}

void ExecCmd::reportError() const {
  TOVEL_THROW(Failed) % getString() % returnCode_ % section("Stdin", input_) %
      section("Stdout", output_) % section("Stderr", errors_);
}

std::string ExecCmd::getString() const {
  return arguments_.getStringRepresentation();
}

}  // namespace tovel
