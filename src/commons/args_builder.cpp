#include "commons/args_builder.h"

#include "commons/sh_quote.h"

namespace tovel {

ArgsBuilder& ArgsBuilder::operator<<(const std::string& word) {
  if (words_ > 0) line_ += ' ';
  line_ += sh_quote(word);
  ++words_;
  return *this;
}

}  // namespace tovel
