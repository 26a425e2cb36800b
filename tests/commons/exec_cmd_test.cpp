#include "commons/exec_cmd.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <new>
#include <string>

#include "commons_test_util.h"

namespace tovel {
namespace {

using testing_util::messageOf;

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

TEST(ExecCmd, FailureReportHoldsTheNonEmptySections) {
  const struct {
    const char* script;
    const char* input;
    const char* message;
  } cases[] = {
      {"cat; echo E >&2; exit 3", "in",
       "Execution of sh -c cat\\;\\ echo\\ E\\ \\>\\&2\\;\\ exit\\ 3 failed "
       "with return code 3.\nStdin is\nin\nStdout is\nin\nStderr is\nE\n"},
      {"printf x >&2; exit 255", "",
       "Execution of sh -c printf\\ x\\ \\>\\&2\\;\\ exit\\ 255 failed with "
       "return code 255.\nStderr is\nx\n"},
      {"exit 1", "",
       "Execution of sh -c exit\\ 1 failed with return code 1.\n"},
  };
  for (const auto& c : cases) {
    ExecCmd cmd = shell(c.script);
    cmd.setInput(c.input);
    EXPECT_EQ(c.message, messageOf<&ExecCmd::Failed>([&] { cmd.exec(); }));
  }
}

// A child killed by a signal counts as -1, a failure too.
TEST(ExecCmd, ReturnCodeAndOutputOfEachRun) {
  ExecCmd failing = shell("echo E >&2; exit 3");
  EXPECT_EQ(3, failing.exec(std::nothrow));
  EXPECT_EQ("E\n", failing.getErrors());
  EXPECT_EQ(-1, shell("kill -9 $$").exec(std::nothrow));
  EXPECT_EQ(-1, shell("kill -TERM $$").exec(std::nothrow));
  EXPECT_THROW(shell("kill -9 $$").exec(), ExecCmd::ExFailed);

  ExecCmd cat("cat");
  cat.setInput("hello");
  EXPECT_EQ(0, cat.exec());
  EXPECT_EQ("hello", cat.getOutput());
  cat.setInput("");  // no input: end of file at once
  EXPECT_EQ(0, cat.exec());
  EXPECT_EQ("", cat.getOutput()) << "a run reports only its own output";
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

// The child fills its error pipe before reading anything, then echoes the
// input: the parent has to drain both outputs while its writes block.
TEST(ExecCmd, LargeInputAndOutputsFlowWithoutDeadlock) {
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

  // SIGPIPE is neither left blocked nor left pending.
  sigset_t mask, pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&mask, SIGPIPE));
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

// The script ends with 4 unless it inherited the extra descriptor.
TEST(ForkExecv, NarrowerFormsSeparateTheStreamsAndCloseOtherDescriptors) {
  int extra[2];
  ASSERT_EQ(0, pipe(extra));  // inheritable on purpose
  ArgList args;
  args << "sh"
       << "-c"
       << "echo out; echo err >&2; [ -e /proc/self/fd/" +
              std::to_string(extra[1]) + " ] || exit 4";
  std::string output, errors;
  EXPECT_EQ(4, forkExecvGetOutErr(output, errors, "sh", args));
  EXPECT_EQ("out\n", output);
  EXPECT_EQ("err\n", errors);
  std::string onlyOutput = "kept:";
  EXPECT_EQ(4, forkExecvGetOut(onlyOutput, "sh", args));
  EXPECT_EQ("kept:out\n", onlyOutput);
  close(extra[0]);
  close(extra[1]);
}

TEST(ExecCmd, EnvironmentAndUserApplyToTheChildOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  NoDuplicateProcess guard;
  ExecCmd cmd =
      shell("printf '%s|%s|' \"$FERROW_TEST_VALUE\" \"$HOME\"; id -u; id -G");
  cmd.setEnv("FERROW_TEST_VALUE", "a b $c");
  cmd.setEnv("HOME", "/elsewhere");
  cmd.setUser("nobody");
  ASSERT_EQ(0, cmd.exec());
  EXPECT_EQ("a b $c|/elsewhere|65534\n65534\n", cmd.getOutput());
  EXPECT_EQ(nullptr, getenv("FERROW_TEST_VALUE"));

  ExecCmd unknown("id");
  unknown.setUser("ferrow-no-such-user");
  EXPECT_EQ(127, unknown.exec(std::nothrow));
  EXPECT_EQ("", unknown.getOutput());
}

}  // namespace
}  // namespace tovel
