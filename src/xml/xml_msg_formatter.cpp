#include "xml/xml_msg_formatter.h"

namespace tovel {

namespace {
const int kWarningSeverity = 4;
}  // namespace

XmlMsgFormatter::XmlMsgFormatter(tXmlQvtDocument& document, xmlNode* element)
    : document_(document), current_(element) {}

void XmlMsgFormatter::setCode(const std::string& code) {
  document_.addAttribute(current_, "code", code);
}

void XmlMsgFormatter::setId(const std::string& id) {
  document_.addAttribute(current_, "id", id);
}

void XmlMsgFormatter::setMessage(const std::string& message) {
  document_.newTextChild(current_, "description", message);
}

void XmlMsgFormatter::advanceToInnerException() {
  current_ = document_.newChild(current_, "message");
}

void XmlMsgFormatter::setSeverity(int severity) {
  document_.addAttribute(current_, "severity",
                         severity == kWarningSeverity ? "warning" : "error");
}

}  // namespace tovel
