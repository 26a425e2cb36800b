// The argument vector of a local program: owned C strings, argument 0
// first, ready for execvp.
#ifndef FERROW_COMMONS_ARG_LIST_H_
#define FERROW_COMMONS_ARG_LIST_H_

#include <string>
#include <vector>

namespace tovel {

class ArgList {
 public:
  ArgList() = default;
  ArgList(const ArgList& other);
  ArgList& operator=(const ArgList& other);
  // A moved-from list is empty.
  ArgList(ArgList&& other) noexcept = default;
  // Frees this list's own strings before taking over other's (a defaulted
  // move would leak them).
  ArgList& operator=(ArgList&& other) noexcept;
  ~ArgList();

  // Appends one argument (a copy of it). Throws std::bad_alloc.
  ArgList& operator<<(const std::string& argument);

  size_t size() const { return args_.size(); }
  std::string operator[](size_t i) const { return args_[i]; }

  // A null-terminated array for execv/execvp, valid while this list lives
  // and is not changed.
  char* const* argv() const;

  // The printable command: every argument through sh_quote, joined by one
  // blank.
  std::string getStringRepresentation() const;

 private:
  std::vector<char*> args_;
  mutable std::vector<char*> argv_;
};

}  // namespace tovel

#endif  // FERROW_COMMONS_ARG_LIST_H_
