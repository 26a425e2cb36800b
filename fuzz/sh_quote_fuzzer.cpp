// sh_quote against the real /bin/sh: for any word without NUL bytes,
// sh -c 'printf %s <quoted word>' prints the word itself. The shell runs
// once per input, so inputs are kept short by scripts/fuzz (-max_len).
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commons/sh_quote.h"
#include "fuzz_support.h"

extern char** environ;

namespace {

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// What /bin/sh -c command writes on its standard output; aborts unless the
// shell exits with 0.
std::string runShell(const std::string& command) {
  int fds[2];
  ferrow_fuzz::check(pipe2(fds, O_CLOEXEC) == 0, "pipe failed");
  Fd reader, writer;
  reader.fd = fds[0];
  writer.fd = fds[1];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writer.fd, 1);
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  pid_t pid;
  int error = posix_spawn(&pid, "/bin/sh", &actions, nullptr,
                          const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  ferrow_fuzz::check(error == 0, "cannot start /bin/sh");
  close(writer.fd);
  writer.fd = -1;
  std::string output;
  char buffer[4096];
  ssize_t n;
  while ((n = read(reader.fd, buffer, sizeof buffer)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    ferrow_fuzz::check(n > 0, "read from /bin/sh failed");
    output.append(buffer, static_cast<size_t>(n));
  }
  int status;
  while (waitpid(pid, &status, 0) < 0) {
    ferrow_fuzz::check(errno == EINTR, "waitpid failed");
  }
  ferrow_fuzz::check(WIFEXITED(status) && WEXITSTATUS(status) == 0,
                     "/bin/sh failed on: " + command);
  return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A command line cannot carry a NUL byte: the word ends there.
  std::string word(reinterpret_cast<const char*>(data), size);
  word = word.substr(0, word.find('\0'));
  std::string quoted = tovel::sh_quote(word);
  std::string printed = runShell("printf %s " + quoted);
  ferrow_fuzz::check(printed == word, "/bin/sh gave back '" + printed +
                                          "' for the word '" + word +
                                          "' quoted as " + quoted);
  return 0;
}
