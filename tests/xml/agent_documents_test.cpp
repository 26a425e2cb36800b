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
      "  <file size=\"9223372036854775807\">./three.tgz</file>\n"
      "</contentlist>");
  EXPECT_EQ(9000000000LL, list->getTotalSize());
  EXPECT_EQ(12, list->getUnpackedSize());
  std::string files;
  for (const DumpFile& file : list->getFileList()) {
    files +=
        file.name + " " + std::to_string(file.size) + " " + file.md5sum + "|";
  }
  EXPECT_EQ(
      "a/one.tgz 10 d41d8cd98f00b204e9800998ecf8427e|two.tgz 0 abc|"
      "./three.tgz 9223372036854775807 |",
      files);
}

TEST(ContentListTest, BadSizesAndTextsThatAreNoContentList) {
  std::unique_ptr<AgentFileList> empty = getFileList("<contentlist/>");
  EXPECT_TRUE(empty->getFileList().empty());
  EXPECT_EQ("Node contentlist does not have attribute size",
            messageOf<&NoSuchAttribute>([&] { empty->getTotalSize(); }));
  EXPECT_EQ("Node contentlist does not have attribute unpacked",
            messageOf<&NoSuchAttribute>([&] { empty->getUnpackedSize(); }));

  std::unique_ptr<AgentFileList> list = getFileList(
      "<contentlist size=\"12k\" unpacked=\"\"><file size=\"-1\">x</file>"
      "</contentlist>");
  const std::string invalid = " is not a valid number: ";
  EXPECT_EQ("Attribute 'size' of element 'contentlist'" + invalid + "'12k'.",
            messageOf<&tError_WrongContent>([&] { list->getTotalSize(); }));
  EXPECT_EQ("Attribute 'unpacked' of element 'contentlist'" + invalid + "''.",
            messageOf<&tError_WrongContent>([&] { list->getUnpackedSize(); }));
  EXPECT_EQ("Attribute 'size' of element 'file'" + invalid + "'-1'.",
            messageOf<&tError_WrongContent>([&] { list->getFileList(); }));

  EXPECT_EQ(
      "The document has the wrong type, root node is <agentstatus>, but "
      "<contentlist> was expected",
      messageOf<&tError_WrongDoc>([] { getFileList("<agentstatus/>"); }));
  EXPECT_NE("", messageOf<&tError_ParseFile>(
                    [] { getFileList("perl: command not found\n"); }));
  EXPECT_EQ("Assertion failed: content.size()",
            messageOf<&AssertionFailed>([] { getFileList(""); }));
}

// Names are joined to directories unchecked, sizes feed signed counters:
// either kind of hostile value fails the whole list.
TEST(ContentListTest, HostileNamesAndSizesAreRefused) {
  const std::string refused =
      "': a name must be relative and must not contain '..'.";
  for (const char* name :
       {"../x", "a/../../x", "..", "a/..", "/etc/passwd", "//x", ""}) {
    std::unique_ptr<AgentFileList> list =
        getFileList(std::string("<contentlist size=\"1\" unpacked=\"1\">") +
                    "<file size=\"1\">ok.tgz</file><file>" + name +
                    "</file></contentlist>");
    EXPECT_EQ("The content list names the file '" + std::string(name) + refused,
              messageOf<&tError_WrongContent>([&] { list->getFileList(); }))
        << name;
  }
  // Dots that are no ".." component are plain names.
  EXPECT_EQ(3u, getFileList("<contentlist><file>..a</file><file>a../b</file>"
                            "<file>.../c</file></contentlist>")
                    ->getFileList()
                    .size());

  const std::string invalid = " is not a valid number: ";
  for (const char* size : {"9223372036854775808", "18446744073709551615",
                           "99999999999999999999999", "1e9", " 5", "0x10"}) {
    std::unique_ptr<AgentFileList> list = getFileList(
        std::string("<contentlist size=\"") + size +
        "\" unpacked=\"0\"><file size=\"" + size + "\">a</file></contentlist>");
    EXPECT_EQ(
        "Attribute 'size' of element 'file'" + invalid + "'" + size + "'.",
        messageOf<&tError_WrongContent>([&] { list->getFileList(); }));
    EXPECT_EQ("Attribute 'size' of element 'contentlist'" + invalid + "'" +
                  size + "'.",
              messageOf<&tError_WrongContent>([&] { list->getTotalSize(); }));
  }
  std::unique_ptr<AgentFileList> negative =
      getFileList("<contentlist size=\"-5\" unpacked=\"-1\"/>");
  EXPECT_EQ("Attribute 'size' of element 'contentlist'" + invalid + "'-5'.",
            messageOf<&tError_WrongContent>([&] { negative->getTotalSize(); }));
}

TEST(AgentDeploymentStatusTest, GivesTheRemoteStatusFileName) {
  ferrow_test::TempDir dir;
  std::string file = dir.path() + "/agent-deployment.status";
  ferrow_test::writeFile(file,
                         "<agentstatus><version>1</version>"
                         "<statusfile>/tmp/agent/status.xml</statusfile>"
                         "</agentstatus>");
  EXPECT_EQ("/tmp/agent/status.xml", XmlAgentDeploymentStatusDocument(file)
                                         .getAgentDeploymentStatusFileName());
  ferrow_test::writeFile(file, "<agentstatus/>");
  XmlAgentDeploymentStatusDocument empty(file);
  EXPECT_EQ("Can not find 'statusfile' element in 'agentstatus' element.",
            messageOf<&tError_WrongContent>(
                [&] { empty.getAgentDeploymentStatusFileName(); }));
}

TEST(AgentsListTest, PrintsTheAgentsAdded) {
  std::unique_ptr<AgentsList> list = createAgentsListFile();
  list->addAgent("sampleX", "Agent for <X>");
  list->addAgent("second", "");
  ::testing::internal::CaptureStdout();
  list->saveDocToStdout();
  EXPECT_EQ(
      "<agents-list><agent><name>sampleX</name><description>Agent for &lt;X&gt;"
      "</description></agent><agent><name>second</name><description>"
      "</description>"
      "</agent></agents-list>",
      xml_test::bodyOf(::testing::internal::GetCapturedStdout()));
}

}  // namespace
}  // namespace tovel
