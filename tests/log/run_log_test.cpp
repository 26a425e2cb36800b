// The run record (XmlLog) and the lines that bracket a run in the debug log.
#include "log/run_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "commons/session_files.h"
#include "errors/tags.h"
#include "log/debug_log.h"
#include "log/start_stop_logger.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using ferrow_test::fileExists;
using ::testing::HasSubstr;

class RecordingDebugLog : public DebugLog {
 public:
  std::vector<std::string> lines;
  void log(const std::string& text) override { lines.push_back(text); }
  void log(const boost::format& text) override { lines.push_back(text.str()); }
  void log(const ExTraceable& e) override { lines.push_back(e.what()); }
  bool isVerboseMode() const override { return false; }
  bool isDebugMode() const override { return false; }
};

class RunLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    session_.reset(new SessionFiles(dir_.path() + "/s"));
    theSession = session_.get();
    theDebugLog = &debugLog_;
  }
  void TearDown() override {
    theSession = nullptr;
    theDebugLog = nullptr;
  }
  std::string record(const std::string& name = "migration.result") const {
    return ferrow_test::compactXml(
        ferrow_test::readFile(dir_.path() + "/s/" + name));
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  RecordingDebugLog debugLog_;
};

TEST_F(RunLogTest, OnlyObjectsHoldingAnErrorStay) {
  Exc<&SshConnectionFault> lost("f", "./f.cpp", 1);
  {
    LogLifetimeController controller("");
    Log& log = *theLog;
    log.pushObject("c1", "client");
    log.pushObject("d1", "domain");
    log.log(Exc<&CantRetrieveDump>(lost, "g", "./g.cpp", 2));
    EXPECT_EQ(2, log.getDepth());
    log.popObject();
    log.pushObject("d2", "domain");
    log.popObject();
    log.popObject();
    log.pushObject("c2", "client");
    log.popObject();
    EXPECT_EQ(0, log.getDepth());
    EXPECT_THROW(log.popObject(), Exc<&NoParentNode>);
  }
  EXPECT_EQ(nullptr, theLog);
  std::string text = record();
  // Without setSuccess the run is an error.
  EXPECT_THAT(text, HasSubstr("<execution-result status=\"error\">"
                              "<object name=\"c1\" type=\"client\">"
                              "<object name=\"d1\" type=\"domain\">"
                              "<message code=\"CantRetrieveDump\""));
  EXPECT_THAT(text,
              HasSubstr("<description>Error during dump retrieval"
                        "</description><message code=\"SshConnectionFault\""));
  EXPECT_THAT(text, HasSubstr("</message></message></object></object>"
                              "</execution-result>"));
  EXPECT_EQ(std::string::npos, text.find("name=\"d2\""));
  EXPECT_EQ(std::string::npos, text.find("name=\"c2\""));
}

TEST_F(RunLogTest, EarlierRecordsGetTheFirstFreeNumber) {
  for (int i = 0; i < 3; ++i) {
    XmlLog log("");
    log.setSuccess(i == 0);
  }
  EXPECT_THAT(record("migration.result.1"), HasSubstr("status=\"success\""));
  EXPECT_THAT(record("migration.result.2"), HasSubstr("status=\"error\""));
  ASSERT_EQ(0, unlink((dir_.path() + "/s/migration.result.1").c_str()));
  { XmlLog log(""); }
  { XmlLog named("transfer.result"); }
  EXPECT_TRUE(fileExists(dir_.path() + "/s/migration.result.1"));
  EXPECT_TRUE(fileExists(dir_.path() + "/s/transfer.result"));
  EXPECT_FALSE(fileExists(dir_.path() + "/s/migration.result.3"));
  // A record that cannot be saved is told in the debug log, never thrown.
  {
    XmlLog log("");
    ASSERT_EQ(0, mkdir((dir_.path() + "/s/migration.result").c_str(), 0700));
  }
  ASSERT_FALSE(debugLog_.lines.empty());
  EXPECT_THAT(debugLog_.lines.back(),
              HasSubstr("Unable to save the run record"));
}

TEST_F(RunLogTest, StartFinishAndDaemonLines) {
  char prog[] = "/usr/bin/ferrow", arg1[] = "--session-path",
       arg2[] = "/tmp/a b";
  char* argv[] = {prog, arg1, arg2, nullptr};
  {
    StartStopLogger logger("Ferrow", 3, argv);
    logger.setExitCode(17);
    ASSERT_EQ(1u, childDaemonHandlers.size());
    childDaemonHandlers.front()();
  }
  EXPECT_TRUE(childDaemonHandlers.empty());
  { StartStopLogger logger("Ferrow", 1, argv); }
  ASSERT_EQ(5u, debugLog_.lines.size());
  EXPECT_EQ("Ferrow started : /usr/bin/ferrow --session-path /tmp/a\\ b",
            debugLog_.lines[0]);
  EXPECT_THAT(debugLog_.lines[1],
              ::testing::MatchesRegex("Ferrow [0-9]+ -> \\([0-9]+ daemon\\)"));
  EXPECT_EQ("Ferrow finished. Exit code: 17", debugLog_.lines[2]);
  EXPECT_EQ("Ferrow finished.  (exit code is not reported)",
            debugLog_.lines[4]);
}

}  // namespace
}  // namespace tovel
