// One whole migration step sequence with the real binary under valgrind's
// memcheck: no invalid access, no use of uninitialised memory, no definite
// leak in any step.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/reference_source.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;

const char kValgrind[] = "/usr/bin/valgrind";
// An exit code of valgrind's own, kept apart from ferrow's.
const int kValgrindErrorExit = 97;

#if defined(__SANITIZE_ADDRESS__)
const bool kInstrumented = true;
#else
const bool kInstrumented = false;
#endif

class ValgrindTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  void SetUp() override {
    if (kInstrumented) {
      GTEST_SKIP() << "this build's ferrow carries AddressSanitizer, which "
                      "valgrind cannot run; the sanitizers check it instead";
    }
    if (access(kValgrind, X_OK) != 0) {
      GTEST_SKIP() << kValgrind << " is not installed (apt-get install "
                   << "valgrind); the migration was not checked by memcheck";
    }
  }

  // Runs one step under memcheck; it must succeed silently and memcheck
  // must have found nothing.
  void step(std::vector<std::string> args, const SourceLogin& login) {
    const std::string name = args[0].substr(2);
    const std::string log = logs_.path() + "/" + name + ".log";
    install_.setWrapper(
        {kValgrind, "--leak-check=full", "--errors-for-leak-kinds=definite",
         "--error-exitcode=" + std::to_string(kValgrindErrorExit),
         "--num-callers=30", "--log-file=" + log});
    args.insert(args.end(), {"--session-path", install_.sessionPath()});
    if (args[0] != "--send-scout") {
      args.insert(args.end(),
                  {"--agent-dir", agentDir(), "--agent-name", "reference"});
    }
    RunResult r = install_.run(withLogin(login, args), login.env);
    std::string report = fileExists(log) ? readFile(log) : "(no log)";
    EXPECT_EQ(r.exitCode, 0) << name << ": " << r.err << "\n" << report;
    EXPECT_EQ(r.err, "") << name;
    EXPECT_THAT(report, HasSubstr("Memcheck"))
        << name << ": valgrind did not run";
    // Definite leaks count as errors here (--errors-for-leak-kinds).
    EXPECT_THAT(report, HasSubstr("ERROR SUMMARY: 0 errors")) << name;
  }

  std::string agentDir() const { return source_.agentDir(); }

  FerrowInstallation install_;
  ReferenceSource source_{install_};
  TempDir logs_;
};

TEST_F(ValgrindTest, WholeSequenceThroughSudoIsClean) {
  SourceLogin login = sourceLogin(sudoAccount(), true);
  step({"--send-scout"}, login);
  step({"--deploy-agent"}, login);
  step({"--dump-all"}, login);
  step({"--get-dumping-status"}, login);
  step({"--get-content"}, login);
  EXPECT_TRUE(fileExists(install_.sessionPath() + "/transfer.result"));
  step({"--remove-agent"}, login);
  EXPECT_FALSE(fileExists(agentDir()));
}

}  // namespace
}  // namespace ferrow_test
