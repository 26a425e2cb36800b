// The archive stream decoder on any bytes: it never reads out of bounds,
// never hands on more than it was given, and tells the same events and the
// same fault whether the stream comes whole or cut into pieces (sizes
// taken from the input's first byte).
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "actions/archive_stream.h"
#include "fuzz_support.h"

namespace {

struct Recorder : tovel::ArchiveStreamDecoder::Handler {
  std::string events;
  size_t dataBytes = 0;
  bool data(const char* bytes, size_t size) override {
    events.append(bytes, size);
    dataBytes += size;
    return true;
  }
  bool end(const std::string& error) override {
    events += "|end:" + error + "|";
    return true;
  }
};

Recorder decode(const uint8_t* data, size_t size, size_t piece,
                std::string* fault) {
  Recorder recorder;
  tovel::ArchiveStreamDecoder decoder(recorder);
  for (size_t at = 0; at < size; at += piece) {
    size_t n = size - at < piece ? size - at : piece;
    if (!decoder.push(reinterpret_cast<const char*>(data) + at, n)) break;
  }
  *fault = decoder.fault();
  return recorder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  size_t piece = data[0] % 7 + 1;
  std::string wholeFault, piecesFault;
  Recorder whole = decode(data + 1, size - 1, size, &wholeFault);
  Recorder pieces = decode(data + 1, size - 1, piece, &piecesFault);
  ferrow_fuzz::check(whole.dataBytes <= size, "more data than input");
  ferrow_fuzz::check(whole.events == pieces.events,
                     "events differ in pieces of " + std::to_string(piece));
  ferrow_fuzz::check(wholeFault == piecesFault,
                     "faults differ: " + wholeFault + " / " + piecesFault);
  return 0;
}
