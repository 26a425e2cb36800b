#include "xml/migration_status.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using xml_test::attr;
using xml_test::attributeCount;
using xml_test::elements;
using xml_test::nodeName;
using xml_test::text;

class MigrationStatusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { xml_test::ensurePanelAccount(); }

  // Saves and parses the file back; the root element.
  xmlNodePtr saveAndRead() {
    status_.saveFile();
    doc_ = xml_test::parseWithLibxml(session_.statusFile());
    EXPECT_TRUE(doc_) << ferrow_test::readFile(session_.statusFile());
    if (!doc_) return nullptr;
    xmlNodePtr root = xmlDocGetRootElement(doc_.get());
    EXPECT_EQ("migration-status", nodeName(root));
    return root;
  }

  // The root's only child element, checked to be named name.
  xmlNodePtr onlyChild(xmlNodePtr root, const std::string& name) {
    std::vector<xmlNodePtr> children = elements(root);
    EXPECT_EQ(1u, children.size());
    if (children.size() != 1) return nullptr;
    EXPECT_EQ(name, nodeName(children[0]));
    return children[0];
  }

  xml_test::ScratchSession session_;
  XmlMigrationStatus status_;
  xml_test::DocOwner doc_;
};

TEST_F(MigrationStatusTest, NewStatusIsIdleAndCarriesNoPid) {
  std::unique_ptr<MigrationStatus> status = createMigrationStatusFile();
  status->saveFile();
  xml_test::DocOwner doc = xml_test::parseWithLibxml(session_.statusFile());
  ASSERT_TRUE(doc);
  xmlNodePtr root = xmlDocGetRootElement(doc.get());
  EXPECT_EQ(0, attributeCount(root));
  xmlNodePtr idle = onlyChild(root, "idle");
  ASSERT_NE(nullptr, idle);
  EXPECT_EQ(nullptr, idle->children);
  EXPECT_EQ(std::string::npos,
            ferrow_test::readFile(session_.statusFile()).find("pid"));
}

TEST_F(MigrationStatusTest, AgentPhaseShowsTheOperationAndHost) {
  status_.setAgentParams("src.example");
  status_.setAgentOperation(MigrationStatus::deploy);
  xmlNodePtr agent = onlyChild(saveAndRead(), "agent");
  ASSERT_NE(nullptr, agent);
  EXPECT_EQ("deploy", attr(agent, "action"));
  std::vector<xmlNodePtr> inside = elements(agent);
  ASSERT_EQ(1u, inside.size());
  EXPECT_EQ("host", nodeName(inside[0]));
  EXPECT_EQ("src.example", text(inside[0]));

  status_.setAgentOperation(MigrationStatus::wait);
  agent = onlyChild(saveAndRead(), "agent");
  ASSERT_NE(nullptr, agent);
  EXPECT_EQ("wait", attr(agent, "action"));
}

TEST_F(MigrationStatusTest, DumpTransferShowsSpeedOnlyWhenKnown) {
  status_.setAgentParams("h");
  status_.setTransferDump();
  xmlNodePtr transfer = onlyChild(saveAndRead(), "transfer");
  ASSERT_NE(nullptr, transfer);
  EXPECT_EQ(0, attributeCount(transfer));
  std::vector<xmlNodePtr> inside = elements(transfer);
  ASSERT_EQ(2u, inside.size());
  EXPECT_EQ("host", nodeName(inside[0]));
  EXPECT_EQ("h", text(inside[0]));
  EXPECT_EQ("dumpfile", nodeName(inside[1]));
  EXPECT_EQ(nullptr, inside[1]->children);

  status_.setTransferSpeed("512");
  transfer = onlyChild(saveAndRead(), "transfer");
  EXPECT_EQ("512", attr(transfer, "speed"));
}

TEST_F(MigrationStatusTest, FileTransferTotalsAndCurrentFile) {
  status_.setAgentParams("h");
  status_.setTransferSpeed("100");
  status_.setTransferTotals("10", "2048");
  xmlNodePtr transfer = onlyChild(saveAndRead(), "transfer");
  ASSERT_NE(nullptr, transfer);
  EXPECT_EQ("100", attr(transfer, "speed"));
  std::vector<xmlNodePtr> inside = elements(transfer);
  ASSERT_EQ(2u, inside.size());
  EXPECT_EQ("host", nodeName(inside[0]));
  xmlNodePtr files = inside[1];
  EXPECT_EQ("files", nodeName(files));
  EXPECT_EQ("10", attr(files, "total"));
  EXPECT_EQ("10", attr(files, "left"));
  EXPECT_EQ("2048", attr(files, "size-total"));
  EXPECT_EQ("2048", attr(files, "size-left"));
  EXPECT_TRUE(elements(files).empty());

  status_.setTransferFilesLeft("9");
  status_.setTransferSizeLeft("1000");
  status_.setCurrentFile("a.tgz", "300");
  status_.setTransferCurrentFileSizeLeft("120");
  files = elements(onlyChild(saveAndRead(), "transfer"))[1];
  EXPECT_EQ("9", attr(files, "left"));
  EXPECT_EQ("1000", attr(files, "size-left"));
  std::vector<xmlNodePtr> current = elements(files);
  ASSERT_EQ(1u, current.size());
  EXPECT_EQ("current-file", nodeName(current[0]));
  EXPECT_EQ("a.tgz", text(current[0]));
  EXPECT_EQ("300", attr(current[0], "size"));
  EXPECT_EQ("120", attr(current[0], "size-left"));
}

TEST_F(MigrationStatusTest, SizesAppearOnlyWhenBothAreKnown) {
  status_.setTransferTotals("3", "");
  status_.setCurrentFile("b.tgz", "");
  xmlNodePtr files = elements(onlyChild(saveAndRead(), "transfer"))[1];
  EXPECT_EQ(2, attributeCount(files));
  EXPECT_EQ("3", attr(files, "total"));
  EXPECT_EQ("3", attr(files, "left"));
  std::vector<xmlNodePtr> current = elements(files);
  ASSERT_EQ(1u, current.size());
  EXPECT_EQ("b.tgz", text(current[0]));
  EXPECT_EQ(0, attributeCount(current[0]));

  // Only the size left known: still no size attributes.
  status_.setTransferTotals("3", "");
  status_.setTransferSizeLeft("5");
  files = elements(onlyChild(saveAndRead(), "transfer"))[1];
  EXPECT_EQ(2, attributeCount(files));
}

TEST_F(MigrationStatusTest, TranslateAndIdleReplaceEarlierContent) {
  status_.setTransferTotals("1", "1");
  status_.saveFile();
  status_.setTranslate();
  xmlNodePtr translate = onlyChild(saveAndRead(), "translate");
  ASSERT_NE(nullptr, translate);
  EXPECT_EQ(nullptr, translate->children);
  status_.setIdle();
  onlyChild(saveAndRead(), "idle");
}

TEST_F(MigrationStatusTest, DeployAttributesStickToTheRoot) {
  status_.setDeployTotals("4", "7");
  xmlNodePtr root = saveAndRead();
  EXPECT_EQ(4, attributeCount(root));
  EXPECT_EQ("4", attr(root, "total-accounts"));
  EXPECT_EQ("7", attr(root, "total-domains"));
  EXPECT_EQ("", attr(root, "completed-accounts"));
  EXPECT_EQ("", attr(root, "completed-domains"));
  EXPECT_TRUE(elements(root).empty());

  status_.setDeploy("1", "2");
  status_.setCurrentObject("example.com", MigrationStatus::domain);
  root = saveAndRead();
  EXPECT_EQ("1", attr(root, "completed-accounts"));
  EXPECT_EQ("2", attr(root, "completed-domains"));
  xmlNodePtr object = onlyChild(root, "current-object");
  EXPECT_EQ("example.com", text(object));
  EXPECT_EQ("domain", attr(object, "type"));

  status_.setCurrentObject("jdoe", MigrationStatus::account);
  EXPECT_EQ("account",
            attr(onlyChild(saveAndRead(), "current-object"), "type"));

  status_.setIdle();
  root = saveAndRead();
  EXPECT_EQ(4, attributeCount(root));
  EXPECT_EQ("4", attr(root, "total-accounts"));
  EXPECT_EQ("2", attr(root, "completed-domains"));
  onlyChild(root, "idle");
}

TEST_F(MigrationStatusTest, SavingWithoutASessionBreaksTheContract) {
  theSession = nullptr;
  try {
    status_.saveFile();
    ADD_FAILURE() << "nothing thrown";
  } catch (const Exc<&AssertionFailed>& e) {
    EXPECT_STREQ("Assertion failed: theSession != NULL", e.what());
  }
}

// The migration manager reads the file while the tool rewrites it: every
// read must see one complete document.
TEST_F(MigrationStatusTest, ConcurrentReaderNeverSeesAPartialDocument) {
  const int kWrites = 2000;
  status_.setIdle();
  status_.saveFile();
  std::string file = session_.statusFile();

  pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    int code = 0;
    try {
      for (int i = 0; i < kWrites; ++i) {
        if (i % 3 == 0) {
          status_.setIdle();
        } else if (i % 3 == 1) {
          status_.setTransferTotals(std::to_string(i), std::to_string(i * 7));
          status_.setCurrentFile(std::string(i % 500, 'f'), "10");
        } else {
          status_.setDeploy(std::to_string(i), "0");
        }
        status_.saveFile();
      }
    } catch (...) {
      code = 1;
    }
    _exit(code);
  }

  int reads = 0, failures = 0, status = 0;
  std::string firstFailure;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (reads < 1000000 && std::chrono::steady_clock::now() < deadline) {
    std::ifstream in(file.c_str(), std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    std::string textRead = content.str();
    xml_test::DocOwner doc(xmlReadMemory(
        textRead.data(), static_cast<int>(textRead.size()), "status", nullptr,
        XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    ++reads;
    if (!doc ||
        nodeName(xmlDocGetRootElement(doc.get())) != "migration-status") {
      if (failures++ == 0) firstFailure = textRead;
    }
    if (waitpid(writer, &status, WNOHANG) == writer) break;
  }
  if (waitpid(writer, &status, WNOHANG) == 0) {
    kill(writer, SIGKILL);
    waitpid(writer, &status, 0);
    FAIL() << "writer did not finish in time";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(0, failures) << "after " << reads << " reads:\n" << firstFailure;
  EXPECT_GT(reads, 100);
}

}  // namespace
}  // namespace tovel
