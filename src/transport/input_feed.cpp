#include "transport/input_feed.h"

#include <algorithm>
#include <cstring>

#include "commons/stream_read_error.h"

namespace tovel {

long StreamFeed::read(char* data, std::size_t size) {
  if (!in_.good()) return kEnd;
  in_.read(data, static_cast<std::streamsize>(size));
  if (in_.bad()) TOVEL_THROW(StreamRead);
  std::streamsize got = in_.gcount();
  return got > 0 ? static_cast<long>(got) : kEnd;
}

long PrefixedFeed::read(char* data, std::size_t size) {
  if (offset_ == prefix_.size()) return rest_.read(data, size);
  std::size_t count = std::min(size, prefix_.size() - offset_);
  std::memcpy(data, prefix_.data() + offset_, count);
  offset_ += count;
  // The first chunk carries as much as a single stream would have.
  long more = count < size ? rest_.read(data + count, size - count) : 0;
  return static_cast<long>(count) + std::max(more, 0L);
}

}  // namespace tovel
