#include "xml/xml_dtd_xslt.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>

#include "commons/dyr_conf.h"
#include "commons/exec_cmd.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_schema.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using ferrow_test::TempDir;
using ferrow_test::writeFile;
using xml_test::messageOf;

const char kDtd[] =
    "<!ELEMENT list (item*)>\n"
    "<!ELEMENT item (#PCDATA)>\n";

TEST(DtdTest, InternalDtdValidation) {
  tXmlDocument valid(std::string("<!DOCTYPE list [") + kDtd +
                     "]><list><item>a</item></list>");
  validateWithInternalDtd(valid);

  tXmlDocument invalid(std::string("<!DOCTYPE list [") + kDtd +
                       "]><list><bogus/></list>");
  std::string message = messageOf<&InternalDtdValidationFailed>(
      [&] { validateWithInternalDtd(invalid); });
  EXPECT_EQ(0u, message.find("Failed validation of the document with its "
                             "internal DTD. The errors are: "))
      << message;
  EXPECT_NE(std::string::npos, message.find("bogus")) << message;
}

TEST(DtdTest, ExternalDtdValidation) {
  TempDir dir;
  std::string dtdFile = dir.path() + "/list.dtd";
  writeFile(dtdFile, kDtd);
  tExternalDtdDoc dtd(dtdFile);
  validateWithExternalDtd(tXmlDocument(std::string("<list><item/></list>")),
                          dtd);

  tXmlDocument invalid(std::string("<list><bogus/></list>"));
  std::string message = messageOf<&ExternalDtdValidationFailed>(
      [&] { validateWithExternalDtd(invalid, dtd); });
  EXPECT_EQ(0u, message.find("Failed validation of the document with "
                             "external DTD " +
                             dtdFile + ". The errors are: "))
      << message;
  EXPECT_NE(std::string::npos, message.find("bogus")) << message;
  EXPECT_EQ('.', message.back());
}

TEST(DtdTest, UnreadableDtdIsInvalid) {
  TempDir dir;
  std::string missing = dir.path() + "/missing.dtd";
  EXPECT_EQ("The DTD file " + missing + " is invalid",
            messageOf<&InvalidDtdFile>([&] { tExternalDtdDoc dtd(missing); }));
}

const char kStylesheetHead[] =
    "<xsl:stylesheet version=\"1.0\" "
    "xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\">\n";

TEST(XsltTest, AppliesAStylesheetWithParameters) {
  TempDir dir;
  std::string xsl = dir.path() + "/t.xsl";
  writeFile(xsl, std::string(kStylesheetHead) +
                     "<xsl:param name=\"tag\"/>"
                     "<xsl:template match=\"/list\"><out tag=\"{$tag}\">"
                     "<xsl:value-of select=\"count(item)\"/></out>"
                     "</xsl:template></xsl:stylesheet>");
  tXsltStylesheet style(xsl);
  tXmlDocument source(std::string("<list><item/><item/></list>"));
  tXmlDocFromXslt result = apply_stylesheet(style, source, {{"tag", "'x'"}});
  ASSERT_NE(nullptr, result.getRoot());
  EXPECT_EQ("out", xml_test::nodeName(result.getRoot()));
  EXPECT_EQ("x", result.getAttribute(result.getRoot(), "tag"));
  EXPECT_EQ("2", result.getNodeText(result.getRoot()));
}

TEST(XsltTest, TerminationAndUnparsableStylesheets) {
  TempDir dir;
  std::string xsl = dir.path() + "/stop.xsl";
  writeFile(xsl, std::string(kStylesheetHead) +
                     "<xsl:template match=\"/\"><xsl:message "
                     "terminate=\"yes\">stop</xsl:message></xsl:template>"
                     "</xsl:stylesheet>");
  tXsltStylesheet stop(xsl);
  tXmlDocument source(std::string("<list/>"));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(
      "The translation of XML document was terminated by XSLT stylesheet. "
      "Check for the error reason and try again.",
      messageOf<&tError_Xslt_ApplyStylesheetTerminated>(
          [&] { apply_stylesheet(stop, source); }));

  std::string broken = dir.path() + "/broken.xsl";
  writeFile(broken, "<xsl:stylesheet");
  EXPECT_EQ("Can not parse XSLT file '" + broken + "'",
            messageOf<&tError_XslParse_CanNotParseFile>(
                [&] { tXsltStylesheet style(broken); }));
  ::testing::internal::GetCapturedStderr();
}

// A product root whose libxml proxy records its arguments and fails when
// the XML file's name contains "bad".
class FakeProxy {
 public:
  FakeProxy() {
    std::string sbin = dir_.path() + "/admin/sbin";
    boost::filesystem::create_directories(sbin);
    std::string proxy = sbin + "/libxml-proxy";
    writeFile(proxy,
              "#!/bin/sh\n"
              "for a in \"$@\"; do echo \"$a\"; done > " +
                  argsFile() +
                  "\n"
                  "case \"$2\" in *bad*) echo invalid >&2; exit 3;; esac\n");
    chmod(proxy.c_str(), 0755);
    writeFile(conf(), "PRODUCT_ROOT_D " + dir_.path() + "\n");
    dyrConfResetForTesting(conf().c_str());
  }
  ~FakeProxy() { dyrConfResetForTesting(nullptr); }

  std::string argsFile() const { return dir_.path() + "/args"; }

 private:
  std::string conf() const { return dir_.path() + "/dyr.conf"; }
  TempDir dir_;
};

TEST(SchemaTest, RunsTheProxyWithTheThreeArguments) {
  FakeProxy proxy;
  validateSchema("/x/doc.xml", "/x/s.xsd");
  EXPECT_EQ("--validate-xml\n--xml-file=/x/doc.xml\n--xsd-file=/x/s.xsd\n",
            ferrow_test::readFile(proxy.argsFile()));

  try {
    validateSchema("/x/bad.xml", "/x/s.xsd");
    FAIL() << "nothing thrown";
  } catch (const ExecCmd::ExFailed& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("invalid"))
        << e.what();
  }
}

}  // namespace
}  // namespace tovel
