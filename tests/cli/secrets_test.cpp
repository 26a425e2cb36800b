// The passwords of a run never leak: not into any process's arguments, not
// into the environment of any process ferrow starts here or on the source
// host, not into the session's files or ferrow's output; and the debug log
// keeps its lines with the passwords masked. Checked over a whole migration
// through sudo, with the rsync transport so that the SSH password travels
// in the dump's input too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/process_scan.h"
#include "support/reference_source.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

namespace fs = boost::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

// Reads the arguments and environment of every process over and over
// (every 20 ms, for at most ten minutes) and remembers each one that holds
// the secret. Ferrow's own environment is left out: it is where the
// passwords come in.
class ProcessWatch {
 public:
  explicit ProcessWatch(const std::string& secret)
      : secret_(secret), thread_([this] { watch(); }) {}
  ~ProcessWatch() { stop(); }

  // Stops watching; what was found, as "pid name file" lines.
  std::set<std::string> stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return found_;
  }
  int rounds() const { return rounds_; }

 private:
  void watch() {
    for (; !done_ && rounds_ < 30000; ++rounds_) {
      for (pid_t pid : allPids()) check(pid);
      usleep(20 * 1000);
    }
  }

  void check(pid_t pid) {
    if (pid == getpid()) return;
    bool ferrow = procExe(pid) == FERROW_BINARY;
    for (const char* file : {"cmdline", "environ"}) {
      if (ferrow && std::string(file) == "environ") continue;
      if (procFile(pid, file).find(secret_) == std::string::npos) continue;
      std::string name = procFile(pid, "comm");
      found_.insert(std::to_string(pid) + " " + name + " " + file);
    }
  }

  const std::string secret_;
  std::atomic<bool> done_{false};
  std::atomic<int> rounds_{0};
  std::set<std::string> found_;
  std::thread thread_;
};

class PasswordLeakTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  // One step through sudo; its output must be free of the password.
  void step(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.end(), {"--session-path", install_.sessionPath()});
    if (args[0] != "--send-scout") {
      args.insert(args.end(), {"--agent-dir", source_.agentDir(),
                               "--agent-name", "reference"});
    }
    RunResult r = install_.run(withLogin(login_, args), login_.env, input);
    EXPECT_EQ(0, r.exitCode) << args[0] << ": " << r.err;
    EXPECT_THAT(r.out, Not(HasSubstr(password()))) << args[0];
    EXPECT_THAT(r.err, Not(HasSubstr(password()))) << args[0];
  }

  // The SSH and the sudo password of this login are the same word.
  const std::string& password() const { return sudoAccount().password; }

  FerrowInstallation install_;
  ReferenceSource source_{install_};
  SourceLogin login_ = sourceLogin(sudoAccount(), true);
};

TEST_F(PasswordLeakTest, AWholeMigrationThroughSudoLeaksNoPassword) {
  ProcessWatch watch(password());
  step({"--send-scout"});
  step({"--deploy-agent"});
  step({"--dump-all", "--content-transport=rsync"});
  step({"--get-dumping-status"});
  step({"--get-content"});
  step({"--remove-agent"});
  EXPECT_GT(watch.rounds(), 10);
  EXPECT_THAT(watch.stop(), ::testing::IsEmpty());

  std::string log;
  for (fs::directory_iterator it(install_.sessionPath()), end; it != end;
       ++it) {
    if (!fs::is_regular_file(it->path())) continue;
    std::string text = readFile(it->path().string());
    EXPECT_THAT(text, Not(HasSubstr(password()))) << it->path();
    if (it->path().filename() == "migration.log") log = text;
  }
  // The exchanges that carry a password are still logged, masked: the
  // sudo check, and the dump's input (sudo line, then the rsync lines).
  EXPECT_THAT(log, HasSubstr("remote stdin <- ********"));
  EXPECT_THAT(log,
              HasSubstr("\n127.0.0.1\n" + sudoAccount().name + "\n********\n"));
}

}  // namespace
}  // namespace ferrow_test
