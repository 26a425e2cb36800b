#include "commons/exec_cmd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>
#include <string>

namespace tovel {
namespace {

constexpr size_t kEightMiB = 8u << 20;

std::string pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

ExecCmd shell(const std::string& script) {
  ExecCmd cmd("sh");
  cmd << "-c" << script;
  return cmd;
}

// A child that came back into this process's code (instead of exec'ing or
// ending) would carry on with the test; make it end with a telltale status.
class NoDuplicateProcess {
 public:
  ~NoDuplicateProcess() {
    if (getpid() != parent_) _exit(42);
  }

 private:
  pid_t parent_ = getpid();
};

// ---- Return codes and failure reports ----

TEST(ExecCmd, FailureReportsAllThreeStreams) {
  ExecCmd cmd = shell("cat; echo E >&2; exit 3");
  cmd.setInput("in");
  try {
    cmd.exec();
    FAIL() << "exec() did not throw";
  } catch (const ExecCmd::ExFailed& e) {
    EXPECT_EQ("ExecCmd::ExFailed", e.code());
    EXPECT_STREQ(
        "Execution of sh -c cat\\;\\ echo\\ E\\ \\>\\&2\\;\\ exit\\ 3 failed "
        "with return code 3.\n"
        "Stdin is\nin\n"
        "Stdout is\nin\n"
        "Stderr is\nE\n",
        e.what());
  }
  EXPECT_EQ(3, cmd.getReturnCode());
  EXPECT_EQ("in", cmd.getOutput());
  EXPECT_EQ("E\n", cmd.getErrors());
  EXPECT_TRUE(cmd.isExecuted());
  EXPECT_TRUE(cmd.isFinished());
}

TEST(ExecCmd, FailureReportLeavesEmptySectionsOut) {
  ExecCmd onlyErrors = shell("printf x >&2; exit 255");
  try {
    onlyErrors.exec();
    FAIL() << "exec() did not throw";
  } catch (const ExecCmd::ExFailed& e) {
    EXPECT_STREQ(
        "Execution of sh -c printf\\ x\\ \\>\\&2\\;\\ exit\\ 255 failed with "
        "return code 255.\nStderr is\nx\n",
        e.what());
  }

  ExecCmd silent("false");
  try {
    silent.exec();
    FAIL() << "exec() did not throw";
  } catch (const ExecCmd::ExFailed& e) {
    EXPECT_STREQ("Execution of false failed with return code 1.\n", e.what());
  }
}

TEST(ExecCmd, NothrowAndSuccessfulRunsReturnTheCode) {
  ExecCmd failing = shell("exit 3");
  EXPECT_FALSE(failing.isExecuted());
  EXPECT_EQ(3, failing.exec(std::nothrow));
  EXPECT_EQ(3, failing.execCmdLine());

  ExecCmd echo("echo");
  echo << "hello";
  EXPECT_EQ(0, echo.exec());
  EXPECT_EQ("hello\n", echo.getOutput());
  // A second run reports its own output, not both.
  EXPECT_EQ(0, echo.exec());
  EXPECT_EQ("hello\n", echo.getOutput());
}

TEST(ExecCmd, ChildKilledBySignalGivesMinusOne) {
  EXPECT_EQ(-1, shell("kill -9 $$").exec(std::nothrow));
  EXPECT_EQ(-1, shell("kill -TERM $$").exec(std::nothrow));
  EXPECT_THROW(shell("kill -9 $$").exec(), ExecCmd::ExFailed);
}

TEST(ExecCmd, MissingProgramFailsWithoutDuplicatingThisProcess) {
  NoDuplicateProcess guard;
  ExecCmd missing("/nonexistent/ferrow-no-such-program");
  missing << "arg";
  EXPECT_EQ(127, missing.exec(std::nothrow));
  EXPECT_EQ("", missing.getOutput());

  std::string output;
  ArgList args;
  args << "ferrow-no-such-program-on-path";
  EXPECT_EQ(127,
            forkExecvGetOut(output, "ferrow-no-such-program-on-path", args));
}

TEST(ExecCmd, GetStringQuotesEveryArgument) {
  ExecCmd cmd("/bin/echo");
  cmd << "a b"
      << "it's"
      << "$x"
      << "line\nfeed"
      << "";
  EXPECT_EQ("/bin/echo a\\ b it\\'s \\$x line'\n'feed ", cmd.getString());
}

// ---- Streams ----

TEST(ExecCmd, LargeInputAndOutputFlowTogether) {
  const std::string input = pattern(kEightMiB);
  ExecCmd cat("cat");
  cat.setInput(input);
  ASSERT_EQ(0, cat.exec());
  EXPECT_EQ(input.size(), cat.getOutput().size());
  EXPECT_TRUE(cat.getOutput() == input);
}

TEST(ExecCmd, LargeErrorOutputWhileInputIsPending) {
  // The child fills its error pipe before reading anything: the parent has to
  // drain standard error while its writes to standard input are blocked.
  const std::string input = pattern(kEightMiB);
  ExecCmd cmd = shell("head -c 8388608 /dev/zero >&2; cat");
  cmd.setInput(input);
  ASSERT_EQ(0, cmd.exec());
  EXPECT_EQ(kEightMiB, cmd.getErrors().size());
  EXPECT_EQ(std::string::npos, cmd.getErrors().find_first_not_of('\0'));
  EXPECT_TRUE(cmd.getOutput() == input);
}

TEST(ExecCmd, ChildClosingStandardInputEarlyDropsTheRest) {
  ExecCmd head("head");
  head << "-c"
       << "10";
  head.setInput(pattern(kEightMiB));
  EXPECT_EQ(0, head.exec());
  EXPECT_EQ(pattern(10), head.getOutput());

  ExecCmd ignoring = shell("exec 0<&-; sleep 0.1; echo done");
  ignoring.setInput(pattern(kEightMiB));
  EXPECT_EQ(0, ignoring.exec());
  EXPECT_EQ("done\n", ignoring.getOutput());

  // SIGPIPE is neither left blocked nor left pending.
  sigset_t mask, pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&mask, SIGPIPE));
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

TEST(ExecCmd, EmptyInputIsEndOfFile) {
  ExecCmd cat("cat");
  EXPECT_EQ(0, cat.exec());
  EXPECT_EQ("", cat.getOutput());
}

TEST(ForkExecv, NarrowerFormsSeparateTheStreams) {
  ArgList args;
  args << "sh"
       << "-c"
       << "echo out; echo err >&2; exit 4";
  std::string output, errors;
  EXPECT_EQ(4, forkExecvGetOutErr(output, errors, "sh", args));
  EXPECT_EQ("out\n", output);
  EXPECT_EQ("err\n", errors);

  std::string onlyOutput = "kept:";
  EXPECT_EQ(4, forkExecvGetOut(onlyOutput, "sh", args));
  EXPECT_EQ("kept:out\n", onlyOutput);
}

TEST(ForkExecv, ChildSeesOnlyItsThreeStandardDescriptors) {
  int extra[2];
  ASSERT_EQ(0, pipe(extra));  // inheritable on purpose
  const std::string fd = std::to_string(extra[1]);
  std::string output, errors;
  ArgList present;
  present << "sh"
          << "-c"
          << "[ -e /proc/self/fd/2 ]";
  EXPECT_EQ(0, forkExecvGetOutErr(output, errors, "sh", present));
  ArgList closed;
  closed << "sh"
         << "-c"
         << "[ -e /proc/self/fd/" + fd + " ]";
  EXPECT_EQ(1, forkExecvGetOutErr(output, errors, "sh", closed));
  close(extra[0]);
  close(extra[1]);
}

TEST(ForkExecv, PipesMayShareOneDescriptor) {
  int both[2];
  ASSERT_EQ(0, pipe2(both, O_CLOEXEC));
  int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(devNull, 0);
  ArgList args;
  args << "sh"
       << "-c"
       << "echo a; echo b >&2";
  pid_t pid = forkExecvPipes(devNull, both[1], both[1], "sh", args, "", {});
  close(both[1]);
  close(devNull);
  std::string text;
  char buffer[64];
  for (ssize_t n; (n = read(both[0], buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, n);
  }
  close(both[0]);
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ("a\nb\n", text);
}

// ---- Environment and user ----

TEST(ExecCmd, EnvironmentReachesTheChild) {
  ExecCmd cmd = shell("printf '%s|%s' \"$FERROW_TEST_VALUE\" \"$HOME\"");
  cmd.setEnv("FERROW_TEST_VALUE", "a b $c");
  cmd.setEnv("HOME", "/elsewhere");
  ASSERT_EQ(0, cmd.exec());
  EXPECT_EQ("a b $c|/elsewhere", cmd.getOutput());
  EXPECT_EQ(nullptr, getenv("FERROW_TEST_VALUE"));
}

TEST(ExecCmd, UserSwitchInTheChild) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  NoDuplicateProcess guard;
  ExecCmd nobody = shell("id -u; id -g; id -G");
  nobody.setUser("nobody");
  ASSERT_EQ(0, nobody.exec());
  EXPECT_EQ("65534\n65534\n65534\n", nobody.getOutput());

  ExecCmd root("id");
  root << "-u";
  root.setUser("root");
  ASSERT_EQ(0, root.exec());
  EXPECT_EQ("0\n", root.getOutput());

  ExecCmd unknown("id");
  unknown.setUser("ferrow-no-such-user");
  EXPECT_EQ(127, unknown.exec(std::nothrow));
  EXPECT_EQ("", unknown.getOutput());
}

}  // namespace
}  // namespace tovel
