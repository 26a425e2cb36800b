// Whole migrations with the reference agent and scout of share/: as root,
// through sudo (rsync, watching that no password leaks anywhere), and
// through sudo under valgrind's memcheck; each step checks both hosts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/reference_source.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

namespace fs = boost::filesystem;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// Modification times of the archives in a session directory.
std::map<std::string, time_t> archives(const std::string& session) {
  std::map<std::string, time_t> found;
  for (fs::directory_iterator it(session), end; it != end; ++it)
    if (it->path().filename().string().find(".tar") != std::string::npos)
      found[it->path().filename().string()] = fs::last_write_time(it->path());
  return found;
}

enum Way { kAsRoot, kThroughSudo, kUnderValgrind };
std::string wayName(const ::testing::TestParamInfo<Way>& info) {
  return std::vector<std::string>{"AsRoot", "ThroughSudo",
                                  "UnderValgrind"}[info.param];
}

class MigrationTest : public ::testing::TestWithParam<Way> {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  void SetUp() override {
    if (GetParam() == kUnderValgrind) {
#if defined(__SANITIZE_ADDRESS__)
      GTEST_SKIP() << "valgrind cannot run a sanitizer build";
#endif
      if (access("/usr/bin/valgrind", X_OK) != 0)
        GTEST_SKIP() << "valgrind is not installed: memcheck did not run";
    }
    login_ = sourceLogin(GetParam() == kAsRoot ? rootAccount() : sudoAccount(),
                         GetParam() != kAsRoot);
  }

  // Runs one step; every step of a healthy migration exits 0 silently.
  // Under valgrind memcheck must find nothing (definite leaks count).
  RunResult step(std::vector<std::string> args, const std::string& input = "",
                 const RunOptions& options = {}) {
    const std::string report = logs_.path() + "/" + args[0].substr(2);
    if (GetParam() == kUnderValgrind)
      install_.setWrapper({"/usr/bin/valgrind", "--leak-check=full",
                           "--errors-for-leak-kinds=definite",
                           "--error-exitcode=97", "--log-file=" + report});
    args.insert(args.end(), {"--session-path", session()});
    if (args[0] != "--send-scout")
      args.insert(args.end(),
                  {"--agent-dir", agentDir(), "--agent-name", "reference"});
    RunResult r =
        install_.run(options, withLogin(login_, args), login_.env, input);
    EXPECT_EQ(r.exitCode, 0) << args[0] << ": " << r.err;
    EXPECT_EQ(r.err, "") << args[0];
    EXPECT_THAT(r.out, Not(HasSubstr(login_.env["DYR_PASSWORD"])));
    if (GetParam() == kUnderValgrind) {
      EXPECT_THAT(fileExists(report) ? readFile(report) : "",
                  HasSubstr("ERROR SUMMARY: 0 errors"))
          << args[0];
    }
    return r;
  }

  std::string session() const { return install_.sessionPath(); }
  std::string file(const std::string& name) const {
    return readFile(session() + "/" + name);
  }
  std::string agentDir() const { return source_.agentDir(); }

  FerrowInstallation install_;
  ReferenceSource source_{install_};
  SourceLogin login_;
  TempDir logs_;
};

TEST_P(MigrationTest, WholeSequence) {
  // Every 20 ms until done (ten minutes at most): each process holding the
  // password in an argument or variable other than the two it comes in by
  // (test programs running at once log in with the same accounts).
  const std::string password = login_.env["DYR_PASSWORD"];
  const std::set<std::string> allowed = {"DYR_PASSWORD=" + password,
                                         "DYR_SUDO_PASSWORD=" + password};
  std::set<std::string> found;
  std::atomic<bool> done{GetParam() == kUnderValgrind};
  int rounds = 0;
  std::thread watcher([&] {
    for (; !done && rounds < 30000; ++rounds, usleep(20 * 1000))
      for (pid_t pid : allPids())
        for (const char* name : {"cmdline", "environ"}) {
          std::istringstream entries(procFile(pid, name));
          for (std::string entry; std::getline(entries, entry, '\0');)
            if (entry.find(password) != std::string::npos &&
                !allowed.count(entry))
              found.insert(std::to_string(pid) + " " + name);
        }
  });

  step({"--send-scout"});
  EXPECT_THAT(file("scout-result.xml"), HasSubstr("<scout-result"));

  step({"--deploy-agent"});
  EXPECT_TRUE(fileExists(agentDir() + "/agent.pl"));
  EXPECT_FALSE(fileExists(agentDir() + "/control"));
  EXPECT_THAT(file("agent-deployment.status"), HasSubstr("<agentstatus"));

  // Through sudo the SSH password travels in the dump's input too.
  std::vector<std::string> dump = {"--dump-all"};
  if (GetParam() == kThroughSudo) dump.push_back("--content-transport=rsync");
  step(dump);
  EXPECT_THAT(file("dump.xml"), HasSubstr("carol.test"));
  EXPECT_TRUE(fileExists(session() + "/dump-name"));

  RunResult status = step({"--get-dumping-status"});
  EXPECT_EQ(status.out, readFile(agentDir() + "/dumping-status.xml"));

  // On a terminal a progress line is drawn and ended.
  RunOptions terminal;
  terminal.terminal = GetParam() != kUnderValgrind;
  RunResult content = step({"--get-content"}, "", terminal);
  if (terminal.terminal) {
    EXPECT_THAT(content.out, HasSubstr("\r0 of "));
    EXPECT_THAT(content.out, EndsWith(" 0:00 left\x1b[K\r\n")) << content.out;
  }
  std::map<std::string, time_t> fetched = archives(session());
  EXPECT_GE(fetched.size(), 4u);
  for (const auto& archive : fetched)
    EXPECT_FALSE(fileExists(agentDir() + "/" + archive.first)) << archive.first;
  EXPECT_THAT(file("transfer.result"), HasSubstr("status=\"success\""));
  EXPECT_THAT(file("migration.status"), HasSubstr("<idle/>"));

  // Every local copy matches its listed sum: nothing is fetched again. No
  // progress line without a terminal.
  sleep(1);
  EXPECT_EQ(step({"--get-content"}).out, "");
  EXPECT_EQ(archives(session()), fetched);

  step({"--dump-selected", "--domains=-"}, "example.test\n");
  EXPECT_THAT(file("dump.xml"), HasSubstr("example.test"));
  EXPECT_THAT(file("dump.xml"), Not(HasSubstr("carol.test")));

  step({"--remove-agent"});
  EXPECT_FALSE(fileExists(agentDir()));
  step({"--remove-agent"});

  done = true;
  watcher.join();
  if (GetParam() == kUnderValgrind) return;
  EXPECT_GT(rounds, 10);
  EXPECT_THAT(found, IsEmpty());
  for (fs::directory_iterator it(session()), end; it != end; ++it)
    if (fs::is_regular_file(it->path())) {
      EXPECT_THAT(readFile(it->path().string()), Not(HasSubstr(password)))
          << it->path();
    }
  if (GetParam() == kThroughSudo) {
    // The exchanges that carry a password are logged masked: the sudo
    // check, and the dump's input (sudo line, then the rsync lines).
    std::string log = file("migration.log");
    EXPECT_THAT(log, HasSubstr("remote stdin <- ********"));
    EXPECT_THAT(
        log, HasSubstr("\n127.0.0.1\n" + sudoAccount().name + "\n********\n"));
  }
}

INSTANTIATE_TEST_SUITE_P(Ways, MigrationTest,
                         ::testing::Values(kAsRoot, kThroughSudo,
                                           kUnderValgrind),
                         wayName);

TEST(ScoutTest, ResultHoldsExactlyWhatTheScoutPrintedAndFailuresAreTold) {
  ensurePanelAccount();
  FerrowInstallation install;
  const std::string scout = install.productRoot() + "/QVT/scout.pl";
  auto run = [&](const SourceLogin& login) {
    return install.run(withLogin(login, {"--send-scout", "--session-path",
                                         install.sessionPath()}),
                       login.env);
  };
  // Not there: refused before connecting (nothing listens on port 1).
  SourceLogin nowhere = sourceLogin(rootAccount(), false);
  nowhere.args[1] = "--port=1";
  RunResult missing = run(nowhere);
  EXPECT_EQ(missing.exitCode, 2);
  EXPECT_EQ(missing.err,
            "Unable to open " + scout + " for transferring to the remote host");

  // Runs as root wherever it runs; the bytes include ones a text mode
  // would touch.
  writeFile(scout,
            "binmode STDOUT;\n"
            "print \"<scout uid=\\\"$<\\\">\\r\\n\\x00\\xff</scout>\";\n");
  static const char kPrinted[] = "<scout uid=\"0\">\r\n\0\xff</scout>";
  for (const SourceLogin& login :
       {sourceLogin(rootAccount(), false), sourceLogin(sudoAccount(), true)}) {
    RunResult r = run(login);
    EXPECT_EQ(r.exitCode, 0) << login.name << ": " << r.err;
    EXPECT_EQ(readFile(install.sessionPath() + "/scout-result.xml"),
              std::string(kPrinted, sizeof(kPrinted) - 1))
        << login.name;
  }

  writeFile(
      scout,
      "$| = 1; print \"partial\"; print STDERR \"no luck\\n\"; exit 3;\n");
  RunResult failed = run(sourceLogin(rootAccount(), false));
  EXPECT_EQ(failed.exitCode, 2);
  EXPECT_EQ(failed.err,
            "Failed to execute scout. \nThe return code is 3\n"
            "The output on STDERR is\nno luck\n");
  EXPECT_EQ(readFile(install.sessionPath() + "/scout-result.xml"), "partial");
  EXPECT_THAT(readFile(install.sessionPath() + "/migration.result"),
              HasSubstr("code=\"FailedToExecuteScout\""));
}

}  // namespace
}  // namespace ferrow_test
