// "--send-scout" end to end: the real binary, the test sshd, a scout
// script in a private product installation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ferrow_runner.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;

class ScoutTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  void writeScout(const std::string& perl) {
    writeFile(install_.productRoot() + "/QVT/scout.pl", perl);
  }
  RunResult scout(const SourceLogin& login) {
    return install_.run(
        withLogin(login, {"--send-scout", "--session-path", session()}),
        login.env);
  }
  std::string session() const { return install_.sessionPath(); }
  std::string result() const {
    return readFile(session() + "/scout-result.xml");
  }

  FerrowInstallation install_;
};

TEST_F(ScoutTest, ResultHoldsExactlyWhatTheScoutPrintedAsRoot) {
  // Runs as root wherever it runs; the bytes include ones a text mode
  // would touch.
  writeScout(
      "binmode STDOUT;\n"
      "print \"<scout uid=\\\"$<\\\">\\r\\n\\x00\\xff</scout>\";\n");
  static const char kPrinted[] = "<scout uid=\"0\">\r\n\0\xff</scout>";
  for (const SourceLogin& login : rootLogins()) {
    RunResult r = scout(login);
    EXPECT_EQ(r.exitCode, 0) << login.name << ": " << r.err;
    EXPECT_EQ(result(), std::string(kPrinted, sizeof(kPrinted) - 1))
        << login.name;
  }
}

TEST_F(ScoutTest, FailingScoutGivesStatusAndErrorsAndKeepsItsOutput) {
  writeScout(
      "$| = 1; print \"partial\"; print STDERR \"no luck\\n\"; exit 3;\n");
  RunResult r = scout(sourceLogin(rootAccount(), false));
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err,
            "Failed to execute scout. \nThe return code is 3\n"
            "The output on STDERR is\nno luck\n");
  EXPECT_EQ(result(), "partial");
  EXPECT_THAT(readFile(session() + "/migration.result"),
              HasSubstr("code=\"FailedToExecuteScout\""));
}

TEST_F(ScoutTest, MissingScoutFailsBeforeConnecting) {
  SourceLogin login = sourceLogin(rootAccount(), false);
  login.args[1] = "--port=1";  // nothing listens: a connection would fail
  RunResult r = scout(login);
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "Unable to open " + install_.productRoot() +
                       "/QVT/scout.pl for transferring to the remote host");
}

}  // namespace
}  // namespace ferrow_test
