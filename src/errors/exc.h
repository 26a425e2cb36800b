// Exc<&Tag>: one exception type per kind of error. A tag is an inline
// function of one bool whose address gives the kind its own type; its
// ExcTraits specialisation fixes the code string and the message format.
//
//   TOVEL_THROW(CantStatFS) % path % strerror(errno);
//   TOVEL_THROW_WRAP(CantRetrieveDump, cause);
//
// throw a copy whose context is the enclosing function's signature, whose
// file is the source file (relative to src/, "./commons/file.cpp") and whose
// line is the line of the throw. Feed exactly as many arguments as the
// format has placeholders.
#ifndef FERROW_ERRORS_EXC_H_
#define FERROW_ERRORS_EXC_H_

#include <string>

#include "errors/ex_traceable.h"

namespace tovel {

typedef void (*ExcTag)(bool);

// Specialised once per tag, through TOVEL_EXC_TRAITS.
template <ExcTag Tag>
struct ExcTraits;

template <ExcTag Tag>
class Exc : public ExTaggedIncludable {
 public:
  Exc(const std::string& context, const std::string& file, int line)
      : ExTaggedIncludable(ExcTraits<Tag>::code(), ExcTraits<Tag>::format()),
        context_(context),
        file_(file),
        line_(line) {}

  // Wraps a cause: a clone of inner becomes this exception's inner one.
  Exc(const ExTraceable& inner, const std::string& context,
      const std::string& file, int line)
      : ExTaggedIncludable(ExcTraits<Tag>::code(), ExcTraits<Tag>::format(),
                           inner),
        context_(context),
        file_(file),
        line_(line) {}

  // Feeds the next placeholder of the message format.
  template <class T>
  Exc& operator%(const T& value) {
    feed(value);
    return *this;
  }

  Exc* clone() const override { return new Exc(*this); }

  // setContext, setFile, setLine, then the ExTaggedIncludable sequence.
  void accept(ExInfoVisitor& visitor) const override {
    visitor.setContext(context_);
    visitor.setFile(file_);
    visitor.setLine(line_);
    ExTaggedIncludable::accept(visitor);
  }

  const std::string& context() const { return context_; }
  const std::string& file() const { return file_; }
  int line() const { return line_; }

 private:
  std::string context_;
  std::string file_;
  int line_;
};

}  // namespace tovel

// Specialises the traits of an existing tag (any scope); use at namespace
// scope outside tovel or inside it.
#define TOVEL_EXC_TRAITS(TAG_ADDRESS, CODE, FORMAT) \
  template <>                                       \
  struct tovel::ExcTraits<TAG_ADDRESS> {            \
    static const char* code() { return CODE; }      \
    static const char* format() { return FORMAT; }  \
  }

// Declares a tag function in the current namespace. Follow it, at global
// scope, with TOVEL_EXC_TRAITS(&ns::Tag, ...).
#define TOVEL_DECLARE_TAG(TAG) \
  inline void TAG(bool) {}

#define TOVEL_THROW(TAG) \
  throw ::tovel::Exc<&TAG>(__PRETTY_FUNCTION__, __FILE__, __LINE__)

#define TOVEL_THROW_WRAP(TAG, INNER) \
  throw ::tovel::Exc<&TAG>((INNER), __PRETTY_FUNCTION__, __FILE__, __LINE__)

#endif  // FERROW_ERRORS_EXC_H_
