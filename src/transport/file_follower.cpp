#include "transport/file_follower.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

namespace tovel {
namespace {

// The file is read back in pieces of this size (the only buffer)...
const uint64_t kReadSize = 128 * 1024;
// ...the thread sleeps until this much more is written, so that the writer
// seldom has to wake it while the bytes are still in the page cache...
const uint64_t kBatch = 1024 * 1024;
// ...and hands what it summed to the disk in runs of this size.
const uint64_t kWritebackRun = 8 * 1024 * 1024;

}  // namespace

FileFollower::FileFollower(int fd) : fd_(fd) {}

FileFollower::~FileFollower() { stopThread(); }

void FileFollower::written(uint64_t end) {
  reported_ = end;
  if (!started_ && end >= kBatch) startThread();
  if (end < wakeAt_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  wake_.notify_one();
}

void FileFollower::existing(uint64_t end) {
  if (!started_) existing_ = end;
  written(end);
}

void FileFollower::startThread() {
  started_ = true;
  buffer_.resize(kReadSize);
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  try {
    thread_ = std::thread(&FileFollower::run, this);
  } catch (const std::system_error&) {
    // No thread to spare: finish() does all of it.
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

std::string FileFollower::finish(std::string* error) {
  if (!finished_) {
    finished_ = true;
    stopThread();
    buffer_.resize(kReadSize);
    if (error_.empty() && sumUpTo(reported_, false)) sum_ = digest_.finish();
  }
  *error = error_;
  return sum_;
}

// The thread gives up at its next piece; it may be far behind on a busy
// machine, and the caller waiting for it should not wait at idle priority.
void FileFollower::stopThread() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
    wake_.notify_one();
  }
  thread_.join();
}

// Idle priority, once the bytes that were there before are summed: on a
// machine with few cores, taking a core from the writer, or from whatever
// feeds it, costs more than the sum saves.
void FileFollower::run() {
  if (existing_ > 0 && !sumUpTo(existing_, true)) return;
  flushed_ = existing_;  // the final flush covers what is left of them
  sched_param idle{};
  pthread_setschedparam(pthread_self(), SCHED_IDLE, &idle);
  uint64_t end = 0;
  while (waitForWork(&end) && sumUpTo(end, true)) startWriteback(end);
}

// False when the thread is to stop.
bool FileFollower::waitForWork(uint64_t* end) {
  std::unique_lock<std::mutex> lock(mutex_);
  wakeAt_ = summed_ + kBatch;
  wake_.wait(lock, [this] { return stop_ || reported_ >= wakeAt_; });
  wakeAt_ = UINT64_MAX;
  *end = reported_;
  return !stop_;
}

// False, with error_ set, when the file cannot be read back; also false when
// stoppable and the thread is to stop.
bool FileFollower::sumUpTo(uint64_t end, bool stoppable) {
  while (summed_ < end) {
    if (stoppable && stop_) return false;
    size_t want = static_cast<size_t>(std::min(kReadSize, end - summed_));
    ssize_t got = pread(fd_, buffer_.data(), want, static_cast<off_t>(summed_));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      error_ = got < 0 ? strerror(errno) : "the file became shorter";
      return false;
    }
    digest_.update(buffer_.data(), static_cast<size_t>(got));
    summed_ += static_cast<uint64_t>(got);
  }
  return true;
}

// Only starts the writing: errors surface at the owner's final flush.
void FileFollower::startWriteback(uint64_t end) {
  if (end - flushed_ < kWritebackRun) return;
  sync_file_range(fd_, static_cast<off_t>(flushed_),
                  static_cast<off_t>(end - flushed_), SYNC_FILE_RANGE_WRITE);
  flushed_ = end;
}

}  // namespace tovel
