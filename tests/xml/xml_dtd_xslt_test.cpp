#include "xml/xml_dtd_xslt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>

#include "commons/exec_cmd.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_schema.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using ferrow_test::TempDir;
using ferrow_test::writeFile;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using xml_test::messageOf;

const char kDtd[] =
    "<!ELEMENT list (item*)>\n"
    "<!ELEMENT item (#PCDATA)>\n";

TEST(DtdTest, ValidationFailuresNameTheDtdAndTheFault) {
  const std::string doctype = std::string("<!DOCTYPE list [") + kDtd + "]>";
  validateWithInternalDtd(
      tXmlDocument(doctype + "<list><item>a</item></list>"));
  std::string internal = messageOf<&InternalDtdValidationFailed>([&] {
    validateWithInternalDtd(tXmlDocument(doctype + "<list><bogus/></list>"));
  });
  EXPECT_THAT(internal, StartsWith("Failed validation of the document with its "
                                   "internal DTD. The errors are: "));
  EXPECT_THAT(internal, HasSubstr("bogus"));

  TempDir dir;
  std::string dtdFile = dir.path() + "/list.dtd";
  writeFile(dtdFile, kDtd);
  tExternalDtdDoc dtd(dtdFile);
  validateWithExternalDtd(tXmlDocument(std::string("<list><item/></list>")),
                          dtd);
  std::string external = messageOf<&ExternalDtdValidationFailed>([&] {
    validateWithExternalDtd(tXmlDocument(std::string("<list><bogus/></list>")),
                            dtd);
  });
  EXPECT_THAT(external, StartsWith("Failed validation of the document with "
                                   "external DTD " +
                                   dtdFile + ". The errors are: "));
  EXPECT_THAT(external, HasSubstr("bogus"));
  EXPECT_THAT(external, EndsWith("."));
  EXPECT_EQ("The DTD file " + dir.path() + "/missing.dtd is invalid",
            messageOf<&InvalidDtdFile>(
                [&] { tExternalDtdDoc missing(dir.path() + "/missing.dtd"); }));
}

const char kStylesheetHead[] =
    "<xsl:stylesheet version=\"1.0\" "
    "xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\">\n";

TEST(XsltTest, StylesheetsApplyWithParametersOrFail) {
  TempDir dir;
  std::string xsl = dir.path() + "/t.xsl";
  writeFile(xsl, std::string(kStylesheetHead) +
                     "<xsl:param name=\"tag\"/>"
                     "<xsl:template match=\"/list\"><out tag=\"{$tag}\">"
                     "<xsl:value-of select=\"count(item)\"/></out>"
                     "</xsl:template></xsl:stylesheet>");
  tXsltStylesheet style(xsl);
  tXmlDocument source(std::string("<list><item/><item/></list>"));
  EXPECT_EQ(
      "<out tag=\"x\">2</out>",
      xml_test::bodyOf(
          apply_stylesheet(style, source, {{"tag", "'x'"}}).saveToString()));

  writeFile(xsl, std::string(kStylesheetHead) +
                     "<xsl:template match=\"/\"><xsl:message "
                     "terminate=\"yes\">stop</xsl:message></xsl:template>"
                     "</xsl:stylesheet>");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(
      "The translation of XML document was terminated by XSLT stylesheet. "
      "Check for the error reason and try again.",
      messageOf<&tError_Xslt_ApplyStylesheetTerminated>(
          [&] { apply_stylesheet(tXsltStylesheet(xsl), source); }));
  writeFile(xsl, "<xsl:stylesheet");
  EXPECT_EQ("Can not parse XSLT file '" + xsl + "'",
            messageOf<&tError_XslParse_CanNotParseFile>(
                [&] { tXsltStylesheet style(xsl); }));
  ::testing::internal::GetCapturedStderr();
}

// The proxy of a scratch product root records its arguments and fails
// when the XML file's name contains "bad".
TEST(SchemaTest, RunsTheProxyWithTheThreeArguments) {
  TempDir product;
  testing_util::ScratchConf conf;
  conf.write("PRODUCT_ROOT_D " + product.path() + "\n");
  std::string proxy = product.path() + "/admin/sbin/libxml-proxy";
  boost::filesystem::create_directories(product.path() + "/admin/sbin");
  writeFile(proxy,
            "#!/bin/sh\nfor a; do echo \"$a\"; done > " + product.path() +
                "/args\ncase \"$2\" in *bad*) echo invalid >&2; exit 3;; "
                "esac\n");
  chmod(proxy.c_str(), 0755);

  validateSchema("/x/doc.xml", "/x/s.xsd");
  EXPECT_EQ("--validate-xml\n--xml-file=/x/doc.xml\n--xsd-file=/x/s.xsd\n",
            ferrow_test::readFile(product.path() + "/args"));
  EXPECT_THAT(messageOf<&ExecCmd::Failed>(
                  [] { validateSchema("/x/bad.xml", "/x/s.xsd"); }),
              HasSubstr("invalid"));
}

}  // namespace
}  // namespace tovel
