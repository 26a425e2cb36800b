// The plain-text rendering of an exception, for standard error and the
// debug log. One block per level of nesting:
//   code[id]: message [file:line]
//   context
// levels joined by "\nInner exception:\n"; no trailing line break.
#ifndef FERROW_ERRORS_TEXT_MSG_FORMATTER_H_
#define FERROW_ERRORS_TEXT_MSG_FORMATTER_H_

#include <string>

#include "errors/ex_traceable.h"

namespace tovel {

class TextMsgFormatter : public ExInfoVisitor {
 public:
  void setCode(const std::string& code) override { code_ = code; }
  void setId(const std::string& id) override { id_ = id; }
  void setMessage(const std::string& message) override { message_ = message; }
  void setContext(const std::string& context) override { context_ = context; }
  void setFile(const std::string& file) override { file_ = file; }
  void setLine(int line) override { line_ = line; }
  void advanceToInnerException() override;

  // The text so far, with the current level's block appended.
  std::string getText() const;

 private:
  std::string renderBlock() const;

  std::string code_, id_, message_, context_, file_;
  int line_ = 0;
  std::string result_;
};

std::string formatPlainTextMessage(const ExTraceable& e);

}  // namespace tovel

#endif  // FERROW_ERRORS_TEXT_MSG_FORMATTER_H_
