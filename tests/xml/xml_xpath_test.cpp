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

// Collects the text of each node it is applied to.
class CollectText : public tXmlOperator {
 public:
  explicit CollectText(const tXmlQvtDocument& doc) : doc_(doc) {}
  void operator()(xmlNodePtr node) override { seen += doc_.getNodeText(node); }
  std::string seen;

 private:
  const tXmlQvtDocument& doc_;
};

TEST(XPathTest, NodeSetsInDocumentOrderAndRelativeExpressions) {
  tXmlQvtDocument doc = sampleDoc();
  tXPathExpr all(doc, "//item");
  std::vector<xmlNodePtr> nodes = all.getNodeSet();
  ASSERT_EQ(3u, nodes.size());
  EXPECT_EQ(nodes[0], all.getNode());
  CollectText collect(doc);
  all.forEachNode(collect);
  EXPECT_EQ("abc", collect.seen);
  EXPECT_EQ(nullptr, tXPathExpr(doc, "/list/missing").getNode());
  EXPECT_TRUE(tXPathExpr(doc, "/list/missing").getNodeSet().empty());

  xmlNodePtr group = doc.getRootNodeChild("group");
  EXPECT_EQ("3", tXPathExpr(doc, group, "string(item/@n)").str());
  EXPECT_EQ("7", tXPathExpr(doc, "string(list/@size)").str());
}

TEST(XPathTest, FailuresNameTheExpression) {
  tXmlQvtDocument doc = sampleDoc();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(
      "The XML document is invalid for XPath exception.\nCan not evaluate "
      "result of expression '//item['",
      messageOf<&tError_XPath_CantEvaluate>(
          [&] { tXPathExpr(doc, "//item[").getNodeSet(); }));
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  EXPECT_EQ("The result of expression 'count(//item)' is not a 'nodeset' type",
            messageOf<&tError_XPath_TypesMismatch>(
                [&] { tXPathExpr(doc, "count(//item)").getNodeSet(); }));
  EXPECT_EQ("The result of expression '//item' is not a 'string' type",
            messageOf<&tError_XPath_TypesMismatch>(
                [&] { tXPathExpr(doc, "//item").str(); }));
}

}  // namespace
}  // namespace tovel
