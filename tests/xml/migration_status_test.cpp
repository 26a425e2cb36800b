#include "xml/migration_status.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>

#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using xml_test::savedBody;

class MigrationStatusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ferrow_test::ensurePanelAccount(); }
  xml_test::ScratchSession session_;
};

// "<migration-status>" + content + its end tag, attrs on the root if given.
std::string statusOf(const std::string& content,
                     const std::string& attrs = "") {
  return "<migration-status" + attrs + ">" + content + "</migration-status>";
}

// One status object through every state; what a state left behind shows
// only where the format says so (the deploy counts on the root). No element
// carries the pid.
TEST_F(MigrationStatusTest, EachStateWritesItsDocument) {
  std::unique_ptr<MigrationStatus> s = createMigrationStatusFile();
  auto saved = [&] {
    s->saveFile();
    return savedBody(session_.statusFile());
  };
  EXPECT_EQ(statusOf("<idle/>"), saved());
  s->setAgentParams("h");
  s->setAgentOperation(MigrationStatus::deploy);
  EXPECT_EQ(statusOf("<agent action=\"deploy\"><host>h</host></agent>"),
            saved());
  s->setAgentOperation(MigrationStatus::wait);
  EXPECT_EQ(statusOf("<agent action=\"wait\"><host>h</host></agent>"), saved());
  s->setTransferDump();
  EXPECT_EQ(statusOf("<transfer><host>h</host><dumpfile/></transfer>"),
            saved());
  s->setTransferSpeed("512");
  const std::string transfer = "<transfer speed=\"512\"><host>h</host>";
  EXPECT_EQ(statusOf(transfer + "<dumpfile/></transfer>"), saved());

  s->setTransferTotals("10", "2048");
  EXPECT_EQ(
      statusOf(transfer + "<files total=\"10\" left=\"10\" size-total=\"2048\" "
                          "size-left=\"2048\"/></transfer>"),
      saved());
  s->setTransferFilesLeft("9");
  s->setTransferSizeLeft("1000");
  s->setCurrentFile("a.tgz", "300");
  s->setTransferCurrentFileSizeLeft("120");
  EXPECT_EQ(
      statusOf(transfer +
               "<files total=\"10\" left=\"9\" size-total=\"2048\" "
               "size-left=\"1000\"><current-file size=\"300\" "
               "size-left=\"120\">a.tgz</current-file></files></transfer>"),
      saved());
  // Sizes show only when both are known.
  s->setTransferTotals("3", "");
  s->setTransferSizeLeft("5");
  s->setCurrentFile("b.tgz", "");
  s->setTransferCurrentFileSizeLeft("4");
  EXPECT_EQ(
      statusOf(transfer + "<files total=\"3\" left=\"3\"><current-file>b.tgz"
                          "</current-file></files></transfer>"),
      saved());
  s->setTranslate();
  EXPECT_EQ(statusOf("<translate/>"), saved());

  s->setDeployTotals("4", "7");
  EXPECT_EQ(
      "<migration-status total-accounts=\"4\" total-domains=\"7\" "
      "completed-accounts=\"\" completed-domains=\"\"/>",
      saved());
  s->setDeploy("1", "2");
  s->setCurrentObject("example.com", MigrationStatus::domain);
  const std::string counts =
      " total-accounts=\"4\" total-domains=\"7\" completed-accounts=\"1\" "
      "completed-domains=\"2\"";
  EXPECT_EQ(statusOf("<current-object type=\"domain\">example.com"
                     "</current-object>",
                     counts),
            saved());
  s->setCurrentObject("jdoe", MigrationStatus::account);
  EXPECT_EQ(statusOf("<current-object type=\"account\">jdoe</current-object>",
                     counts),
            saved());
  s->setIdle();
  EXPECT_EQ(statusOf("<idle/>", counts), saved());
}

TEST_F(MigrationStatusTest, SavingWithoutASessionBreaksTheContract) {
  theSession = nullptr;
  EXPECT_EQ("Assertion failed: theSession != NULL",
            xml_test::messageOf<&AssertionFailed>(
                [] { createMigrationStatusFile()->saveFile(); }));
}

// The migration manager reads the file while the tool rewrites it: every
// read must see one complete document.
TEST_F(MigrationStatusTest, ConcurrentReaderNeverSeesAPartialDocument) {
  XmlMigrationStatus status;
  status.saveFile();
  pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    try {
      for (int i = 0; i < 2000; ++i) {  // documents of every length and state
        status.setTransferTotals(std::to_string(i), "7");
        status.setCurrentFile(std::string(i % 500, 'f'), "1");
        if (i % 3 == 0) status.setIdle();
        if (i % 3 == 1) status.setDeploy(std::to_string(i), "0");
        status.saveFile();
      }
    } catch (...) {
      _exit(1);  // never back into the test runner
    }
    _exit(0);
  }
  int reads = 0, failures = 0, exitStatus = 0;
  std::string firstFailure;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(120);
  bool writerDone = false;
  for (int round = 0; round < 10000000 && !writerDone; ++round) {
    writerDone = waitpid(writer, &exitStatus, WNOHANG) != 0;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(writer, SIGKILL);
      waitpid(writer, &exitStatus, 0);
      FAIL() << "the writer did not finish in time";
    }
    std::string text = ferrow_test::readFile(session_.statusFile());
    std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> doc(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), "status",
                      nullptr, XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
        xmlFreeDoc);
    ++reads;
    if (!doc && failures++ == 0) firstFailure = text;
  }
  EXPECT_TRUE(WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0);
  EXPECT_EQ(0, failures) << "after " << reads << " reads:\n" << firstFailure;
  EXPECT_GT(reads, 100);
}

}  // namespace
}  // namespace tovel
