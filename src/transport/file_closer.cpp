#include "transport/file_closer.h"

namespace tovel {

FileCloser::FileCloser() : thread_([this] { run(); }) {}

FileCloser::~FileCloser() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void FileCloser::close(std::unique_ptr<ReceivingFile> file) {
  std::unique_lock<std::mutex> lock(mutex_);
  // Closed files wait for the caller, who is here: only the open ones
  // count.
  changed_.wait(lock, [this] {
    return open_.size() + (closing_ ? 1 : 0) < kMaxPending;
  });
  open_.push_back(std::move(file));
  changed_.notify_all();
}

std::unique_ptr<ReceivingFile> FileCloser::takeClosed(bool wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (wait) {
    changed_.wait(lock, [this] {
      return !closed_.empty() || (open_.empty() && !closing_);
    });
  }
  if (closed_.empty()) return nullptr;
  std::unique_ptr<ReceivingFile> file = std::move(closed_.front());
  closed_.pop_front();
  changed_.notify_all();
  return file;
}

std::size_t FileCloser::pending() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return open_.size() + closed_.size() + (closing_ ? 1 : 0);
}

// Files are closed one at a time and in order, so the closed ones come
// back in the order they were handed over.
void FileCloser::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !open_.empty(); });
    if (open_.empty()) return;
    std::unique_ptr<ReceivingFile> file = std::move(open_.front());
    open_.pop_front();
    closing_ = true;
    lock.unlock();
    file->close();
    lock.lock();
    closing_ = false;
    closed_.push_back(std::move(file));
    changed_.notify_all();
  }
}

}  // namespace tovel
