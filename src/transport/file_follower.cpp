#include "transport/file_follower.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace tovel {
namespace {

// The thread reads back in pieces of this size (its only buffer)...
const uint64_t kReadSize = 128 * 1024;
// ...sleeps until this much more is written, so that the writer seldom has
// to wake it while the bytes are still in the page cache...
const uint64_t kBatch = 1024 * 1024;
// ...and hands what it summed to the disk in runs of this size.
const uint64_t kWritebackRun = 8 * 1024 * 1024;

}  // namespace

FileFollower::FileFollower(int fd) : fd_(fd) {
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  try {
    thread_ = std::thread(&FileFollower::run, this);
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

FileFollower::~FileFollower() {
  abandoned_ = true;
  std::string ignored;
  finish(&ignored);
}

void FileFollower::written(uint64_t end) {
  reported_ = end;
  if (end < wakeAt_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  wake_.notify_one();
}

std::string FileFollower::finish(std::string* error) {
  if (thread_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finishing_ = true;
      // Now the caller waits for the rest: it is done at full priority.
      sched_param normal{};
      pthread_setschedparam(thread_.native_handle(), SCHED_OTHER, &normal);
      wake_.notify_one();
    }
    thread_.join();
  }
  *error = error_;
  return sum_;
}

void FileFollower::run() {
  yieldToWriter();
  std::vector<char> buffer(kReadSize);
  uint64_t end = 0;
  while (waitForWork(&end)) {
    if (!sumUpTo(end, buffer)) return;
    startWriteback(end);
  }
  if (!abandoned_) sum_ = digest_.finish();
}

// While the writer writes, this thread takes only CPU time that nothing
// else wants: on a machine with few cores, taking a core from the writer
// or from whatever feeds it costs more than the sum saves. Skipped when
// finish() came first, as it raises the priority again.
void FileFollower::yieldToWriter() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (finishing_) return;
  sched_param idle{};
  pthread_setschedparam(pthread_self(), SCHED_IDLE, &idle);
}

// False once everything reported is summed and no more will come, or when
// the work is abandoned.
bool FileFollower::waitForWork(uint64_t* end) {
  std::unique_lock<std::mutex> lock(mutex_);
  wakeAt_ = summed_ + kBatch;
  wake_.wait(lock, [this] { return finishing_ || reported_ >= wakeAt_; });
  wakeAt_ = UINT64_MAX;
  *end = reported_;
  return !abandoned_ && *end > summed_;
}

bool FileFollower::sumUpTo(uint64_t end, std::vector<char>& buffer) {
  while (summed_ < end && !abandoned_) {
    size_t want = static_cast<size_t>(std::min(kReadSize, end - summed_));
    ssize_t got = pread(fd_, buffer.data(), want, static_cast<off_t>(summed_));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      error_ = got < 0 ? strerror(errno) : "the file became shorter";
      return false;
    }
    digest_.update(buffer.data(), static_cast<size_t>(got));
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
