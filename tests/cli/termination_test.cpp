// Cancelling a run: SIGTERM (the migration manager) or SIGINT (a person at
// a terminal) stops ferrow between two chunks, and the run still ends as a
// terminated migration: exit code 0, "Migration has been terminated" on
// standard output, complete status and run record.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/process_scan.h"
#include "support/scripted_agent.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;

const uint64_t kArchiveSize = 4ull << 30;  // sparse on the source host

uint64_t sizeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Waits (at most 60 s) until ready() holds; false when it never did.
template <typename Ready>
bool waitFor(Ready ready) {
  for (int round = 0; round < 600; ++round) {
    if (ready()) return true;
    usleep(100 * 1000);
  }
  return false;
}

class TerminationTest : public ::testing::TestWithParam<int> {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  // Runs ferrow with args in the background, sends the signal once
  // ready() holds, and returns the run; `signalled` is when it was sent.
  RunResult runAndSignal(const std::vector<std::string>& args,
                         std::function<bool()> ready,
                         Clock::time_point* signalled) {
    SourceLogin login = sourceLogin(rootAccount(), false);
    std::vector<std::string> all = withLogin(login, args);
    all.push_back("--session-path=" + session());
    RunResult result;
    std::thread run([&] { result = install_.run(all, login.env); });
    bool started = waitFor(ready);
    pid_t pid = findFerrow(session());
    *signalled = Clock::now();
    if (started && pid != 0) kill(pid, GetParam());
    run.join();
    EXPECT_TRUE(started && pid != 0)
        << "the run never got going: " << result.err;
    return result;
  }

  void expectTerminated(const RunResult& r, const std::string& record) {
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("Migration has been terminated", r.out);
    EXPECT_EQ("", r.err);
    std::string status = readFile(session() + "/migration.status");
    EXPECT_THAT(status, HasSubstr("</migration-status>"));
    EXPECT_THAT(readFile(session() + "/" + record),
                HasSubstr("<execution-result status=\"success\"/>"));
    EXPECT_THAT(readFile(session() + "/migration.log"),
                HasSubstr("Migration has been terminated"));
  }

  std::string session() const { return install_.sessionPath(); }

  FerrowInstallation install_;
};

TEST_P(TerminationTest, SignalStopsAFetchBetweenChunks) {
  ScriptedAgent agent(install_, "cat contentlist.xml\n");
  writeFile(agent.file("contentlist.xml"),
            "<contentlist size=\"" + std::to_string(kArchiveSize) +
                "\" unpacked=\"1\"><file size=\"" +
                std::to_string(kArchiveSize) +
                "\">big.tar</file></contentlist>");
  writeFile(agent.file("big.tar"), "");
  ASSERT_EQ(0, truncate(agent.file("big.tar").c_str(), kArchiveSize));
  std::vector<std::string> args = agent.args();
  args.insert(args.end(), {"--get-content", "--no-check-space"});

  Clock::time_point signalled;
  std::string local = session() + "/big.tar";
  RunResult r = runAndSignal(
      args, [&] { return sizeOf(local) >= (8u << 20); }, &signalled);

  EXPECT_LT(secondsSince(signalled), 5.0);
  expectTerminated(r, "transfer.result");
  EXPECT_LT(sizeOf(local), kArchiveSize);
  // Nothing was fetched whole, so nothing is removed from the source.
  EXPECT_EQ(kArchiveSize, sizeOf(agent.file("big.tar")));
}

// The dump runs silently on the source for long; the run does not wait
// for its next output to notice the signal.
TEST_P(TerminationTest, SignalStopsARunWaitingForASilentCommand) {
  ScriptedAgent agent(install_, ": > started; exec sleep 20\n");
  std::vector<std::string> args = agent.args();
  args.push_back("--dump-all");

  Clock::time_point signalled;
  RunResult r = runAndSignal(
      args, [&] { return fileExists(agent.file("started")); }, &signalled);

  EXPECT_LT(secondsSince(signalled), 3.0);
  expectTerminated(r, "migration.result");
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminationTest,
                         ::testing::Values(SIGTERM, SIGINT),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return std::string(sigabbrev_np(info.param));
                         });

}  // namespace
}  // namespace ferrow_test
