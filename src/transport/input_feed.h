// InputFeed: what a remote command reads on its standard input, handed to
// the pump as it becomes ready. A feed may have nothing yet and more later:
// the fetch of many archives confirms each archive on the input of the
// command that sends them, once its local copy is verified.
#ifndef FERROW_TRANSPORT_INPUT_FEED_H_
#define FERROW_TRANSPORT_INPUT_FEED_H_

#include <cstddef>
#include <istream>
#include <string>

namespace tovel {

class InputFeed {
 public:
  static constexpr long kNothingYet = 0;
  static constexpr long kEnd = -1;

  virtual ~InputFeed() = default;

  // Copies at most `size` (> 0) bytes of input to `data` and returns their
  // number; kNothingYet when none is ready now, kEnd once the input is over
  // (and on every later call). A feed becomes ready only through what the
  // command sends back, so once the command's output has ended, kNothingYet
  // counts as the end. Throws StreamRead when the input cannot be read.
  virtual long read(char* data, std::size_t size) = 0;
};

// A stream's bytes, all ready at once.
class StreamFeed : public InputFeed {
 public:
  explicit StreamFeed(std::istream& in) : in_(in) {}
  long read(char* data, std::size_t size) override;

 private:
  std::istream& in_;
};

// `prefix` (copied), then everything `rest` gives.
class PrefixedFeed : public InputFeed {
 public:
  PrefixedFeed(const std::string& prefix, InputFeed& rest)
      : prefix_(prefix), rest_(rest) {}
  long read(char* data, std::size_t size) override;

 private:
  std::string prefix_;
  std::size_t offset_ = 0;
  InputFeed& rest_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_INPUT_FEED_H_
