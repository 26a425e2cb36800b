// A shell command line built from words, for commands run on the source
// host.
#ifndef FERROW_COMMONS_ARGS_BUILDER_H_
#define FERROW_COMMONS_ARGS_BUILDER_H_

#include <string>

namespace tovel {

// Each word goes through sh_quote; words are joined by one blank. An empty
// word adds nothing but its separating blank.
class ArgsBuilder {
 public:
  ArgsBuilder() = default;
  explicit ArgsBuilder(const std::string& word) { *this << word; }

  // Appends one word.
  ArgsBuilder& operator<<(const std::string& word);

  // The command line so far.
  std::string str() const { return line_; }
  // Number of words appended.
  size_t size() const { return words_; }

 private:
  std::string line_;
  size_t words_ = 0;
};

}  // namespace tovel

#endif  // FERROW_COMMONS_ARGS_BUILDER_H_
