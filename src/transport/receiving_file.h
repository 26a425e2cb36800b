// ReceivingFile: a local file filled from a stream of received chunks. It
// counts the bytes that reached the file and sums them with MD5 as they are
// written, so a fetched archive can be checked without reading it back.
//
// The writing and the summing run on a thread of the file's own, fed
// through a few reused chunk buffers, so that the caller (decrypting the
// next chunk) and the disk work proceed side by side.
#ifndef FERROW_TRANSPORT_RECEIVING_FILE_H_
#define FERROW_TRANSPORT_RECEIVING_FILE_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "commons/checksum.h"

namespace tovel {

class ReceivingFile : public std::ostream {
 public:
  // Creates or truncates path (mode 0666 less the umask). Nothing is
  // thrown: a file that cannot be created leaves the stream bad and
  // error() set. A write copies its bytes for the writing thread and
  // returns; a failure there makes every write after it fail (the stream
  // goes bad) and close() return false. A write that would take the bytes
  // offered beyond maxBytes fails at once, as a write error does
  // ("received more than N bytes"). The writing thread blocks every
  // signal, so that handlers run on the caller's thread.
  explicit ReceivingFile(const std::string& path,
                         uint64_t maxBytes = UINT64_MAX);
  // Writes what was handed over, stops the writing thread and closes the
  // file if close() was not called; errors are then lost.
  ~ReceivingFile() override;
  ReceivingFile(const ReceivingFile&) = delete;
  ReceivingFile& operator=(const ReceivingFile&) = delete;

  // Waits for every write, flushes the file to the disk and closes it;
  // false (error() set) when that or any earlier step failed. Later writes
  // fail.
  bool close();

  // Each of the three below first waits until the bytes handed over so far
  // are written (or failed).
  //
  // Bytes written to the file so far.
  uint64_t bytes() const { return buffer_.bytes(); }
  // MD5 of those bytes; meant to be read once, after the last write.
  std::string md5sum() { return buffer_.md5sum(); }
  // Empty while all went well, else what failed first, e.g. "cannot write
  // /a/b: No space left on device".
  const std::string& error() const { return buffer_.error(); }

 private:
  // Owns the descriptor and the writing thread, which is started by the
  // first write. Chunks are copied into one of kSlots buffers, written
  // and summed in order; the caller waits only when all are full.
  class Buffer : public std::streambuf {
   public:
    Buffer(const std::string& path, uint64_t maxBytes);
    ~Buffer() override;
    bool close();
    uint64_t bytes() const;
    std::string md5sum();
    const std::string& error() const;

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* data, std::streamsize size) override;

   private:
    static constexpr int kSlots = 3;
    static constexpr std::size_t kSlotSize = 64 * 1024;

    bool startWriter();
    bool handOver(const char* data, std::size_t size);
    void waitIdle() const;
    void stopWriter();
    void writeQueued();
    int writeOut(const char* data, std::size_t size);
    void fail(const char* what, int err);
    void failLocked(const std::string& message);

    // Caller's side.
    std::string path_;
    int fd_;
    uint64_t maxBytes_;
    uint64_t offered_ = 0;
    std::thread writer_;
    // Only the writing thread touches these while it runs; the caller
    // reads them once the queue is empty (waitIdle), or after the join.
    uint64_t bytes_ = 0;
    uint64_t writebackFrom_ = 0;
    Md5Digest digest_;
    // Guarded by mutex_.
    mutable std::mutex mutex_;
    mutable std::condition_variable slotFree_;
    std::condition_variable slotFilled_;
    std::vector<char> slots_;
    std::size_t sizes_[kSlots] = {};
    int first_ = 0;
    int queued_ = 0;
    bool stopping_ = false;
    std::string error_;
  };

  Buffer buffer_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_RECEIVING_FILE_H_
