// The run record (XmlLog): what it keeps, where earlier records go.
#include "log/run_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>

#include "actions/retrieval_errors.h"
#include "commons/session_files.h"
#include "log/debug_log.h"
#include "support/ferrow_runner.h"
#include "transport/libssh2_errors.h"
#include "xml/xml_node.h"

namespace tovel {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

class RunLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    session_.reset(new SessionFiles(dir_.path() + "/s"));
  }
  std::string path(const std::string& name) const {
    return dir_.path() + "/s/" + name;
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  Log4cppDebugLog debugLog_{false, false};
  ferrow_test::LogCapture lines_{"p.log"};
};

TEST_F(RunLogTest, OnlyObjectsHoldingAnErrorStay) {
  {
    XmlLog log(*session_, "", debugLog_);
    log.pushObject("c1", "client");
    log.pushObject("d1", "domain");
    log.log(Exc<&CantRetrieveDump>(Exc<&SshConnectionFault>("f", "./f.cpp", 1),
                                   "g", "./g.cpp", 2));
    log.popObject();
    log.pushObject("d2", "domain");
    log.popObject();
    log.popObject();
    log.pushObject("c2", "client");
    log.popObject();
    EXPECT_EQ(0, log.getDepth());
    EXPECT_THROW(log.popObject(), Exc<&NoParentNode>);
  }
  // Without setSuccess the run is an error.
  std::string record =
      ferrow_test::compactXml(ferrow_test::readFile(path("migration.result")));
  EXPECT_EQ(
      "<execution-result status=\"error\"><object name=\"c1\" type=\"client\">"
      "<object name=\"d1\" type=\"domain\"><message code=\"CantRetrieveDump\" "
      "id severity=\"error\"><description>Error during dump retrieval"
      "</description><message code=\"SshConnectionFault\" id "
      "severity=\"error\">"
      "<description>Lost connection with the remote host</description>"
      "</message></message></object></object></execution-result>\n",
      std::regex_replace(record.substr(record.find("?>") + 2),
                         std::regex("id=\"[0-9a-f-]{36}\""), "id"));
}

// A gap gets filled; an unsaved record is logged, never thrown.
TEST_F(RunLogTest, EarlierRecordsGetTheFirstFreeNumber) {
  for (const char* name : {"transfer.result", "transfer.result.2"})
    ferrow_test::writeFile(path(name), "");
  {
    XmlLog log(*session_, "transfer.result", debugLog_);
    EXPECT_TRUE(ferrow_test::fileExists(path("transfer.result.1")));
    ASSERT_EQ(0, mkdir(path("transfer.result").c_str(), 0700));
  }
  EXPECT_THAT(lines_.lines(),
              ElementsAre(MatchesRegex(
                  "Unable to save the run record.*transfer.result.*")));
}

}  // namespace
}  // namespace tovel
