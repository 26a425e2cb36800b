#include "errors/text_msg_formatter.h"

#include <boost/format.hpp>

namespace tovel {

std::string TextMsgFormatter::renderBlock() const {
  return (boost::format("%1%[%2%]: %3% [%4%:%5%]\n%6%") % code_ % id_ %
          message_ % file_ % line_ % context_)
      .str();
}

void TextMsgFormatter::advanceToInnerException() {
  result_ += renderBlock();
  result_ += "\nInner exception:\n";
}

std::string TextMsgFormatter::getText() const {
  return result_ + renderBlock();
}

std::string formatPlainTextMessage(const ExTraceable& e) {
  TextMsgFormatter formatter;
  e.accept(formatter);
  return formatter.getText();
}

}  // namespace tovel
