#include "xml/xml_msg_formatter.h"

#include <gtest/gtest.h>

#include "errors/tags.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

using xml_test::attr;
using xml_test::attributeCount;
using xml_test::elements;
using xml_test::nodeName;
using xml_test::text;

// An exception whose severity is a warning; the family itself never makes
// one.
class WarningException : public ExTraceable {
 public:
  WarningException() : ExTraceable("SomeWarning", "careful") {}
  WarningException* clone() const override {
    return new WarningException(*this);
  }
  void accept(ExInfoVisitor& visitor) const override {
    ExTraceable::accept(visitor);
    visitor.setSeverity(4);
  }
};

tXmlQvtDocument messageDoc() {
  tXmlQvtDocument doc;
  doc.initNewDoc("message");
  return doc;
}

TEST(XmlMsgFormatterTest, NestedCauseBecomesANestedMessage) {
  Exc<&SshConnectionFault> cause("ctx", "./file.cpp", 3);
  Exc<&CantRetrieveDump> outer(cause, "outer ctx", "./outer.cpp", 9);
  tXmlQvtDocument doc = messageDoc();
  XmlMsgFormatter formatter(doc, doc.getRoot());
  outer.accept(formatter);

  xmlNodePtr root = doc.getRoot();
  EXPECT_EQ(3, attributeCount(root));
  EXPECT_EQ("CantRetrieveDump", attr(root, "code"));
  EXPECT_EQ(outer.id(), attr(root, "id"));
  EXPECT_EQ("error", attr(root, "severity"));
  std::vector<xmlNodePtr> children = elements(root);
  ASSERT_EQ(2u, children.size());
  EXPECT_EQ("description", nodeName(children[0]));
  EXPECT_EQ("Error during dump retrieval", text(children[0]));
  xmlNodePtr inner = children[1];
  EXPECT_EQ("message", nodeName(inner));
  EXPECT_EQ("SshConnectionFault", attr(inner, "code"));
  EXPECT_EQ(cause.id(), attr(inner, "id"));
  EXPECT_EQ("error", attr(inner, "severity"));
  std::vector<xmlNodePtr> innerChildren = elements(inner);
  ASSERT_EQ(1u, innerChildren.size());
  EXPECT_EQ("description", nodeName(innerChildren[0]));
  EXPECT_EQ("Lost connection with the remote host", text(innerChildren[0]));
  // No source location in the XML form.
  std::string saved = doc.saveToString();
  EXPECT_EQ(std::string::npos, saved.find("file.cpp")) << saved;
  EXPECT_EQ(std::string::npos, saved.find("ctx")) << saved;
}

TEST(XmlMsgFormatterTest, SeverityFourIsAWarning) {
  tXmlQvtDocument doc = messageDoc();
  XmlMsgFormatter formatter(doc, doc.getRoot());
  WarningException().accept(formatter);
  EXPECT_EQ("warning", attr(doc.getRoot(), "severity"));
  EXPECT_EQ("careful", text(elements(doc.getRoot())[0]));

  formatter.setSeverity(5);
  EXPECT_EQ("error", attr(doc.getRoot(), "severity"));
}

}  // namespace
}  // namespace tovel
