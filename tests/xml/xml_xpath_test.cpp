#include "xml/xml_xpath.h"

#include <gtest/gtest.h>

#include "errors/tags.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using xml_test::messageOf;

tXmlQvtDocument sampleDoc() {
  tXmlQvtDocument doc(std::string(
      "<list size=\"7\"><item n=\"1\">a</item><other/>"
      "<item n=\"2\">b</item><group><item n=\"3\">c</item></group></list>"));
  doc.initFileDoc("list");
  return doc;
}

// Collects the "n" attribute of each node it is applied to.
class CollectN : public tXmlOperator {
 public:
  void operator()(xmlNodePtr node) override {
    seen += xml_test::attr(node, "n");
  }
  std::string seen;
};

TEST(XPathTest, NodeSetsComeInDocumentOrder) {
  tXmlQvtDocument doc = sampleDoc();
  tXPathExpr all(doc, "//item");
  std::vector<xmlNodePtr> nodes = all.getNodeSet();
  ASSERT_EQ(3u, nodes.size());
  EXPECT_EQ("a", xml_test::text(nodes[0]));
  EXPECT_EQ("c", xml_test::text(nodes[2]));
  EXPECT_EQ(nodes[0], all.getNode());
  CollectN collect;
  all.forEachNode(collect);
  EXPECT_EQ("123", collect.seen);

  EXPECT_EQ(nullptr, tXPathExpr(doc, "/list/missing").getNode());
  EXPECT_TRUE(tXPathExpr(doc, "/list/missing").getNodeSet().empty());
}

TEST(XPathTest, ExpressionsRelativeToANode) {
  tXmlQvtDocument doc = sampleDoc();
  xmlNodePtr group = doc.getRootNodeChild("group");
  EXPECT_EQ("3", tXPathExpr(doc, group, "string(item/@n)").str());
  EXPECT_EQ("7", tXPathExpr(doc, "string(list/@size)").str());
}

TEST(XPathTest, UnevaluableExpressionIsReportedWithIt) {
  tXmlQvtDocument doc = sampleDoc();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(
      "The XML document is invalid for XPath exception.\nCan not evaluate "
      "result of expression '//item['",
      messageOf<&tError_XPath_CantEvaluate>(
          [&] { tXPathExpr(doc, "//item[").getNodeSet(); }));
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
}

TEST(XPathTest, ResultOfAnotherTypeIsAMismatch) {
  tXmlQvtDocument doc = sampleDoc();
  EXPECT_EQ("The result of expression 'count(//item)' is not a 'nodeset' type",
            messageOf<&tError_XPath_TypesMismatch>(
                [&] { tXPathExpr(doc, "count(//item)").getNodeSet(); }));
  EXPECT_EQ("The result of expression '//item' is not a 'string' type",
            messageOf<&tError_XPath_TypesMismatch>(
                [&] { tXPathExpr(doc, "//item").str(); }));
}

TEST(XPathTest, NeedsADocument) {
  tXmlQvtDocument none;
  EXPECT_EQ("Assertion failed: xpathCtx_.get() != NULL",
            messageOf<&AssertionFailed>([&] { tXPathExpr(none, "/"); }));
}

}  // namespace
}  // namespace tovel
