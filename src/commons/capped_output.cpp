#include "commons/capped_output.h"

#include <algorithm>

namespace tovel {

CappedBuffer::CappedBuffer(std::size_t head, std::size_t tail)
    : headLimit_(head), tailLimit_(tail) {}

std::streamsize CappedBuffer::xsputn(const char* data, std::streamsize count) {
  std::size_t size = static_cast<std::size_t>(count);
  written_ += size;
  std::size_t toHead = std::min(size, headLimit_ - head_.size());
  head_.append(data, toHead);
  data += toHead;
  size -= toHead;
  if (size > tailLimit_) {
    data += size - tailLimit_;
    size = tailLimit_;
  }
  appendToTail(data, size);
  return count;
}

// size is at most tailLimit_. The ring fills linearly, then overwrites its
// oldest bytes.
void CappedBuffer::appendToTail(const char* data, std::size_t size) {
  std::size_t fill = std::min(size, tailLimit_ - tail_.size());
  tail_.append(data, fill);
  data += fill;
  size -= fill;
  while (size > 0) {
    std::size_t piece = std::min(size, tailLimit_ - tailStart_);
    tail_.replace(tailStart_, piece, data, piece);
    tailStart_ = (tailStart_ + piece) % tailLimit_;
    data += piece;
    size -= piece;
  }
}

std::string CappedBuffer::str() const {
  std::string tail = tail_.substr(tailStart_) + tail_.substr(0, tailStart_);
  uint64_t leftOut = written_ - head_.size() - tail.size();
  if (leftOut == 0) return head_ + tail;
  return head_ + "\n[... " + std::to_string(leftOut) +
         " bytes left out ...]\n" + tail;
}

CappedOutput::CappedOutput(std::size_t head, std::size_t tail)
    : std::ostream(nullptr), buffer_(head, tail) {
  rdbuf(&buffer_);
}

}  // namespace tovel
