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
#include <regex>

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
using testing::StartsWith;
using testing_util::messageOf;

#define R "\xEF\xBF\xBD"  // U+FFFD

// The XML text without its declaration and the indentation between tags.
std::string bodyOf(const std::string& text) {
  std::string body = std::regex_replace(text, std::regex(">\\s+<"), "><");
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
  for (const char* text :
       {"\t\n\r ~\x7f", "\xc2\x80\xdf\xbf", "\xe0\xa0\x80\xed\x9f\xbf",
        "\xee\x80\x80\xef\xbf\xbd", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(text, asXmlText(text));
  }
  const struct {
    const char *in, *out;
  } replaced[] = {
      {"\x01\x1f\x80", R R R},    {"\xc1\xbf", R R},
      {"\xe0\x9f\xbf", R R R},    {"\xed\xa0\x80\xed\xbf\xbf", R R R R R R},
      {"\xef\xbf\xbe", R R R},    {"\xef\xbf\xbf", R R R},
      {"\xf0\x8f\xbf\xbf", R R R R}, {"\xf4\x90\x80\x80", R R R R},
      {"\xf5\x80\x80\x80", R R R R}, {"\xe2\x82", R R},
      {"\xe2(\xa1", R "(" R},
  };
  for (const auto& c : replaced) EXPECT_EQ(c.out, asXmlText(c.in)) << c.in;
}

// One status object through every state; what a state left behind shows
// only where the format says so (the deploy counts on the root). Outside
// text is made safe; no element carries the pid.
TEST(MigrationStatusTest, EachStateWritesItsDocument) {
  ferrow_test::ensurePanelAccount();
  TempDir dir;
  std::unique_ptr<MigrationStatus> s = createMigrationStatusFile();
  EXPECT_EQ("Assertion failed: theSession != NULL",
            messageOf<&AssertionFailed>([&] { s->saveFile(); }));
  SessionLifetimeController session(dir.path() + "/s");
  auto check = [&](const std::string& content, const std::string& root = "") {
    s->saveFile();
    EXPECT_EQ("<migration-status" + root +
                  (content.empty() ? "/>" : ">" + content + "</migration-status>"),
              bodyOf(readFile(theSession->getStatusFileName())));
  };
  check("<idle/>");
  s->setAgentParams("h\x01");
  s->setAgentOperation(MigrationStatus::deploy);
  check("<agent action=\"deploy\"><host>h" R "</host></agent>");
  s->setAgentOperation(MigrationStatus::wait);
  check("<agent action=\"wait\"><host>h" R "</host></agent>");
  s->setTransferDump();
  check("<transfer><host>h" R "</host><dumpfile/></transfer>");
  s->setTransferSpeed("5\x1b");
  const std::string transfer = "<transfer speed=\"5" R "\"><host>h" R "</host>";
  s->setTransferTotals("10", "2048");
  check(transfer + "<files total=\"10\" left=\"10\" size-total=\"2048\" "
                   "size-left=\"2048\"/></transfer>");
  s->setTransferFilesLeft("9");
  s->setTransferSizeLeft("1000");
  s->setCurrentFile("a.tgz", "300");
  s->setTransferCurrentFileSizeLeft("120");
  check(transfer + "<files total=\"10\" left=\"9\" size-total=\"2048\" "
                   "size-left=\"1000\"><current-file size=\"300\" size-left="
                   "\"120\">a.tgz</current-file></files></transfer>");
  s->setTransferTotals("3", "");  // sizes show only when both are known
  s->setTransferSizeLeft("5");
  s->setCurrentFile("b.tgz", "");
  check(transfer + "<files total=\"3\" left=\"3\"><current-file>b.tgz"
                   "</current-file></files></transfer>");
  s->setTranslate();
  check("<translate/>");
  s->setDeployTotals("4", "7");
  const std::string totals = " total-accounts=\"4\" total-domains=\"7\"";
  check("", totals + " completed-accounts=\"\" completed-domains=\"\"");
  s->setDeploy("1", "2");
  s->setCurrentObject("example.com", MigrationStatus::domain);
  const std::string counts =
      totals + " completed-accounts=\"1\" completed-domains=\"2\"";
  check("<current-object type=\"domain\">example.com</current-object>", counts);
  s->setCurrentObject("jdoe", MigrationStatus::account);
  check("<current-object type=\"account\">jdoe</current-object>", counts);
  s->setIdle();
  check("<idle/>", counts);
}

// The file is the panel's, holds what a plain save writes whether it is
// made or replaced, and nothing stays beside it. A reader that opened it
// before a save still reads the whole old document.
TEST(AtomicSaveTest, WritesACompleteFileForThePanel) {
  ferrow_test::ensurePanelAccount();
  TempDir dir;
  tXmlQvtDocument doc = newDoc("migration-status");
  xmlNodePtr host = doc.newTextChild(doc.getRoot(), "host", "h\xC3\xA9<&>");
  const std::string plain = dir.path() + "/plain", target = dir.path() + "/s";
  doc.saveToFile(plain);
  doc.saveToFileAtomically(target);
  EXPECT_EQ(readFile(plain), readFile(target));
  std::ifstream before(target);
  doc.addAttribute(host, "a", "1");
  doc.saveToFile(plain);
  doc.saveToFileAtomically(target);
  EXPECT_EQ(readFile(plain), readFile(target));
  std::stringstream old;
  old << before.rdbuf();
  EXPECT_EQ("<migration-status><host>h\xC3\xA9&lt;&amp;&gt;</host>"
            "</migration-status>", bodyOf(old.str()));
  const passwd* panel = getpwnam("dyradm");
  EXPECT_EQ("f " + std::to_string(panel->pw_uid) + ":" +
                std::to_string(panel->pw_gid) + " 0640",
            testing_util::describe(target));
  XmlNode(host).saveToFileAtomically(target);
  EXPECT_EQ("<host a=\"1\">h\xC3\xA9&lt;&amp;&gt;</host>", bodyOf(readFile(target)));
  EXPECT_EQ(2, std::distance(boost::filesystem::directory_iterator(dir.path()),
                             boost::filesystem::directory_iterator()));
}

// No temporary file in a missing directory; a directory cannot be replaced
// by a file; a write that fails (here past the file size limit) keeps the
// old document.
TEST(AtomicSaveTest, FailuresNameTheFilesAndKeepTheTarget) {
  TempDir dir;
  tXmlQvtDocument doc = newDoc("r");
  doc.newTextChild(doc.getRoot(), "h", std::string(100000, 'h'));
  const std::string gone = dir.path() + "/gone/s", target = dir.path() + "/s";
  try {
    doc.saveToFileAtomically(gone);
    ADD_FAILURE() << "nothing thrown";
  } catch (const Exc<&tError_SaveFile>& e) {
    EXPECT_EQ("Can not save the XML document to file '" + gone + "'",
              std::string(e.what()));
    EXPECT_EQ("CantCreateTempFile", e.inner() ? e.inner()->code() : "");
  }
  boost::filesystem::create_directories(target + "/inside");
  std::string message =
      messageOf<&CantRenameFile>([&] { doc.saveToFileAtomically(target); });
  EXPECT_THAT(message, StartsWith("Cannot rename " + target));
  EXPECT_THAT(message, testing::EndsWith(" to " + target + ": Is a directory"));
  boost::filesystem::remove_all(target);
  writeFile(target, "old");
  rlimit saved, small;
  getrlimit(RLIMIT_FSIZE, &saved);
  small = saved;
  small.rlim_cur = 4096;
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  message = messageOf<&tError_SaveFile>([&] { doc.saveToFileAtomically(target); });
  setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_THAT(message, StartsWith("Can not save the XML document to file '" + target));
  EXPECT_EQ("old", readFile(target));
}

// Names are joined to directories unchecked and sizes feed signed counters:
// either kind of hostile value fails the whole list.
TEST(ContentListTest, HostileNamesAndSizesAreRefused) {
  std::unique_ptr<AgentFileList> list = getFileList(
      "<contentlist size=\"9000000000\" unpacked=\"12\"><file size=\"10\" "
      "md5sum=\"abc\">a/one.tgz</file><note/><file size=\"9223372036854775807\">"
      "..a/.../b..</file></contentlist>");
  EXPECT_EQ(9000000000 + 12, list->getTotalSize() + list->getUnpackedSize());
  std::string files;
  for (const DumpFile& file : list->getFileList()) {
    files += file.name + " " + file.md5sum + "|";
  }
  EXPECT_EQ("a/one.tgz abc|..a/.../b.. |", files);
  for (const char* name : {"../x", "a/../../x", "..", "a/..", "/etc/x", ""}) {
    EXPECT_EQ("The content list names the file '" + std::string(name) +
                  "': a name must be relative and must not contain '..'.",
              messageOf<&tError_WrongContent>([&] {
                getFileList("<contentlist><file>ok</file><file>" +
                            std::string(name) + "</file></contentlist>")
                    ->getFileList();
              }));
  }
  for (const std::string size : {"9223372036854775808", "18446744073709551615",
                                 "1e9", " 5", "0x10", "12k", "", "-1"}) {
    list = getFileList("<contentlist size=\"" + size + "\" unpacked=\"" + size +
                       "\"><file size=\"" + size + "\">a</file></contentlist>");
    const std::string invalid = "' is not a valid number: '" + size + "'.";
    EXPECT_EQ("Attribute 'size' of element 'file" + invalid,
              messageOf<&tError_WrongContent>([&] { list->getFileList(); }));
    EXPECT_EQ("Attribute 'size' of element 'contentlist" + invalid,
              messageOf<&tError_WrongContent>([&] { list->getTotalSize(); }));
    EXPECT_EQ("Attribute 'unpacked' of element 'contentlist" + invalid,
              messageOf<&tError_WrongContent>([&] { list->getUnpackedSize(); }));
  }
  EXPECT_EQ("Node contentlist does not have attribute size",
            messageOf<&NoSuchAttribute>(
                [] { getFileList("<contentlist/>")->getTotalSize(); }));
  EXPECT_EQ("The document has the wrong type, root node is <agentstatus>, but "
            "<contentlist> was expected",
            messageOf<&tError_WrongDoc>([] { getFileList("<agentstatus/>"); }));
  EXPECT_EQ("Assertion failed: content.size()",
            messageOf<&AssertionFailed>([] { getFileList(""); }));
}

// Parser messages go into the error, not to standard error; "-" is standard
// input, other names must be regular files.
TEST(XmlDocumentTest, ReadingFailuresAreNamed) {
  TempDir dir;
  const std::string file = dir.path() + "/in.xml";
  writeFile(file, "<agentstatus><x>1</x><statusfile>/a/s</statusfile>"
                  "</agentstatus>");
  testing::internal::CaptureStderr();
  std::string malformed = messageOf<&tError_ParseFile>(
      [] { tXmlDocument doc(std::string("<a><b></a>")); });
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_THAT(malformed, StartsWith("The XML file in-memory buffer was not "
                                    "parsed successfully with the following "
                                    "errors:\n"));
  EXPECT_THAT(malformed, HasSubstr("mismatch"));
  int saved = dup(0), fd = open(file.c_str(), O_RDONLY);
  dup2(fd, 0);
  tXmlQvtDocument stdinDoc("-");
  dup2(saved, 0);
  close(saved);
  close(fd);
  EXPECT_EQ("/a/s", XmlAgentDeploymentStatusDocument(file)
                        .getAgentDeploymentStatusFileName());
  EXPECT_EQ("Can not find 'statusfile' element in 'r' element.",
            messageOf<&tError_WrongContent>([&] {
              tXmlQvtDocument r(std::string("<r><x/></r>"));
              r.initFileDoc("r");
              r.getRootNodeChild("statusfile");
            }));
  for (const std::string& bad : {dir.path() + "/missing", dir.path()}) {
    EXPECT_EQ("The XML file does not exist or is not a regular file. Check "
              "the file '" + bad + "'",
              messageOf<&tError_WrongInputFile>(
                  [&] { tXmlDocument doc{boost::filesystem::path(bad)}; }));
  }
  EXPECT_EQ("The document is empty. Can not find root element <r>",
            messageOf<&tError_EmptyDoc>([] { tXmlQvtDocument().initFileDoc("r"); }));
  stdinDoc.initFileDoc("agentstatus");
  xmlNodePtr x = stdinDoc.getRootNodeChild("x");
  EXPECT_EQ("Node x does not have attribute md5sum",
            messageOf<&NoSuchAttribute>([&] { stdinDoc.getAttribute(x, "md5sum"); }));
  EXPECT_EQ(stdinDoc.getRoot(), XmlNode(x).getParent().getNode());
  EXPECT_EQ("No parent node on requested XML element",
            messageOf<&NoParentNode>([&] { XmlNode(stdinDoc.getRoot()).getParent(); }));
}

// A text child without a parent adds nothing (the status file's pid relies
// on it); an attribute set twice keeps the second value; copies share the
// document; a failed save logs the library's reason.
TEST(XmlDocumentTest, BuildingAndSaving) {
  std::unique_ptr<tXmlQvtDocument> original(new tXmlQvtDocument(newDoc("root")));
  tXmlQvtDocument doc(*original);
  original.reset();
  doc.addAttribute(doc.getRoot(), "speed", "1");
  doc.addAttribute(doc.getRoot(), "speed", "2");
  doc.newChild(doc.getRoot(), "empty");
  EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "42"));
  EXPECT_EQ("t&1", doc.getNodeText(doc.newTextChild(doc.getRoot(), "t", "t&1")));
  EXPECT_EQ("<root speed=\"2\"><empty/><t>t&amp;1</t></root>",
            bodyOf(doc.saveToString()));
  EXPECT_EQ("#0002: Can not create new node",
            messageOf<&tError_XmlInternal>([&] { doc.newChild(nullptr, "x"); }));
  testing_util::HostLogCapture log;
  EXPECT_EQ("Can not save the XML document to file '/no/out.xml'",
            messageOf<&tError_SaveFile>([&] { doc.saveToFile("/no/out.xml"); }));
  EXPECT_THAT(log.lines_, testing::ElementsAre(HasSubstr(strerror(ENOENT))));
  std::unique_ptr<AgentsList> agents = createAgentsListFile();
  agents->addAgent("sample", "Agent <X>");
  testing::internal::CaptureStdout();
  agents->saveDocToStdout();
  EXPECT_EQ("<agents-list><agent><name>sample</name><description>Agent &lt;X&gt;"
            "</description></agent></agents-list>",
            bodyOf(testing::internal::GetCapturedStdout()));
}

// A cause becomes a nested message; severity 4 alone is a warning.
TEST(XmlMsgFormatterTest, NestedCauseAndSeverity) {
  Exc<&SshConnectionFault> cause("ctx", "./file.cpp", 3);
  Exc<&CantRetrieveDump> outer(cause, "outer ctx", "./outer.cpp", 9);
  tXmlQvtDocument doc = newDoc("message");
  XmlMsgFormatter formatter(doc, doc.getRoot());
  outer.accept(formatter);
  EXPECT_EQ("<message code=\"CantRetrieveDump\" id=\"" + outer.id() +
                "\" severity=\"error\"><description>Error during dump "
                "retrieval</description><message code=\"SshConnectionFault\" "
                "id=\"" + cause.id() + "\" severity=\"error\"><description>"
                "Lost connection with the remote host</description></message>"
                "</message>",
            bodyOf(doc.saveToString()));
  tXmlQvtDocument warning = newDoc("m");
  XmlMsgFormatter(warning, warning.getRoot()).setSeverity(4);
  EXPECT_EQ("<m severity=\"warning\"/>", bodyOf(warning.saveToString()));
}

TEST(XPathTest, NodeSetsStringsAndFailures) {
  tXmlQvtDocument doc(std::string("<list size=\"7\"><item>a</item><other/>"
                                  "<g><item n=\"3\">c</item></g></list>"));
  doc.initFileDoc("list");
  tXPathExpr all(doc, "//item");
  ASSERT_EQ(2u, all.getNodeSet().size());
  EXPECT_EQ("c", doc.getNodeText(all.getNodeSet()[1]));
  EXPECT_EQ(all.getNodeSet()[0], all.getNode());
  EXPECT_EQ(nullptr, tXPathExpr(doc, "/list/missing").getNode());
  EXPECT_EQ("3", tXPathExpr(doc, doc.getRootNodeChild("g"), "string(item/@n)").str());
  EXPECT_EQ("7", tXPathExpr(doc, "string(list/@size)").str());
  testing::internal::CaptureStderr();
  EXPECT_EQ("The XML document is invalid for XPath exception.\nCan not evaluate "
            "result of expression '//item['",
            messageOf<&tError_XPath_CantEvaluate>(
                [&] { tXPathExpr(doc, "//item[").getNodeSet(); }));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ("The result of expression 'count(//item)' is not a 'nodeset' type",
            messageOf<&tError_XPath_TypesMismatch>(
                [&] { tXPathExpr(doc, "count(//item)").getNode(); }));
  EXPECT_EQ("The result of expression '//item' is not a 'string' type",
            messageOf<&tError_XPath_TypesMismatch>(
                [&] { tXPathExpr(doc, "//item").str(); }));
}

// Validation failures name the DTD and the fault; a stylesheet applies with
// its parameters or stops; the schema proxy of the product gets three
// arguments and its failure is the command's.
TEST(DtdXsltTest, ValidationTransformationAndSchema) {
  TempDir dir;
  const std::string dtd = "<!ELEMENT list (item*)><!ELEMENT item (#PCDATA)>";
  const std::string dtdFile = dir.path() + "/l.dtd", xsl = dir.path() + "/t.xsl";
  writeFile(dtdFile, dtd);
  tExternalDtdDoc external(dtdFile);
  const std::string doctype = "<!DOCTYPE list [" + dtd + "]>";
  validateWithInternalDtd(tXmlDocument(doctype + "<list><item>a</item></list>"));
  validateWithExternalDtd(tXmlDocument(std::string("<list><item/></list>")), external);
  EXPECT_THAT(messageOf<&InternalDtdValidationFailed>([&] {
                validateWithInternalDtd(tXmlDocument(doctype + "<list><bogus/></list>"));
              }),
              testing::MatchesRegex("Failed validation of the document with "
                                    "its internal DTD. The errors are: .*bogus.*"));
  EXPECT_THAT(messageOf<&ExternalDtdValidationFailed>([&] {
                validateWithExternalDtd(
                    tXmlDocument(std::string("<list><bogus/></list>")), external);
              }),
              testing::MatchesRegex("Failed validation of the document with "
                                    "external DTD " + dtdFile +
                                    ". The errors are: .*bogus.*\\."));
  EXPECT_EQ("The DTD file /no.dtd is invalid",
            messageOf<&InvalidDtdFile>([] { tExternalDtdDoc("/no.dtd"); }));

  const std::string head =
      "<xsl:stylesheet version=\"1.0\" "
      "xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\"><xsl:param name=\"t\"/>"
      "<xsl:template match=\"/list\">";
  writeFile(xsl, head + "<out t=\"{$t}\"><xsl:value-of select=\"count(item)\"/>"
                        "</out></xsl:template></xsl:stylesheet>");
  tXmlDocument source(std::string("<list><item/><item/></list>"));
  EXPECT_EQ("<out t=\"x\">2</out>",
            bodyOf(apply_stylesheet(tXsltStylesheet(xsl), source, {{"t", "'x'"}})
                       .saveToString()));
  writeFile(xsl, head + "<xsl:message terminate=\"yes\">stop</xsl:message>"
                        "</xsl:template></xsl:stylesheet>");
  EXPECT_EQ("The translation of XML document was terminated by XSLT stylesheet. "
            "Check for the error reason and try again.",
            messageOf<&tError_Xslt_ApplyStylesheetTerminated>(
                [&] { apply_stylesheet(tXsltStylesheet(xsl), source); }));
  writeFile(xsl, "<xsl:stylesheet");
  EXPECT_EQ("Can not parse XSLT file '" + xsl + "'",
            messageOf<&tError_XslParse_CanNotParseFile>(
                [&] { tXsltStylesheet style(xsl); }));

  testing_util::ScratchConf conf;
  conf.write("PRODUCT_ROOT_D " + dir.path() + "\n");
  boost::filesystem::create_directories(dir.path() + "/admin/sbin");
  writeFile(dir.path() + "/admin/sbin/libxml-proxy",
            "#!/bin/sh\necho \"$@\" >&2\nexit 3\n");
  chmod((dir.path() + "/admin/sbin/libxml-proxy").c_str(), 0755);
  EXPECT_THAT(messageOf<&ExecCmd::Failed>([] { validateSchema("/d.xml", "/s.xsd"); }),
              HasSubstr("\nStderr is\n--validate-xml --xml-file=/d.xml "
                        "--xsd-file=/s.xsd\n"));
}

}  // namespace
}  // namespace tovel
