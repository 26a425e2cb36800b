// FileWorker: a thread of its own that creates received files ahead of the
// thread that writes them and closes them (their sum completed, their data
// flushed to the disk) behind it, each in the order asked for. Creating a
// file costs about half a millisecond on a busy ext4 directory and
// flushing a small one as much again, as long as receiving a small archive
// takes; the writer thus only writes.
#ifndef FERROW_TRANSPORT_FILE_WORKER_H_
#define FERROW_TRANSPORT_FILE_WORKER_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "transport/receiving_file.h"

namespace tovel {

class FileWorker {
 public:
  // Files handed to close() and not yet closed stay at most this many:
  // each may hold a summing thread.
  static constexpr std::size_t kMaxClosing = 8;

  FileWorker();
  // Finishes what is queued (files opened and not taken are closed without
  // a flush), then ends the thread.
  ~FileWorker();
  FileWorker(const FileWorker&) = delete;
  FileWorker& operator=(const FileWorker&) = delete;

  // Queues the creation of ReceivingFile(path, maxBytes).
  void open(const std::string& path, uint64_t maxBytes);
  // The oldest file queued by open() and not taken, once created (its
  // error() says when it could not be); null when none is queued. Throws
  // what creating it threw.
  std::unique_ptr<ReceivingFile> takeOpened();

  // Queues file for ReceivingFile::close(); waits while kMaxClosing files
  // handed over are not closed yet.
  void close(std::unique_ptr<ReceivingFile> file);
  // The oldest file handed to close() and not taken back, once closed;
  // null when it is still being closed, or none is pending. With wait,
  // waits for it instead (null only when none is pending). Throws what
  // closing it threw.
  std::unique_ptr<ReceivingFile> takeClosed(bool wait = false);

 private:
  struct Task {
    std::string path;  // to open, when file is null
    uint64_t maxBytes = 0;
    std::unique_ptr<ReceivingFile> file;  // to close
  };
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Task> tasks_;  // in order; the front one may be in progress
  std::size_t opening_ = 0;  // open tasks queued or in progress
  std::size_t closing_ = 0;  // close tasks queued or in progress
  // What a task made; error: what it threw, for the taker.
  struct Done {
    std::unique_ptr<ReceivingFile> file;
    std::exception_ptr error;
  };
  std::unique_ptr<ReceivingFile> take(std::deque<Done>& done);
  std::deque<Done> opened_;
  std::deque<Done> closed_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_FILE_WORKER_H_
