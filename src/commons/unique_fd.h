// UniqueFd: the owner of one file descriptor, closed when the owner goes.
#ifndef FERROW_COMMONS_UNIQUE_FD_H_
#define FERROW_COMMONS_UNIQUE_FD_H_

#include <unistd.h>

#include <utility>

namespace tovel {

// Owns fd (-1: none). Movable, not copyable.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // Gives up ownership; the caller closes the descriptor.
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace tovel

#endif  // FERROW_COMMONS_UNIQUE_FD_H_
