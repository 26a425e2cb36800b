#include "xml/xml_document.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libxml/globals.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "commons/host_log.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_node.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using ferrow_test::TempDir;
using ferrow_test::writeFile;
using xml_test::messageOf;

const char kParseHeader[] =
    " was not parsed successfully with the following errors:\n";

TEST(XmlReadTest, EmptyFileFailsWithTheParserMessagesCollected) {
  TempDir dir;
  std::string file = dir.path() + "/empty.xml";
  writeFile(file, "");
  xmlGenericErrorFunc before = xmlGenericError;
  void* beforeContext = xmlGenericErrorContext;

  ::testing::internal::CaptureStderr();
  std::string message =
      messageOf<&tError_ParseFile>([&] { tXmlDocument doc(file.c_str()); });
  std::string leaked = ::testing::internal::GetCapturedStderr();

  EXPECT_EQ(0u, message.find("The XML file " + file + kParseHeader)) << message;
  EXPECT_NE(std::string::npos, message.find("Document is empty")) << message;
  EXPECT_EQ("", leaked) << "parser messages must be collected, not printed";
  EXPECT_EQ(before, xmlGenericError) << "handler not restored";
  EXPECT_EQ(beforeContext, xmlGenericErrorContext);
}

TEST(XmlReadTest, MalformedTextInMemoryNamesTheBufferAndTheFault) {
  std::string message = messageOf<&tError_ParseFile>(
      [] { tXmlDocument doc(std::string("<a><b></a>")); });
  EXPECT_EQ(0u, message.find(std::string("The XML file in-memory buffer") +
                             kParseHeader))
      << message;
  EXPECT_NE(std::string::npos, message.find("mismatch")) << message;
}

TEST(XmlReadTest, BadNamesAndContentBreakTheContract) {
  EXPECT_EQ("Assertion failed: filename != NULL",
            messageOf<&AssertionFailed>(
                [] { tXmlDocument doc(static_cast<const char*>(nullptr)); }));
  EXPECT_EQ("Assertion failed: *filename != 0",
            messageOf<&AssertionFailed>([] { tXmlDocument doc(""); }));
  EXPECT_EQ("Assertion failed: content.size()", messageOf<&AssertionFailed>([] {
              tXmlDocument doc{std::string()};
            }));
}

TEST(XmlReadTest, MissingFileOrDirectoryIsAWrongInputFile) {
  TempDir dir;
  const std::string prefix =
      "The XML file does not exist or is not a regular file. Check the file '";
  std::string missing = dir.path() + "/missing.xml";
  EXPECT_EQ(prefix + missing + "'", messageOf<&tError_WrongInputFile>([&] {
              tXmlDocument doc(missing.c_str());
            }));
  EXPECT_EQ(prefix + dir.path() + "'", messageOf<&tError_WrongInputFile>([&] {
              tXmlDocument doc(boost::filesystem::path(dir.path()));
            }));
}

TEST(XmlReadTest, DashReadsStandardInput) {
  TempDir dir;
  std::string file = dir.path() + "/in.xml";
  writeFile(file, "<contentlist size=\"1\"/>");
  int saved = dup(0);
  int fd = open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  dup2(fd, 0);
  close(fd);
  tXmlQvtDocument doc("-");
  dup2(saved, 0);
  close(saved);
  clearerr(stdin);
  doc.initFileDoc("contentlist");
  EXPECT_EQ("1", doc.getAttribute(doc.getRoot(), "size"));
}

TEST(XmlRootTest, RootChecksNameBothRoots) {
  tXmlQvtDocument doc(std::string("<agentstatus/>"));
  EXPECT_EQ(
      "The document has the wrong type, root node is <agentstatus>, but "
      "<contentlist> was expected",
      messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("contentlist"); }));

  tXmlQvtDocument none;
  EXPECT_EQ(
      "The document is empty. Can not find root element <contentlist>",
      messageOf<&tError_EmptyDoc>([&] { none.initFileDoc("contentlist"); }));
}

TEST(XmlRootTest, MissingRootChildIsNamedWithItsRoot) {
  tXmlQvtDocument doc(std::string("<agentstatus><other/></agentstatus>"));
  doc.initFileDoc("agentstatus");
  EXPECT_EQ("Can not find 'statusfile' element in 'agentstatus' element.",
            messageOf<&tError_WrongContent>(
                [&] { doc.getRootNodeChild("statusfile"); }));
}

TEST(XmlQvtDocumentTest, ReadsTextAndAttributes) {
  tXmlQvtDocument doc(std::string(
      "<r><x/><y a=\"1\">t&amp;1<!-- c --><z/>2</y><y>second</y></r>"));
  doc.initFileDoc("r");
  xmlNodePtr y = doc.getRootNodeChild("y");
  EXPECT_EQ("t&12", doc.getNodeText(y));
  EXPECT_EQ("1", doc.getAttribute(y, "a"));
  EXPECT_EQ("", doc.getNodeText(doc.getRootNodeChild("x")));
}

TEST(XmlQvtDocumentTest, MissingAttributeIsNoSuchAttribute) {
  tXmlQvtDocument doc(std::string("<contentlist><file/></contentlist>"));
  doc.initFileDoc("contentlist");
  xmlNodePtr file = doc.getRootNodeChild("file");
  EXPECT_EQ(
      "Node file does not have attribute md5sum",
      messageOf<&NoSuchAttribute>([&] { doc.getAttribute(file, "md5sum"); }));
  EXPECT_EQ("Assertion failed: node != NULL", messageOf<&AssertionFailed>([&] {
              doc.getAttribute(nullptr, "md5sum");
            }));
}

TEST(XmlQvtDocumentTest, AddAttributeTwiceKeepsOneWithTheSecondValue) {
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  doc.addAttribute(doc.getRoot(), "speed", "1");
  doc.addAttribute(doc.getRoot(), "speed", "2");
  EXPECT_EQ(1, xml_test::attributeCount(doc.getRoot()));
  EXPECT_EQ("2", doc.getAttribute(doc.getRoot(), "speed"));
}

TEST(XmlQvtDocumentTest, BuildsEscapedTextChildren) {
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  xmlNodePtr child = doc.newChild(doc.getRoot(), "empty");
  EXPECT_EQ(doc.getRoot(), child->parent);
  doc.newTextChild(doc.getRoot(), "host", "a<b&c");
  std::string saved = doc.saveToString();
  EXPECT_NE(std::string::npos, saved.find("<empty/>")) << saved;
  EXPECT_NE(std::string::npos, saved.find("<host>a&lt;b&amp;c</host>"))
      << saved;
  tXmlQvtDocument back(saved);
  back.initFileDoc("root");
  EXPECT_EQ("a<b&c", back.getNodeText(back.getRootNodeChild("host")));
}

TEST(XmlQvtDocumentTest, TextChildWithoutParentAddsNothing) {
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  std::string before = doc.saveToString();
  EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "42"));
  EXPECT_EQ(before, doc.saveToString());
  EXPECT_EQ(
      "#0002: Can not create new node",
      messageOf<&tError_XmlInternal>([&] { doc.newChild(nullptr, "x"); }));
}

TEST(XmlQvtDocumentTest, CopiesShareTheDocument) {
  std::unique_ptr<tXmlQvtDocument> original(new tXmlQvtDocument);
  original->initNewDoc("root");
  tXmlQvtDocument copy(*original);
  EXPECT_EQ(original->getDoc(), copy.getDoc());
  original.reset();
  copy.addAttribute(copy.getRoot(), "still", "alive");
  EXPECT_NE(std::string::npos, copy.saveToString().find("still=\"alive\""));
}

TEST(XmlSaveTest, SaveToFileWritesAndReportsFailures) {
  TempDir dir;
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  std::string file = dir.path() + "/out.xml";
  doc.saveToFile(file);
  xml_test::DocOwner back = xml_test::parseWithLibxml(file);
  ASSERT_TRUE(back);
  EXPECT_EQ("root", xml_test::nodeName(xmlDocGetRootElement(back.get())));

  std::string bad = dir.path() + "/no/such/dir/out.xml";
  std::vector<std::string> logged;
  setHostLogSink(
      [&](HostLogLevel, const std::string& line) { logged.push_back(line); });
  logged.clear();  // lines replayed from before are not ours
  ::testing::internal::CaptureStderr();
  EXPECT_EQ("Can not save the XML document to file '" + bad + "'",
            messageOf<&tError_SaveFile>([&] { doc.saveToFile(bad); }));
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  setHostLogSink(HostLogSink());
  // The library's reason is not in the message but must not be lost.
  ASSERT_EQ(1u, logged.size());
  EXPECT_NE(std::string::npos, logged[0].find(strerror(ENOENT))) << logged[0];
  EXPECT_EQ("Assertion failed: filename != NULL",
            messageOf<&AssertionFailed>(
                [&] { doc.saveToFile(static_cast<const char*>(nullptr)); }));
  EXPECT_EQ("Assertion failed: buffer != 0",
            messageOf<&AssertionFailed>([&] { doc.saveToBuffer(nullptr); }));
}

TEST(XmlSaveTest, SaveToStdoutPrintsTheDocument) {
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  doc.newTextChild(doc.getRoot(), "a", "b");
  ::testing::internal::CaptureStdout();
  doc.saveToStdout();
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, out.find("<root>")) << out;
  EXPECT_NE(std::string::npos, out.find("<a>b</a>")) << out;
}

TEST(XmlNodeTest, ParentsAndTheirAbsence) {
  tXmlQvtDocument doc(std::string("<r><a><b/></a></r>"));
  doc.initFileDoc("r");
  xmlNodePtr a = doc.getRootNodeChild("a");
  XmlNode b(a->children);
  EXPECT_EQ(a, b.getParent().getNode());
  EXPECT_EQ(doc.getRoot(), b.getParent().getParent().getNode());
  XmlNode root(doc.getRoot());
  EXPECT_EQ("No parent node on requested XML element",
            messageOf<&NoParentNode>([&] { root.getParent(); }));
  EXPECT_EQ("Assertion failed: node != NULL",
            messageOf<&AssertionFailed>([] { XmlNode none(nullptr); }));
}

TEST(XmlNodeTest, SavesItsSubtreeAsADocument) {
  TempDir dir;
  xml_test::ensurePanelAccount();
  tXmlQvtDocument doc(std::string("<r><a k=\"v\"><b>t</b></a><c/></r>"));
  doc.initFileDoc("r");
  std::string target = dir.path() + "/a.xml";
  XmlNode(doc.getRootNodeChild("a")).saveToFileAtomically(target);
  xml_test::DocOwner back = xml_test::parseWithLibxml(target);
  ASSERT_TRUE(back);
  xmlNodePtr root = xmlDocGetRootElement(back.get());
  EXPECT_EQ("a", xml_test::nodeName(root));
  EXPECT_EQ("v", xml_test::attr(root, "k"));
  EXPECT_EQ("t", xml_test::text(xml_test::elements(root).at(0)));
  // The source document is untouched.
  EXPECT_EQ(2u, xml_test::elements(doc.getRoot()).size());
}

}  // namespace
}  // namespace tovel
