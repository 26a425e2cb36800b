// The XML layer: documents read and saved (atomically, for the panel), the
// status document, the agents' documents, DTD, XSLT, XPath, error messages
// and the safe form of outside text.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>

#include <boost/filesystem.hpp>
#include <fstream>

#include "commons/commons_test_util.h"
#include "commons/exec_cmd.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "xml/agent_deployment_status.h"
#include "xml/agent_file_list.h"
#include "xml/agents_list.h"
#include "xml/migration_status.h"
#include "xml/xml_dtd_xslt.h"
#include "xml/xml_msg_formatter.h"
#include "xml/xml_node.h"
#include "xml/xml_schema.h"
#include "xml/xml_text.h"
#include "xml/xml_xpath.h"

namespace tovel {
namespace {

using ferrow_test::readFile;
using ferrow_test::TempDir;
using ferrow_test::writeFile;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing_util::messageOf;

#define R "\xEF\xBF\xBD"  // U+FFFD

// The XML text without its declaration and the indentation between tags.
std::string bodyOf(const std::string& text) {
  std::string body = ferrow_test::compactXml(text);
  if (body.compare(0, 5, "<?xml") == 0) body.erase(0, body.find("?>") + 2);
  return body.substr(0, body.find_last_not_of('\n') + 1);
}

tXmlQvtDocument newDoc(const char* root) {
  tXmlQvtDocument doc;
  doc.initNewDoc(root);
  return doc;
}

// Bytes that are no character an XML document may hold each become U+FFFD;
// every boundary of UTF-8 and of the characters XML allows is tried.
TEST(XmlTextTest, OnlyCharactersXmlCanCarryAreKept) {
  const char* kept =
      "\t\n\r ~\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef"
      "\xbf\xbd\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
  EXPECT_EQ(kept, asXmlText(kept));
  const struct {
    const char *in, *out;
  } replaced[] = {
      {"\x01\x1f\x80", R R R},       {"\xc1\xbf", R R},
      {"\xe0\x9f\xbf", R R R},       {"\xed\xa0\x80\xed\xbf\xbf", R R R R R R},
      {"\xef\xbf\xbe", R R R},       {"\xef\xbf\xbf", R R R},
      {"\xf0\x8f\xbf\xbf", R R R R}, {"\xf4\x90\x80\x80", R R R R},
      {"\xf5\x80\x80\x80", R R R R}, {"\xe2\x82", R R},
      {"\xe2(\xa1", R "(" R},
  };
  for (const auto& c : replaced) EXPECT_EQ(c.out, asXmlText(c.in)) << c.in;
}

// One status object through the states; what a state left behind shows
// only where the format says so (the deploy counts on the root). Outside
// text is made safe; no element carries the pid. Each save replaces the
// panel's file whole: a reader that opened it before still reads the old
// document, and nothing stays beside it.
TEST(MigrationStatusTest, EachStateWritesItsDocumentForThePanel) {
  ferrow_test::ensurePanelAccount();
  TempDir dir;
  std::unique_ptr<MigrationStatus> s = createMigrationStatusFile();
  SessionLifetimeController session(dir.path() + "/s");
  const std::string file = theSession->getStatusFileName(),
                    m = "<migration-status", e = "</migration-status>";
  auto saved = [&] {
    s->saveFile();
    return bodyOf(readFile(file)).substr(m.size());
  };
  s->setAgentParams("h\x01");
  s->setAgentOperation(MigrationStatus::deploy);
  EXPECT_EQ("><agent action=\"deploy\"><host>h" R "</host></agent>" + e,
            saved());
  std::ifstream before(file);
  s->setTransferSpeed("5");
  s->setTransferTotals("10", "2048");
  s->setTransferFilesLeft("9");
  s->setCurrentFile("a.tgz", "300");
  s->setTransferCurrentFileSizeLeft("120");
  const std::string transfer = "><transfer speed=\"5\"><host>h" R "</host>";
  EXPECT_EQ(transfer +
                "<files total=\"10\" left=\"9\" size-total=\"2048\" size-left="
                "\"2048\"><current-file size=\"300\" size-left=\"120\">a.tgz"
                "</current-file></files></transfer>" +
                e,
            saved());
  EXPECT_EQ(m + "><agent action=\"deploy\"><host>h" R "</host></agent>" + e,
            bodyOf(std::string(std::istreambuf_iterator<char>(before), {})));
  s->setTransferTotals("3", "");  // sizes show only when both are known
  s->setTransferSizeLeft("5");
  s->setCurrentFile("b.tgz", "");
  EXPECT_EQ(transfer +
                "<files total=\"3\" left=\"3\"><current-file>b.tgz"
                "</current-file></files></transfer>" +
                e,
            saved());
  const std::string deploy = " total-accounts=\"4\" total-domains=\"7\" ";
  s->setDeployTotals("4", "7");
  EXPECT_EQ(deploy + "completed-accounts=\"\" completed-domains=\"\"/>",
            saved());
  s->setDeploy("1", "2");
  s->setCurrentObject("jdoe", MigrationStatus::account);
  const std::string done = "completed-accounts=\"1\" completed-domains=\"2\">";
  EXPECT_EQ(deploy + done +
                "<current-object type=\"account\">jdoe</current-object>" + e,
            saved());
  s->setIdle();
  EXPECT_EQ(deploy + done + "<idle/>" + e, saved());
  const passwd* panel = getpwnam("dyradm");
  EXPECT_EQ("f " + std::to_string(panel->pw_uid) + ":" +
                std::to_string(panel->pw_gid) + " 0640",
            testing_util::describe(file));
  EXPECT_EQ(
      2, std::distance(boost::filesystem::directory_iterator(dir.path() + "/s"),
                       {}));
}

// A node saves alone; no temporary file in a missing directory; a directory
// cannot be replaced by a file; a write that fails (here past the file size
// limit) keeps the old document.
TEST(AtomicSaveTest, FailuresNameTheFilesAndKeepTheTarget) {
  TempDir dir;
  tXmlQvtDocument doc = newDoc("r");
  const std::string target = dir.path() + "/s", inside = target + "/inside";
  XmlNode(doc.newTextChild(doc.getRoot(), "host", "h\xC3\xA9<&>"))
      .saveToFileAtomically(target);
  EXPECT_EQ("<host>h\xC3\xA9&lt;&amp;&gt;</host>", bodyOf(readFile(target)));
  doc.newTextChild(doc.getRoot(), "h", std::string(100000, 'h'));
  rlimit saved, small = {4096, RLIM_INFINITY};
  getrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  std::string message =
      messageOf<&tError_SaveFile>([&] { doc.saveToFileAtomically(target); });
  setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_THAT(message, HasSubstr("'" + target));
  EXPECT_EQ("<host>h\xC3\xA9&lt;&amp;&gt;</host>", bodyOf(readFile(target)));
  boost::filesystem::remove(target);
  boost::filesystem::create_directories(inside);
  EXPECT_THAT(messageOf<&tError_SaveFile>(
                  [&] { doc.saveToFileAtomically(inside + "/no/s"); }),
              HasSubstr("'" + inside + "/no/s'"));
  EXPECT_THAT(
      messageOf<&CantRenameFile>([&] { doc.saveToFileAtomically(target); }),
      MatchesRegex("Cannot rename " + target + ".* to " + target +
                   ": Is a directory"));
}

// Names are joined to directories unchecked and sizes feed signed counters:
// either kind of hostile value fails the whole list (boundaries here, whole
// lists in the end-to-end tests).
TEST(ContentListTest, HostileNamesAndSizesAreRefused) {
  std::unique_ptr<AgentFileList> list = getFileList(
      "<contentlist size=\"9223372036854775807\" unpacked=\"0\"><file size=\"9"
      "223372036854775807\" md5sum=\"abc\">..a/.../b..</file><x/><file>c</file>"
      "</contentlist>");
  EXPECT_EQ(INT64_MAX, list->getTotalSize() + list->getUnpackedSize());
  std::string files;
  for (const DumpFile& file : list->getFileList())
    files += file.name + file.md5sum;
  EXPECT_EQ("..a/.../b..abcc", files);
  for (const std::string name : {"a/..", "/x", ""}) {
    EXPECT_THAT(
        messageOf<&tError_WrongContent>([&] {
          getFileList("<contentlist><file>" + name + "</file></contentlist>")
              ->getFileList();
        }),
        HasSubstr("names the file '" + name + "': a name must be relative"));
  }
  for (const std::string size : {"9223372036854775808", "-1", "12k"}) {
    list = getFileList("<contentlist size=\"" + size + "\"><file size=\"" +
                       size + "\">a</file></contentlist>");
    const std::string invalid = "' is not a valid number: '" + size + "'.";
    EXPECT_EQ("Attribute 'size' of element 'file" + invalid,
              messageOf<&tError_WrongContent>([&] { list->getFileList(); }));
    EXPECT_EQ("Attribute 'size' of element 'contentlist" + invalid,
              messageOf<&tError_WrongContent>([&] { list->getTotalSize(); }));
  }
}

// Parser messages go into the error, not to standard error; "-" is standard
// input, other names must be regular files; missing roots, children,
// attributes and parents are named.
TEST(XmlDocumentTest, ReadingFailuresAreNamed) {
  TempDir dir;
  const std::string file = dir.path() + "/in.xml";
  writeFile(file,
            "<agentstatus><x/><statusfile>/a/s</statusfile></agentstatus>");
  testing::internal::CaptureStderr();
  EXPECT_THAT(messageOf<&tError_ParseFile>(
                  [] { tXmlDocument(std::string("<a></b>")); }),
              MatchesRegex("The XML file in-memory buffer .*:\n.*mismatch.*"));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  const int in = dup(0), fd = open(file.c_str(), O_RDONLY);
  dup2(fd, 0);
  XmlAgentDeploymentStatusDocument status("-");
  dup2(in, 0);
  close(in + 0 * close(fd));
  EXPECT_EQ("/a/s", status.getAgentDeploymentStatusFileName());
  for (const std::string& bad : {dir.path() + "/missing", dir.path()}) {
    EXPECT_THAT(messageOf<&tError_WrongInputFile>(
                    [&] { tXmlDocument doc{boost::filesystem::path(bad)}; }),
                HasSubstr("file '" + bad + "'"));
  }
  messageOf<&tError_EmptyDoc>([] { tXmlQvtDocument().initFileDoc("r"); });
  tXmlQvtDocument doc(file.c_str());
  EXPECT_THAT(messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("r"); }),
              HasSubstr("is <agentstatus>, but <r>"));
  doc.initFileDoc("agentstatus");
  xmlNodePtr x = doc.getRootNodeChild("x");
  EXPECT_EQ(
      "Can not find 'y' element in 'agentstatus' element.",
      messageOf<&tError_WrongContent>([&] { doc.getRootNodeChild("y"); }));
  EXPECT_EQ("Node x does not have attribute a",
            messageOf<&NoSuchAttribute>([&] { doc.getAttribute(x, "a"); }));
  EXPECT_EQ(doc.getRoot(), XmlNode(x).getParent().getNode());
  messageOf<&NoParentNode>([&] { XmlNode(doc.getRoot()).getParent(); });
}

// A text child without a parent adds nothing (the status file's pid relies
// on it); an attribute set twice keeps the second value; copies share the
// document; a failed save logs the library's reason. The agents list and an
// exception with its cause (the cause a warning here) print as documents.
TEST(XmlDocumentTest, BuildingAndSaving) {
  std::unique_ptr<tXmlQvtDocument> original(
      new tXmlQvtDocument(newDoc("root")));
  tXmlQvtDocument doc(*original);
  original.reset();
  doc.addAttribute(doc.getRoot(), "speed", "1");
  doc.addAttribute(doc.getRoot(), "speed", "2");
  EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "42"));
  EXPECT_EQ("t&1",
            doc.getNodeText(doc.newTextChild(doc.getRoot(), "t", "t&1")));
  const Exc<&SshConnectionFault> cause("", "", 0);
  const Exc<&CantRetrieveDump> outer(cause, "", "", 0);
  XmlMsgFormatter formatter(doc, doc.newChild(doc.getRoot(), "message"));
  outer.accept(formatter);
  formatter.setSeverity(4);
  EXPECT_EQ(
      "<root speed=\"2\"><t>t&amp;1</t><message code=\"CantRetrieveDump"
      "\" id=\"" +
          outer.id() +
          "\" severity=\"error\"><description>"
          "Error during dump retrieval</description><message code=\"Ssh"
          "ConnectionFault\" id=\"" +
          outer.inner()->id() +
          "\" severity=\""
          "warning\"><description>Lost connection with the remote host</"
          "description></message></message></root>",
      bodyOf(doc.saveToString()));
  EXPECT_EQ(
      "#0002: Can not create new node",
      messageOf<&tError_XmlInternal>([&] { doc.newChild(nullptr, "x"); }));
  testing_util::HostLogCapture log;
  EXPECT_EQ(
      "Can not save the XML document to file '/no/out.xml'",
      messageOf<&tError_SaveFile>([&] { doc.saveToFile("/no/out.xml"); }));
  EXPECT_THAT(log.text_, HasSubstr(strerror(ENOENT)));
  EXPECT_EQ(1, log.count_);
  std::unique_ptr<AgentsList> agents = createAgentsListFile();
  agents->addAgent("sample", "A <b>");
  testing::internal::CaptureStdout();
  agents->saveDocToStdout();
  EXPECT_EQ(
      "<agents-list><agent><name>sample</name><description>A &lt;b&gt;"
      "</description></agent></agents-list>",
      bodyOf(testing::internal::GetCapturedStdout()));
}

TEST(XPathTest, NodeSetsStringsAndFailures) {
  tXmlQvtDocument doc(
      std::string("<l s=\"7\"><i>a</i><g><i n=\"3\"/></g></l>"));
  doc.initFileDoc("l");
  tXPathExpr all(doc, "//i");
  ASSERT_EQ(2u, all.getNodeSet().size());
  EXPECT_EQ(all.getNodeSet()[0], all.getNode());
  EXPECT_EQ(nullptr, tXPathExpr(doc, "/l/none").getNode());
  EXPECT_EQ("37",
            tXPathExpr(doc, doc.getRootNodeChild("g"), "string(i/@n)").str() +
                tXPathExpr(doc, "string(l/@s)").str());
  EXPECT_THAT(messageOf<&tError_XPath_CantEvaluate>(
                  [&] { tXPathExpr(doc, "//i[").getNode(); }),
              HasSubstr("expression '//i['"));
  EXPECT_THAT(messageOf<&tError_XPath_TypesMismatch>(
                  [&] { tXPathExpr(doc, "//i").str(); }),
              HasSubstr("'//i' is not a 'string'"));
}

// Validation names the DTD and the fault; a stylesheet applies with its
// parameters or stops; the schema check runs the product's proxy tool with
// the two files.
TEST(DtdXsltTest, ValidationTransformationAndSchema) {
  TempDir dir;
  const std::string dtd = "<!ELEMENT l (i*)><!ELEMENT i (#PCDATA)>",
                    dtdFile = dir.path() + "/l.dtd", xsl = dir.path() + "/t";
  writeFile(dtdFile, dtd);
  const tExternalDtdDoc external(dtdFile);
  const std::string doctype = "<!DOCTYPE l [" + dtd + "]>";
  const tXmlDocument good(std::string("<l><i/></l>"));
  validateWithInternalDtd(tXmlDocument(doctype + "<l/>"));
  validateWithExternalDtd(good, external);
  const tXmlDocument bad(std::string("<l><bad/></l>")),
      badInside(doctype + "<l><bad/></l>");
  EXPECT_THAT(
      messageOf<&InternalDtdValidationFailed>(
          [&] { validateWithInternalDtd(badInside); }) +
          "|" + messageOf<&ExternalDtdValidationFailed>([&] {
            validateWithExternalDtd(bad, external);
          }),
      MatchesRegex(
          ".*its internal DTD. The errors are: .*bad.*\\|.*external DTD " +
          dtdFile + ". The errors are: .*bad.*"));
  EXPECT_EQ("The DTD file /no.dtd is invalid",
            messageOf<&InvalidDtdFile>([] { tExternalDtdDoc("/no.dtd"); }));
  const std::string head =
      "<xsl:stylesheet version=\"1.0\" xmlns:xsl=\"http://www.w3.org/1999/XSL/"
      "Transform\"><xsl:param name=\"t\"/><xsl:template match=\"/l\">";
  writeFile(xsl, head +
                     "<o t=\"{$t}\"><xsl:value-of select=\"count(i)\"/>"
                     "</o></xsl:template></xsl:stylesheet>");
  EXPECT_EQ("<o t=\"x\">1</o>",
            bodyOf(apply_stylesheet(tXsltStylesheet(xsl), good, {{"t", "'x'"}})
                       .saveToString()));
  writeFile(xsl, head +
                     "<xsl:message terminate=\"yes\">stop</xsl:message>"
                     "</xsl:template></xsl:stylesheet>");
  messageOf<&tError_Xslt_ApplyStylesheetTerminated>(
      [&] { apply_stylesheet(tXsltStylesheet(xsl), good); });
  writeFile(xsl, "<xsl:stylesheet");
  messageOf<&tError_XslParse_CanNotParseFile>(
      [&] { tXsltStylesheet style(xsl); });
  EXPECT_THAT(
      messageOf<&ExecCmd::Failed>([] { validateSchema("/d.xml", "/s.xsd"); }),
      HasSubstr("/admin/sbin/libxml-proxy --validate-xml --xml-file=/d.xml "
                "--xsd-file=/s.xsd failed"));
}

}  // namespace
}  // namespace tovel
