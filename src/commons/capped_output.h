// An in-memory output stream that keeps only the beginning and the end of
// what is written to it, for texts that a remote program may make
// arbitrarily long (an agent's standard error, output nobody reads): the
// memory a run needs stays bounded however much the other side sends.
#ifndef FERROW_COMMONS_CAPPED_OUTPUT_H_
#define FERROW_COMMONS_CAPPED_OUTPUT_H_

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>

#include "commons/unbuffered_output.h"

namespace tovel {

class CappedBuffer : public UnbufferedOutput {
 public:
  // Keeps the first `head` and the last `tail` bytes.
  CappedBuffer(std::size_t head, std::size_t tail);

  // Everything written when it fits; otherwise the head, a line
  // "[... N bytes left out ...]" between line feeds, and the tail.
  std::string str() const;
  // Bytes written in all.
  uint64_t size() const { return written_; }

 protected:
  std::streamsize xsputn(const char* data, std::streamsize count) override;

 private:
  void appendToTail(const char* data, std::size_t size);

  std::size_t headLimit_;
  std::size_t tailLimit_;
  std::string head_;
  std::string tail_;  // a ring of the last bytes, oldest at tailStart_
  std::size_t tailStart_ = 0;
  uint64_t written_ = 0;
};

class CappedOutput : public std::ostream {
 public:
  // 32 KiB of each end is enough to tell what went wrong.
  static constexpr std::size_t kDefaultEnd = 32 * 1024;

  explicit CappedOutput(std::size_t head = kDefaultEnd,
                        std::size_t tail = kDefaultEnd);
  std::string str() const { return buffer_.str(); }
  uint64_t size() const { return buffer_.size(); }

 private:
  CappedBuffer buffer_;
};

}  // namespace tovel

#endif  // FERROW_COMMONS_CAPPED_OUTPUT_H_
