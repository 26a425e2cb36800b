#include "errors/ex_traceable.h"

#include "errors/new_uuid.h"

namespace tovel {

ExTraceable::ExTraceable(const std::string& code, const std::string& format)
    : std::runtime_error(code),
      format_(format),
      rawFormat_(format),
      id_(newUUID()),
      severity_(3) {}

const char* ExTraceable::what() const noexcept {
  if (!what_.empty()) return what_.c_str();
  try {
    what_ = format_.str();
  } catch (const std::exception& e) {
    try {
      what_ =
          rawFormat_ + " [message arguments do not match: " + e.what() + "]";
    } catch (...) {
      return rawFormat_.c_str();
    }
  }
  return what_.c_str();
}

void ExTraceable::accept(ExInfoVisitor& visitor) const {
  visitor.setCode(code());
  visitor.setId(id_);
  visitor.setSeverity(severity_);
  visitor.setMessage(what());
}

ExTaggedIncludable::ExTaggedIncludable(const std::string& code,
                                       const std::string& format)
    : ExTraceable(code, format) {}

ExTaggedIncludable::ExTaggedIncludable(const std::string& code,
                                       const std::string& format,
                                       const ExTraceable& inner)
    : ExTraceable(code, format), inner_(inner.clone()) {}

ExTaggedIncludable::ExTaggedIncludable(const ExTaggedIncludable& other)
    : ExTraceable(other),
      inner_(other.inner_ ? other.inner_->clone() : nullptr) {}

ExTaggedIncludable::~ExTaggedIncludable() = default;

void ExTaggedIncludable::accept(ExInfoVisitor& visitor) const {
  ExTraceable::accept(visitor);
  if (inner_) {
    visitor.advanceToInnerException();
    inner_->accept(visitor);
  }
}

}  // namespace tovel
