// The XML rendering of an exception: fills a "message" element with the
// code, id and severity as attributes and the message as a "description"
// child; each nested cause becomes a "message" element inside the current
// one. The source location is not part of the XML form.
#ifndef FERROW_XML_XML_MSG_FORMATTER_H_
#define FERROW_XML_XML_MSG_FORMATTER_H_

#include <string>

#include "errors/ex_traceable.h"
#include "xml/xml_document.h"

namespace tovel {

class XmlMsgFormatter : public ExInfoVisitor {
 public:
  // Fills element of document; both must outlive the formatter.
  XmlMsgFormatter(tXmlQvtDocument& document, xmlNode* element);

  void setCode(const std::string& code) override;
  void setId(const std::string& id) override;
  void setMessage(const std::string& message) override;
  void setContext(const std::string&) override {}
  void setFile(const std::string&) override {}
  void setLine(int) override {}
  // Adds a "message" child to the current element and moves into it.
  void advanceToInnerException() override;
  // "warning" for 4, "error" for anything else.
  void setSeverity(int severity) override;

 private:
  tXmlQvtDocument& document_;
  xmlNode* current_;
};

}  // namespace tovel

#endif  // FERROW_XML_XML_MSG_FORMATTER_H_
