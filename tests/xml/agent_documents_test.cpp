#include <gtest/gtest.h>

#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/agent_deployment_status.h"
#include "xml/agent_file_list.h"
#include "xml/agents_list.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using xml_test::messageOf;

TEST(ContentListTest, FilesInDocumentOrderWithOptionalAttributes) {
  std::unique_ptr<AgentFileList> list = getFileList(
      "<contentlist size=\"9000000000\" unpacked=\"12\">\n"
      "  <file size=\"10\" md5sum=\"d41d8cd98f00b204e9800998ecf8427e\">"
      "a/one.tgz</file>\n"
      "  <note>skipped</note>\n"
      "  <file md5sum=\"abc\">two.tgz</file>\n"
      "  <file size=\"18446744073709551615\">three.tgz</file>\n"
      "</contentlist>");
  EXPECT_EQ(9000000000LL, list->getTotalSize());
  EXPECT_EQ(12, list->getUnpackedSize());
  std::vector<DumpFile> files = list->getFileList();
  ASSERT_EQ(3u, files.size());
  EXPECT_EQ("a/one.tgz", files[0].name);
  EXPECT_EQ(10u, files[0].size);
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", files[0].md5sum);
  EXPECT_EQ("two.tgz", files[1].name);
  EXPECT_EQ(0u, files[1].size);
  EXPECT_EQ("abc", files[1].md5sum);
  EXPECT_EQ("three.tgz", files[2].name);
  EXPECT_EQ(18446744073709551615ULL, files[2].size);
  EXPECT_EQ("", files[2].md5sum);
}

TEST(ContentListTest, MissingRootSizesAreNoSuchAttribute) {
  std::unique_ptr<AgentFileList> list = getFileList("<contentlist/>");
  EXPECT_TRUE(list->getFileList().empty());
  EXPECT_EQ("Node contentlist does not have attribute size",
            messageOf<&NoSuchAttribute>([&] { list->getTotalSize(); }));
  EXPECT_EQ("Node contentlist does not have attribute unpacked",
            messageOf<&NoSuchAttribute>([&] { list->getUnpackedSize(); }));
}

TEST(ContentListTest, NonNumericValuesAreWrongContent) {
  std::unique_ptr<AgentFileList> list = getFileList(
      "<contentlist size=\"12k\" unpacked=\"\"><file size=\"-1\">x</file>"
      "</contentlist>");
  EXPECT_EQ(
      "Attribute 'size' of element 'contentlist' is not a valid number: "
      "'12k'.",
      messageOf<&tError_WrongContent>([&] { list->getTotalSize(); }));
  EXPECT_EQ(
      "Attribute 'unpacked' of element 'contentlist' is not a valid number: "
      "''.",
      messageOf<&tError_WrongContent>([&] { list->getUnpackedSize(); }));
  EXPECT_EQ("Attribute 'size' of element 'file' is not a valid number: '-1'.",
            messageOf<&tError_WrongContent>([&] { list->getFileList(); }));
}

TEST(ContentListTest, ReadingErrorsOfTheDocumentLayer) {
  EXPECT_EQ(
      "The document has the wrong type, root node is <agentstatus>, but "
      "<contentlist> was expected",
      messageOf<&tError_WrongDoc>([] { getFileList("<agentstatus/>"); }));
  EXPECT_NE("", messageOf<&tError_ParseFile>(
                    [] { getFileList("perl: command not found\n"); }));
  EXPECT_EQ("Assertion failed: content.size()",
            messageOf<&AssertionFailed>([] { getFileList(""); }));
}

TEST(AgentDeploymentStatusTest, GivesTheRemoteStatusFileName) {
  ferrow_test::TempDir dir;
  std::string file = dir.path() + "/agent-deployment.status";
  ferrow_test::writeFile(file,
                         "<agentstatus><version>1</version>"
                         "<statusfile>/tmp/agent/status.xml</statusfile>"
                         "</agentstatus>");
  XmlAgentDeploymentStatusDocument status(file);
  EXPECT_EQ("/tmp/agent/status.xml", status.getAgentDeploymentStatusFileName());

  ferrow_test::writeFile(file, "<contentlist/>");
  EXPECT_NE("", messageOf<&tError_WrongDoc>(
                    [&] { XmlAgentDeploymentStatusDocument bad(file); }));
  ferrow_test::writeFile(file, "<agentstatus/>");
  XmlAgentDeploymentStatusDocument empty(file);
  EXPECT_EQ("Can not find 'statusfile' element in 'agentstatus' element.",
            messageOf<&tError_WrongContent>(
                [&] { empty.getAgentDeploymentStatusFileName(); }));
}

TEST(AgentsListTest, PrintsTheAgentsAdded) {
  std::unique_ptr<AgentsList> list = createAgentsListFile();
  list->addAgent("pleskX", "Agent for <X>");
  list->addAgent("second", "");
  ::testing::internal::CaptureStdout();
  list->saveDocToStdout();
  std::string out = ::testing::internal::GetCapturedStdout();
  xml_test::DocOwner doc(xmlReadMemory(out.data(), static_cast<int>(out.size()),
                                       "out", nullptr, 0));
  ASSERT_TRUE(doc) << out;
  xmlNodePtr root = xmlDocGetRootElement(doc.get());
  EXPECT_EQ("agents-list", xml_test::nodeName(root));
  std::vector<xmlNodePtr> agents = xml_test::elements(root);
  ASSERT_EQ(2u, agents.size());
  std::vector<xmlNodePtr> fields = xml_test::elements(agents[0]);
  ASSERT_EQ(2u, fields.size());
  EXPECT_EQ("name", xml_test::nodeName(fields[0]));
  EXPECT_EQ("pleskX", xml_test::text(fields[0]));
  EXPECT_EQ("description", xml_test::nodeName(fields[1]));
  EXPECT_EQ("Agent for <X>", xml_test::text(fields[1]));
}

}  // namespace
}  // namespace tovel
