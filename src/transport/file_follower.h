// FileFollower: a thread of its own that follows a regular file while
// another thread writes it. It reads back (from the page cache) what the
// writer reports as written, sums it with MD5, and starts writing it to the
// disk, so that neither the sum nor the final flush holds up the writer.
// The thread starts once the file passes 1 MiB (a smaller file costs no
// thread) and runs at idle priority; whatever it has not summed when the
// writer asks for the sum is summed on the writer's thread.
#ifndef FERROW_TRANSPORT_FILE_FOLLOWER_H_
#define FERROW_TRANSPORT_FILE_FOLLOWER_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commons/checksum.h"

namespace tovel {

class FileFollower {
 public:
  // fd: a regular file open for reading and writing, not owned; it must
  // stay open until finish() returns or this is destroyed. Throws
  // InvalidHandle when no digest context can be made.
  explicit FileFollower(int fd);
  // Stops the thread at its next piece and joins it; the sum is lost.
  ~FileFollower();
  FileFollower(const FileFollower&) = delete;
  FileFollower& operator=(const FileFollower&) = delete;

  // The file's bytes [0, end) are written and will not change. Cheap: no
  // lock unless the thread is asleep with enough work waiting for it. The
  // thread, when it starts here, runs with every signal blocked, so the
  // process's handlers keep running on the caller's thread; when none can
  // be started, finish() sums everything.
  void written(uint64_t end);

  // Before any write: the file already holds `end` bytes (a copy being
  // completed). The thread sums them first, at normal priority: they are
  // known work that the final sum waits for, and the transfer leaves a
  // core partly idle meanwhile.
  void existing(uint64_t end);

  // Stops the thread, sums on the caller's thread what it had not, and
  // returns the sum of everything reported; empty, with *error set, when
  // the file could not be read back in full. Later calls return the same.
  std::string finish(std::string* error);

 private:
  void startThread();
  void run();
  bool waitForWork(uint64_t* end);
  bool sumUpTo(uint64_t end, bool stoppable);
  void startWriteback(uint64_t end);
  void stopThread();

  const int fd_;
  Md5Digest digest_;
  std::vector<char> buffer_;
  // Written by the writer, read by the thread.
  std::atomic<uint64_t> reported_{0};
  std::atomic<bool> stop_{false};
  // Set before the thread starts.
  uint64_t existing_ = 0;
  // The writer's own.
  bool started_ = false;
  bool finished_ = false;
  // While the thread sleeps: the end at which the writer must wake it.
  std::atomic<uint64_t> wakeAt_{UINT64_MAX};
  std::mutex mutex_;
  std::condition_variable wake_;
  // The thread's own until it is joined, then the caller's.
  uint64_t summed_ = 0;
  uint64_t flushed_ = 0;
  std::string error_;
  std::string sum_;
  std::thread thread_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_FILE_FOLLOWER_H_
