#include "errors/system_error.h"

#include <cerrno>
#include <cstring>

namespace tovel {

SystemError::SystemError(const std::string& message, int error)
    : std::runtime_error(message), error_(error) {}

const char* SystemError::what() const noexcept {
  if (!what_.empty()) return what_.c_str();
  try {
    std::string message = std::runtime_error::what();
    if (!message.empty()) what_ = message + ": ";
    what_ += std::strerror(error_);
  } catch (...) {
    return std::runtime_error::what();
  }
  return what_.c_str();
}

void throwSystemError(const std::string& message, int error) {
  switch (error) {
    case EPERM:
      throw ExSystemError<EPERM>(message, error);
    case ENOENT:
      throw ExSystemError<ENOENT>(message, error);
    case EINTR:
      throw ExSystemError<EINTR>(message, error);
    case EAGAIN:
      throw ExSystemError<EAGAIN>(message, error);
    case ECHILD:
      throw ExSystemError<ECHILD>(message, error);
    default:
      throw SystemError(message, error);
  }
}

}  // namespace tovel
