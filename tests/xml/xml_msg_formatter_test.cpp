#include "xml/xml_msg_formatter.h"

#include <gtest/gtest.h>

#include "errors/tags.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

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

// The XML form of e, as put under a "message" root.
std::string formatted(const ExTraceable& e) {
  tXmlQvtDocument doc;
  doc.initNewDoc("message");
  XmlMsgFormatter formatter(doc, doc.getRoot());
  e.accept(formatter);
  return xml_test::bodyOf(doc.saveToString());
}

// A cause becomes a nested message; no source location or context shows.
TEST(XmlMsgFormatterTest, NestedCauseBecomesANestedMessage) {
  Exc<&SshConnectionFault> cause("ctx", "./file.cpp", 3);
  Exc<&CantRetrieveDump> outer(cause, "outer ctx", "./outer.cpp", 9);
  EXPECT_EQ("<message code=\"CantRetrieveDump\" id=\"" + outer.id() +
                "\" severity=\"error\"><description>Error during dump "
                "retrieval</description><message code=\"SshConnectionFault\" "
                "id=\"" +
                cause.id() +
                "\" severity=\"error\"><description>Lost connection with "
                "the remote host</description></message></message>",
            formatted(outer));
}

TEST(XmlMsgFormatterTest, SeverityFourIsAWarning) {
  WarningException warning;
  EXPECT_EQ("<message code=\"SomeWarning\" id=\"" + warning.id() +
                "\" severity=\"warning\"><description>careful</description>"
                "</message>",
            formatted(warning));
  tXmlQvtDocument doc;
  doc.initNewDoc("message");
  XmlMsgFormatter(doc, doc.getRoot()).setSeverity(5);
  EXPECT_EQ("<message severity=\"error\"/>",
            xml_test::bodyOf(doc.saveToString()));
}

}  // namespace
}  // namespace tovel
