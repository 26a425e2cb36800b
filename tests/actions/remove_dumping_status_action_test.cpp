#include "actions/remove_dumping_status_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "commons/session_files.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using ferrow_test::compactXml;
using ferrow_test::fileExists;
using ferrow_test::readFile;

class RemoveDumpingStatusActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    session_.reset(new SessionFiles(dir_.path() + "/session"));
    theSession = session_.get();
    cfg_.agentDir = dir_.path();
  }
  void TearDown() override { theSession = nullptr; }

  std::string status() const {
    return compactXml(readFile(session_->getStatusFileName()));
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
};

TEST_F(RemoveDumpingStatusActionTest, RemovesTheFileUnderTheAgentDirectory) {
  const std::string target = dir_.path() + "/dumping-status.xml";
  ferrow_test::writeFile(target, "<dumping-status/>");
  {
    RemoveDumpingStatusAction action;
    EXPECT_THAT(status(), ::testing::HasSubstr("<migration-status><idle/>"));
    action.setConfig(&cfg_);
    action.execute();
    EXPECT_FALSE(fileExists(target));
    // A second removal finds nothing and is no error.
    action.execute();
  }
  EXPECT_THAT(status(), ::testing::HasSubstr("<migration-status><idle/>"));
}

TEST_F(RemoveDumpingStatusActionTest, LeavesOtherFilesAlone) {
  ferrow_test::writeFile(dir_.path() + "/dumping-status.xml.tmp", "x");
  RemoveDumpingStatusAction action;
  action.setConfig(&cfg_);
  action.execute();
  EXPECT_TRUE(fileExists(dir_.path() + "/dumping-status.xml.tmp"));
}

}  // namespace
}  // namespace tovel
