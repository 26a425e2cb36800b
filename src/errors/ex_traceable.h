// The root of ferrow's exception family. Consumers never switch on the
// dynamic type of an exception to print it: they hand an ExInfoVisitor to
// accept(), which feeds the exception's fields one by one, outermost first.
#ifndef FERROW_ERRORS_EX_TRACEABLE_H_
#define FERROW_ERRORS_EX_TRACEABLE_H_

#include <boost/format.hpp>
#include <memory>
#include <stdexcept>
#include <string>

namespace tovel {

class ExInfoVisitor {
 public:
  virtual ~ExInfoVisitor() = default;
  virtual void setCode(const std::string& code) = 0;
  virtual void setId(const std::string& id) = 0;
  virtual void setMessage(const std::string& message) = 0;
  virtual void setContext(const std::string& context) = 0;
  virtual void setFile(const std::string& file) = 0;
  virtual void setLine(int line) = 0;
  // Called between two levels of nesting: what follows describes the cause.
  virtual void advanceToInnerException() = 0;
  virtual void setSeverity(int /*severity*/) {}
};

class Cloneable {
 public:
  virtual ~Cloneable() = default;
  // Returns a newly allocated copy of the most-derived object; caller owns it.
  virtual Cloneable* clone() const = 0;
};

class ExVisitable {
 public:
  virtual ~ExVisitable() = default;
  virtual void accept(ExInfoVisitor& visitor) const = 0;
};

// Carries a code (the tag name, held by std::runtime_error), a message format
// whose "%N%" placeholders the thrower fills in order, a fresh UUID and a
// severity (always 3 within the family).
class ExTraceable : public Cloneable,
                    public ExVisitable,
                    public std::runtime_error {
 public:
  ExTraceable(const std::string& code, const std::string& format);

  ExTraceable* clone() const override = 0;

  // The message: the format rendered with the arguments fed so far, cached
  // on first call. The code is not part of it. A thrower that fed too few or
  // too many arguments gets the bare format followed by a note saying so
  // (std::exception::what() may not throw).
  const char* what() const noexcept override;

  // Visits setCode, setId, setSeverity, setMessage in that order.
  void accept(ExInfoVisitor& visitor) const override;

  std::string code() const { return std::runtime_error::what(); }
  const std::string& id() const { return id_; }
  int severity() const { return severity_; }

 protected:
  template <class T>
  void feed(const T& value) {
    format_ % value;
  }

 private:
  boost::format format_;
  std::string rawFormat_;
  mutable std::string what_;
  std::string id_;
  int severity_;
};

// An ExTraceable that may own one nested cause (a clone of it).
class ExTaggedIncludable : public ExTraceable {
 public:
  ExTaggedIncludable(const std::string& code, const std::string& format);
  ExTaggedIncludable(const std::string& code, const std::string& format,
                     const ExTraceable& inner);
  ExTaggedIncludable(const ExTaggedIncludable& other);
  ExTaggedIncludable& operator=(const ExTaggedIncludable&) = delete;
  ~ExTaggedIncludable() override;

  // The ExTraceable sequence, then advanceToInnerException() and the inner
  // exception's own accept() when there is a cause.
  void accept(ExInfoVisitor& visitor) const override;

  // The nested cause, or null.
  const ExTraceable* inner() const { return inner_.get(); }

 private:
  std::unique_ptr<ExTraceable> inner_;
};

// Raised when the termination flag is found set; not part of the family.
class MigrationTerminatedException : public std::runtime_error {
 public:
  MigrationTerminatedException()
      : std::runtime_error("Migration has been terminated") {}
};

}  // namespace tovel

#endif  // FERROW_ERRORS_EX_TRACEABLE_H_
