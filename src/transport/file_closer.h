// FileCloser: closes received files (their sum completed, their data
// flushed to the disk) on a thread of its own, in the order they were
// handed over, so that the receiving thread goes on with the next file
// meanwhile. Flushing a small file costs about half a millisecond, as
// long as receiving it.
#ifndef FERROW_TRANSPORT_FILE_CLOSER_H_
#define FERROW_TRANSPORT_FILE_CLOSER_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "transport/receiving_file.h"

namespace tovel {

class FileCloser {
 public:
  // Files handed over and not yet taken back stay at most this many; each
  // holds a summing thread and its bytes may still be in the page cache.
  static constexpr std::size_t kMaxPending = 8;

  FileCloser();
  // Closes what is still queued, then ends the thread.
  ~FileCloser();
  FileCloser(const FileCloser&) = delete;
  FileCloser& operator=(const FileCloser&) = delete;

  // Queues file for ReceivingFile::close(); waits while kMaxPending files
  // handed over are not closed yet.
  void close(std::unique_ptr<ReceivingFile> file);
  // The oldest file handed over and not taken back, once it is closed;
  // null when it is still being closed, or none is pending. With wait,
  // waits for it instead (null only when none is pending).
  std::unique_ptr<ReceivingFile> takeClosed(bool wait = false);
  // Files handed over and not taken back.
  std::size_t pending() const;

 private:
  void run();

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::unique_ptr<ReceivingFile>> open_;    // to close, in order
  std::deque<std::unique_ptr<ReceivingFile>> closed_;  // to take, in order
  bool closing_ = false;  // the thread holds the front of open_
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_FILE_CLOSER_H_
