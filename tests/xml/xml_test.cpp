// The XML layer: documents read and saved atomically, the status and agent
// documents, DTD, XSLT, XPath, error messages and safe outside text.
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>

#include <boost/filesystem.hpp>

#include "actions/retrieval_errors.h"
#include "commons/accounts.h"
#include "commons/commons_test_util.h"
#include "commons/exec_cmd.h"
#include "transport/libssh2_errors.h"
#include "xml/agent_deployment_status.h"
#include "xml/agent_file_list.h"
#include "xml/agents_list.h"
#include "xml/migration_status.h"
#include "xml/xml_document.h"
#include "xml/xml_dtd_xslt.h"
#include "xml/xml_errors.h"
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

// Every boundary of UTF-8 and of the characters XML allows is tried.
TEST(XmlTextTest, OnlyCharactersXmlCanCarryAreKept) {
  const char* kept =
      "\t\n\r ~\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef"
      "\xbf\xbd\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
  EXPECT_EQ(kept, asXmlText(kept));
  EXPECT_EQ(R R R "|" R R "|" R R R "|" R R R R R R "|" R R R "|" R R R
                  "|" R R R R "|" R R R R "|" R R R R "|" R R "|" R "(" R,
            asXmlText("\x01\x1f\x80|\xc1\xbf|\xe0\x9f\xbf|\xed\xa0\x80\xed\xbf"
                      "\xbf|\xef\xbf\xbe|\xef\xbf\xbf|\xf0\x8f\xbf\xbf|\xf4\x90"
                      "\x80\x80|\xf5\x80\x80\x80|\xe2\x82|\xe2(\xa1"));
}

// What a state left behind shows only where the format says so (the deploy
// counts on the root); no element carries the pid.
TEST(MigrationStatusTest, EachStateWritesItsDocumentForThePanel) {
  ferrow_test::ensurePanelAccount();
  TempDir dir;
  const std::string file = dir.path() + "/migration.status";
  std::unique_ptr<MigrationStatus> s =
      createMigrationStatusFile(file, lookupAccount(kPanelAccount));
  std::string saved;
  auto save = [&] {
    s->saveFile();
    saved += bodyOf(readFile(file)).substr(17) + "\n";  // <migration-status
  };
  s->setAgentParams("h\x01");
  s->setAgentOperation(MigrationStatus::deploy);
  save();
  s->setTransferSpeed("5");
  s->setTransferTotals("10", "2048");
  s->setTransferTotals("3", "");  // sizes show only when both are known
  s->setTransferFilesLeft("2");
  s->setTransferSizeLeft("5");
  s->setCurrentFile("b.tgz", "");
  save();
  s->setDeployTotals("4", "7");
  s->setDeploy("1", "2");
  s->setCurrentObject("jdoe", MigrationStatus::account);
  save();
  s->setIdle();
  save();
  const std::string e = "</migration-status>\n", host = "<host>h" R "</host>",
                    deploy = " total-accounts=\"4\" total-domains=\"7\" ",
                    done = "completed-accounts=\"1\" completed-domains=\"2\">";
  EXPECT_EQ("><agent action=\"deploy\">" + host + "</agent>" + e +
                "><transfer speed=\"5\">" + host +
                "<files total=\"3\" left=\"2\"><current-file>b.tgz</current-"
                "file></files></transfer>" +
                e + deploy + done +
                "<current-object type=\"account\">jdoe</current-object>" + e +
                deploy + done + "<idle/>" + e,
            saved);
  const passwd* panel = getpwnam("dyradm");
  EXPECT_EQ("f " + std::to_string(panel->pw_uid) + ":" +
                std::to_string(panel->pw_gid) + " 0640",
            testing_util::describe(file));
}

// A write that fails (here past the file size limit) keeps the old file.
TEST(AtomicSaveTest, FailuresNameTheFilesAndKeepTheTarget) {
  TempDir dir;
  tXmlQvtDocument doc;
  doc.initNewDoc("r");
  const std::string target = dir.path() + "/s";
  XmlNode(doc.newTextChild(doc.getRoot(), "host", "h\xC3\xA9<&>"))
      .saveToFileAtomically(target, {});
  doc.newTextChild(doc.getRoot(), "h", std::string(100000, 'h'));
  rlimit saved, small = {4096, RLIM_INFINITY};
  getrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  std::string message = messageOf<&tError_SaveFile>(
      [&] { doc.saveToFileAtomically(target, {}); });
  setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_THAT(message, HasSubstr("'" + target));
  EXPECT_EQ("<host>h\xC3\xA9&lt;&amp;&gt;</host>", bodyOf(readFile(target)));
  boost::filesystem::remove(target);
  boost::filesystem::create_directories(target + "/in");
  EXPECT_THAT(
      messageOf<&CantRenameFile>([&] { doc.saveToFileAtomically(target, {}); }),
      MatchesRegex("Cannot rename " + target + ".* to " + target +
                   ": Is a directory"));
}

// Names are joined to directories unchecked and sizes feed signed counters:
// either kind of hostile value fails the whole list (boundaries here).
TEST(ContentListTest, HostileNamesAndSizesAreRefused) {
  const std::string max = "\"9223372036854775807\"";
  std::unique_ptr<AgentFileList> list = getFileList(
      "<contentlist size=" + max + " unpacked=\"0\"><file size=" + max +
      " md5sum=\"abc\">..a/.../b..</file><x/><file>c</file></contentlist>");
  std::string files =
      std::to_string(list->getTotalSize() + list->getUnpackedSize());
  for (const DumpFile& file : list->getFileList())
    files += " " + file.name + file.md5sum;
  EXPECT_EQ("9223372036854775807 ..a/.../b..abc c", files);
  int row = 0;
  for (const std::string bad :
       {"a/..", "/x", "", "9223372036854775808", "-1", "12k"}) {
    const bool name = row++ < 3;
    const std::string size = name ? "1" : bad;
    list =
        getFileList("<contentlist size=\"" + size + "\"><file size=\"" + size +
                    "\">" + (name ? bad : "a") + "</file></contentlist>");
    messageOf<&tError_WrongContent>([&] { list->getFileList(); });
  }
  messageOf<&tError_WrongContent>([&] { list->getTotalSize(); });
}

// Parser messages go into the error, not to standard error.
TEST(XmlDocumentTest, ReadingFailuresAreNamed) {
  TempDir dir;
  const std::string file = dir.path() + "/in.xml";
  writeFile(file, "<agentstatus><x/><statusfile>/s</statusfile></agentstatus>");
  testing::internal::CaptureStderr();
  EXPECT_THAT(messageOf<&tError_ParseFile>(
                  [] { tXmlDocument(std::string("<a></b>")); }),
              MatchesRegex("The XML file in-memory buffer .*:\n.*mismatch.*"));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ("/s", XmlAgentDeploymentStatusDocument(file.c_str())
                      .getAgentDeploymentStatusFileName());
  messageOf<&tError_WrongInputFile>(
      [&] { tXmlDocument doc{boost::filesystem::path(dir.path())}; });
  messageOf<&tError_EmptyDoc>([] { tXmlQvtDocument().initFileDoc("r"); });
  tXmlQvtDocument doc(file.c_str());
  messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("r"); });
  doc.initFileDoc("agentstatus");
  xmlNodePtr x = doc.getRootNodeChild("x");
  messageOf<&tError_WrongContent>([&] { doc.getRootNodeChild("y"); });
  messageOf<&NoSuchAttribute>([&] { doc.getAttribute(x, "a"); });
  EXPECT_EQ(doc.getRoot(), XmlNode(x).getParent().getNode());
  messageOf<&NoParentNode>([&] { XmlNode(doc.getRoot()).getParent(); });
}

// A text child without a parent adds nothing (the status file's pid relies
// on it); copies share the document.
TEST(XmlDocumentTest, BuildingAndSaving) {
  std::unique_ptr<tXmlQvtDocument> original(new tXmlQvtDocument());
  original->initNewDoc("root");
  tXmlQvtDocument doc(*original);
  original.reset();
  doc.addAttribute(doc.getRoot(), "speed", "1");
  doc.addAttribute(doc.getRoot(), "speed", "2");
  EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "42"));
  EXPECT_EQ("t&1",
            doc.getNodeText(doc.newTextChild(doc.getRoot(), "t", "t&1")));
  const Exc<&CantRetrieveDump> outer(Exc<&SshConnectionFault>("", "", 0), "",
                                     "", 0);
  XmlMsgFormatter formatter(doc, doc.newChild(doc.getRoot(), "message"));
  outer.accept(formatter);
  formatter.setSeverity(4);
  EXPECT_THAT(
      bodyOf(doc.saveToString()),
      MatchesRegex("<root speed=\"2\"><t>t&amp;1</t><message code=\"Cant"
                   "RetrieveDump\" id=\"[^\"]+\" severity=\"error\"><de"
                   "scription>Error during dump retrieval</description>"
                   "<message code=\"SshConnectionFault\"[^>]+\"warning"
                   "\"><description>.*</message></message></root>"));
  messageOf<&tError_SaveFile>([&] { doc.saveToFile("/no/out.xml"); });
  std::unique_ptr<AgentsList> agents = createAgentsListFile();
  agents->addAgent("sample", "A <b>");
  testing::internal::CaptureStdout();
  agents->saveDocToStdout();
  EXPECT_THAT(bodyOf(testing::internal::GetCapturedStdout()),
              HasSubstr("<name>sample</name><description>A &lt;b&gt;<"));
}

// A broken calling contract is reported naming the condition, not followed
// into libxml2 with a null pointer.
TEST(XmlDocumentTest, ContractViolationsAreReportedNotFollowed) {
  tXmlQvtDocument doc, none;
  doc.initNewDoc("r");
  const char* null = nullptr;
  // clang-format off
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"filename != NULL", [&] { tXmlDocument d(null); }}, {"*filename != 0", [] { tXmlDocument d(""); }},
      {"content.size()", [] { tXmlDocument d{std::string()}; }}, {"filename != NULL", [&] { doc.saveToFile(null); }},
      {"*filename != 0", [&] { doc.saveToFile(std::string()); }}, {"buffer != 0", [&] { doc.saveToBuffer(nullptr); }},
      {"root_ != NULL", [&] { none.getRootNodeChild("x"); }}, {"node != NULL", [&] { doc.getNodeText(nullptr); }},
      {"node != NULL", [&] { doc.getAttribute(nullptr, "a"); }}, {"node != NULL", [] { XmlNode n(nullptr); }},
      {"node != NULL", [&] { doc.addAttribute(nullptr, "a", "v"); }}, {"xpathCtx_.get() != NULL", [&] { tXPathExpr(none, "/"); }}};
  // clang-format on
  for (const auto& row : rows)
    EXPECT_THAT(messageOf<&AssertionFailed>(row.second), HasSubstr(row.first));
  EXPECT_THAT(messageOf<&tError_XmlInternal>([&] { doc.newChild(nullptr, "c"); }),
              HasSubstr("#0002"));
  EXPECT_THAT(messageOf<&tError_SaveFile>([&] { doc.saveToFileAtomically("/no/s", {}); }),
              HasSubstr("/no/s"));
}

TEST(XPathTest, NodeSetsStringsAndFailures) {
  tXmlQvtDocument doc(
      std::string("<l s=\"7\"><i>a</i><g><i n=\"3\"/></g></l>"));
  doc.initFileDoc("l");
  ASSERT_EQ(2u, tXPathExpr(doc, "//i").getNodeSet().size());
  EXPECT_EQ(nullptr, tXPathExpr(doc, "/l/none").getNode());
  EXPECT_EQ("37",
            tXPathExpr(doc, doc.getRootNodeChild("g"), "string(i/@n)").str() +
                tXPathExpr(doc, "string(l/@s)").str());
  messageOf<&tError_XPath_TypesMismatch>([&] { tXPathExpr(doc, "//i").str(); });
  messageOf<&tError_XPath_CantEvaluate>([&] { tXPathExpr(doc, "//[").str(); });
}

// The schema check runs the product's proxy tool, missing here.
TEST(DtdXsltTest, ValidationTransformationAndSchema) {
  TempDir dir;
  const std::string dtd = "<!ELEMENT l (i*)><!ELEMENT i (#PCDATA)>",
                    dtdFile = dir.path() + "/l.dtd", xsl = dir.path() + "/t",
                    doctype = "<!DOCTYPE l [" + dtd + "]>";
  writeFile(dtdFile, dtd);
  const tExternalDtdDoc external(dtdFile);
  const tXmlDocument good(std::string("<l><i/></l>")),
      bad(std::string("<l><bad/></l>")), badInside(doctype + "<l><bad/></l>");
  validateWithInternalDtd(tXmlDocument(doctype + "<l/>"));
  validateWithExternalDtd(good, external);
  EXPECT_THAT(messageOf<&InternalDtdValidationFailed>(
                  [&] { validateWithInternalDtd(badInside); }),
              MatchesRegex(".*its internal DTD. The errors are: .*bad.*"));
  messageOf<&ExternalDtdValidationFailed>(
      [&] { validateWithExternalDtd(bad, external); });
  messageOf<&InvalidDtdFile>([] { tExternalDtdDoc("/no.dtd"); });
  const std::string head =
      "<xsl:stylesheet version=\"1.0\" xmlns:xsl=\"http://www.w3.org/1999/XSL/"
      "Transform\"><xsl:param name=\"t\"/><xsl:template match=\"/l\">";
  writeFile(xsl, head +
                     "<o t=\"{$t}\"><xsl:value-of select=\"count(i)\"/>"
                     "</o></xsl:template></xsl:stylesheet>");
  EXPECT_EQ("<o t=\"x\">1</o>",
            bodyOf(apply_stylesheet(tXsltStylesheet(xsl), good, {{"t", "'x'"}})
                       .saveToString()));
  writeFile(xsl, head + "<xsl:message terminate=\"yes\">s</xsl:message>"
                        "</xsl:template></xsl:stylesheet>");
  messageOf<&tError_Xslt_ApplyStylesheetTerminated>(
      [&] { apply_stylesheet(tXsltStylesheet(xsl), good, {}); });
  writeFile(xsl, "<xsl:stylesheet");
  messageOf<&tError_XslParse_CanNotParseFile>([&] { tXsltStylesheet t(xsl); });
  EXPECT_THAT(
      messageOf<&ExecCmd::Failed>([] { validateSchema("/d.xml", "/s.xsd"); }),
      HasSubstr("/admin/sbin/libxml-proxy --validate-xml --xml-file=/d.xml "
                "--xsd-file=/s.xsd failed"));
}

}  // namespace
}  // namespace tovel
