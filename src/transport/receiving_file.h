// ReceivingFile: a local file filled from a stream of received chunks. It
// counts the bytes that reached the file and sums them with MD5 while they
// are written, so a fetched archive can be checked without reading it back
// afterwards. A regular file is summed, and handed to the disk, by a
// FileFollower on a second thread, so the writer only writes.
#ifndef FERROW_TRANSPORT_RECEIVING_FILE_H_
#define FERROW_TRANSPORT_RECEIVING_FILE_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include "commons/checksum.h"
#include "commons/unbuffered_output.h"
#include "transport/file_follower.h"

namespace tovel {

class ReceivingFile : public std::ostream {
 public:
  // Creates or truncates path (mode 0666 less the umask). A file that
  // cannot be created leaves the stream bad and error() set; nothing is
  // thrown. A write that would take the file beyond maxBytes fails as a
  // write error does ("received more than N bytes").
  //
  // With resumeAt > 0, path must be a regular file of exactly that many
  // bytes, readable and writable: writes go on after them, and bytes() and
  // md5sum() include them (they are read back to be summed).
  explicit ReceivingFile(const std::string& path,
                         uint64_t maxBytes = UINT64_MAX,
                         uint64_t resumeAt = 0);
  // Closes the file if close() was not called; errors are then lost.
  ~ReceivingFile() override;
  ReceivingFile(const ReceivingFile&) = delete;
  ReceivingFile& operator=(const ReceivingFile&) = delete;

  // Completes the sum, flushes the file to the disk and closes it; false
  // (error() set) when that or any earlier step failed. Later writes fail.
  bool close();

  // Bytes written to the file so far.
  uint64_t bytes() const { return buffer_.bytes(); }
  // MD5 of those bytes, once close() was called; empty before, after a
  // failure, or when the file could not be read back.
  const std::string& md5sum() const { return buffer_.md5sum(); }
  // Empty while all went well, else what failed first, e.g. "cannot write
  // /a/b: No space left on device".
  const std::string& error() const { return buffer_.error(); }

 private:
  // Unbuffered: every chunk goes straight to write(2). Owns the
  // descriptor.
  class Buffer : public UnbufferedOutput {
   public:
    Buffer(const std::string& path, uint64_t maxBytes, uint64_t resumeAt);
    ~Buffer() override;
    bool close();
    uint64_t bytes() const { return bytes_; }
    const std::string& md5sum() const { return md5sum_; }
    const std::string& error() const { return error_; }

   protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override;

   private:
    void startSum();
    void resume(uint64_t at);
    void finishSum();
    void fail(const char* what, int err);

    std::string path_;
    int fd_;
    uint64_t maxBytes_;
    uint64_t bytes_ = 0;
    // A regular file is summed by follower_, anything else (a device, a
    // file we may only write) here.
    Md5Digest digest_;
    std::unique_ptr<FileFollower> follower_;
    std::string md5sum_;
    std::string error_;
  };

  Buffer buffer_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_RECEIVING_FILE_H_
