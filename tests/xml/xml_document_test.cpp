#include "xml/xml_document.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/globals.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_node.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using ferrow_test::TempDir;
using ferrow_test::writeFile;
using testing::HasSubstr;
using testing::StartsWith;
using xml_test::bodyOf;
using xml_test::messageOf;

const char kParseHeader[] =
    " was not parsed successfully with the following errors:\n";

// The parser's own messages go into the error, not to standard error, and
// its error handler is put back afterwards.
TEST(XmlReadTest, ParseFailuresCarryTheParserMessages) {
  TempDir dir;
  std::string file = dir.path() + "/empty.xml";
  writeFile(file, "");
  xmlGenericErrorFunc before = xmlGenericError;
  ::testing::internal::CaptureStderr();
  std::string empty =
      messageOf<&tError_ParseFile>([&] { tXmlDocument doc(file.c_str()); });
  std::string malformed = messageOf<&tError_ParseFile>(
      [] { tXmlDocument doc(std::string("<a><b></a>")); });
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  EXPECT_EQ(before, xmlGenericError) << "handler not restored";
  EXPECT_THAT(empty, StartsWith("The XML file " + file + kParseHeader));
  EXPECT_THAT(empty, HasSubstr("Document is empty"));
  EXPECT_THAT(
      malformed,
      StartsWith(std::string("The XML file in-memory buffer") + kParseHeader));
  EXPECT_THAT(malformed, HasSubstr("mismatch"));
}

// "-" is standard input; other names must be regular files.
TEST(XmlReadTest, NamesOfDashOrRegularFilesOnly) {
  TempDir dir;
  std::string file = dir.path() + "/in.xml";
  writeFile(file, "<contentlist size=\"1\"/>");
  int saved = dup(0);
  int fd = open(file.c_str(), O_RDONLY);
  dup2(fd, 0);
  close(fd);
  tXmlQvtDocument doc("-");
  dup2(saved, 0);
  close(saved);
  clearerr(stdin);
  doc.initFileDoc("contentlist");
  EXPECT_EQ("1", doc.getAttribute(doc.getRoot(), "size"));

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

TEST(XmlRootTest, WrongEmptyRootAndMissingChildAreNamed) {
  tXmlQvtDocument doc(std::string("<agentstatus><other/></agentstatus>"));
  EXPECT_EQ(
      "The document has the wrong type, root node is <agentstatus>, but "
      "<contentlist> was expected",
      messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("contentlist"); }));
  tXmlQvtDocument none;
  EXPECT_EQ(
      "The document is empty. Can not find root element <contentlist>",
      messageOf<&tError_EmptyDoc>([&] { none.initFileDoc("contentlist"); }));
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
  EXPECT_EQ(
      "Node y does not have attribute md5sum",
      messageOf<&NoSuchAttribute>([&] { doc.getAttribute(y, "md5sum"); }));
}

// A text child without a parent adds nothing (the status file's pid relies
// on it); an attribute set twice keeps one, with the second value.
TEST(XmlQvtDocumentTest, BuildsElementsTextAndAttributes) {
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  doc.addAttribute(doc.getRoot(), "speed", "1");
  doc.addAttribute(doc.getRoot(), "speed", "2");
  doc.newChild(doc.getRoot(), "empty");
  doc.newTextChild(doc.getRoot(), "host", "a<b&c");
  EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "42"));
  EXPECT_EQ("<root speed=\"2\"><empty/><host>a&lt;b&amp;c</host></root>",
            bodyOf(doc.saveToString()));
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
  EXPECT_EQ("<root still=\"alive\"/>", bodyOf(copy.saveToString()));
}

// The library's reason is not in the message but must not be lost either.
TEST(XmlSaveTest, SaveToFileWritesOrLogsTheReason) {
  TempDir dir;
  tXmlQvtDocument doc;
  doc.initNewDoc("root");
  doc.saveToFile(dir.path() + "/out.xml");
  EXPECT_EQ("<root/>", xml_test::savedBody(dir.path() + "/out.xml"));

  std::string bad = dir.path() + "/no/such/dir/out.xml";
  testing_util::HostLogCapture log;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ("Can not save the XML document to file '" + bad + "'",
            messageOf<&tError_SaveFile>([&] { doc.saveToFile(bad); }));
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_THAT(log.lines()[0], HasSubstr(strerror(ENOENT)));
}

TEST(XmlNodeTest, ParentsAndSubtreeSave) {
  ferrow_test::ensurePanelAccount();
  tXmlQvtDocument doc(std::string("<r><a k=\"v\"><b>t</b></a><c/></r>"));
  doc.initFileDoc("r");
  xmlNodePtr a = doc.getRootNodeChild("a");
  XmlNode b(a->children);
  EXPECT_EQ(a, b.getParent().getNode());
  EXPECT_EQ(doc.getRoot(), b.getParent().getParent().getNode());
  EXPECT_EQ(
      "No parent node on requested XML element",
      messageOf<&NoParentNode>([&] { XmlNode(doc.getRoot()).getParent(); }));

  TempDir dir;
  XmlNode(a).saveToFileAtomically(dir.path() + "/a.xml");
  EXPECT_EQ("<a k=\"v\"><b>t</b></a>",
            xml_test::savedBody(dir.path() + "/a.xml"));
  EXPECT_EQ("<r><a k=\"v\"><b>t</b></a><c/></r>", bodyOf(doc.saveToString()))
      << "the source document is untouched";
}

}  // namespace
}  // namespace tovel
