// The stream in which one remote command sends several archives back to
// back, and its decoder.
//
// The sender is a small Perl program (perl runs wherever the agent runs).
// Its first argument lists, comma-separated, where each archive is to
// start (a missing or empty entry: at 0); the archives follow. It reads
// them in order, each from its start, and frames each
// one on its standard output as a sequence of records, each a 4-byte
// big-endian header H and what H announces:
//   0 < H < 2^31   H bytes of the archive's data follow;
//   H = 0          the archive was read to its end;
//   H >= 2^31      the archive could not be read: H - 2^31 bytes of
//                  error text follow and end it.
// A reader thus learns every archive's bytes and end exactly, whatever
// the archive holds and however it differs from the list.
//
// Meanwhile a second process of the program reads lines from its standard
// input, each the decimal index (from 0) of an archive,
// and removes that archive at once; a removal that fails is reported on
// standard error as "unlink INDEX: REASON". It ends at the end of its input,
// even after the sender has stopped, so that every confirmation that
// arrived is carried out; when the sender died, it ends once no input came
// for a second.
#ifndef FERROW_ACTIONS_ARCHIVE_STREAM_H_
#define FERROW_ACTIONS_ARCHIVE_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tovel {

// The program text for "perl -e": a wrapper that decodes and runs the
// program, made of letters, digits and "()*;$@" only.
const std::string& archiveStreamProgram();

class ArchiveStreamDecoder {
 public:
  // Data records larger than this, or error texts longer than
  // kMaxErrorText, mark a stream that is not ours.
  static constexpr uint32_t kMaxDataRecord = 1u << 20;
  static constexpr uint32_t kMaxErrorText = 1u << 16;

  // Told of each archive's data, then of its end; returns false to stop
  // the decoding.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual bool data(const char* bytes, std::size_t size) = 0;
    // `error` is empty when the sender read the archive to its end.
    virtual bool end(const std::string& error) = 0;
  };

  explicit ArchiveStreamDecoder(Handler& handler) : handler_(handler) {}

  // Decodes the next bytes of the stream, in any pieces. Returns false
  // once the handler asked to stop or the stream turned out malformed
  // (fault() says how); every later call then returns false too.
  bool push(const char* bytes, std::size_t size);

  // Empty unless the stream was malformed.
  const std::string& fault() const { return fault_; }
  // True between two archives (nothing of the next one received yet).
  bool atBoundary() const { return state_ == kHeader && headerLength_ == 0; }

 private:
  enum State { kHeader, kData, kErrorText, kStopped };

  std::size_t takeHeader(const char* bytes, std::size_t size);
  bool startRecord();

  Handler& handler_;
  State state_ = kHeader;
  unsigned char header_[4] = {0, 0, 0, 0};
  std::size_t headerLength_ = 0;
  uint32_t left_ = 0;  // of the data or the error text
  std::string errorText_;
  std::string fault_;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_ARCHIVE_STREAM_H_
