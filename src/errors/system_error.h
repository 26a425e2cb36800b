// Errors of system calls, carrying errno. Not part of the ExTraceable
// family: they pass through the actions' wrapping unless caught by type.
#ifndef FERROW_ERRORS_SYSTEM_ERROR_H_
#define FERROW_ERRORS_SYSTEM_ERROR_H_

#include <stdexcept>
#include <string>

namespace tovel {

class SystemError : public std::runtime_error {
 public:
  SystemError(const std::string& message, int error);

  // message + ": " + strerror(error), or the bare strerror text when the
  // message is empty. Cached on first call.
  const char* what() const noexcept override;

  int error() const { return error_; }

 private:
  int error_;
  mutable std::string what_;
};

// One type per errno value that callers catch by type:
// EPERM, ENOENT, EINTR, ECHILD, EAGAIN.
template <int N>
class ExSystemError : public SystemError {
 public:
  ExSystemError(const std::string& message, int error)
      : SystemError(message, error) {}
};

// Throws ExSystemError<error> for 1, 2, 4, 11 and 10, a plain SystemError
// otherwise.
[[noreturn]] void throwSystemError(const std::string& message, int error);

}  // namespace tovel

#endif  // FERROW_ERRORS_SYSTEM_ERROR_H_
