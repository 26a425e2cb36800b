#include "transport/file_worker.h"

namespace tovel {

FileWorker::FileWorker() : thread_([this] { run(); }) {}

FileWorker::~FileWorker() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void FileWorker::open(const std::string& path, uint64_t maxBytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  Task task;
  task.path = path;
  task.maxBytes = maxBytes;
  tasks_.push_back(std::move(task));
  ++opening_;
  changed_.notify_all();
}

std::unique_ptr<ReceivingFile> FileWorker::takeOpened() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return !opened_.empty() || opening_ == 0; });
  return take(opened_);
}

std::unique_ptr<ReceivingFile> FileWorker::take(std::deque<Done>& done) {
  if (done.empty()) return nullptr;
  Done first = std::move(done.front());
  done.pop_front();
  if (first.error) std::rethrow_exception(first.error);
  return std::move(first.file);
}

// Closed files wait for the caller, who is here: only those still to
// close count.
void FileWorker::close(std::unique_ptr<ReceivingFile> file) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return closing_ < kMaxClosing; });
  Task task;
  task.file = std::move(file);
  tasks_.push_back(std::move(task));
  ++closing_;
  changed_.notify_all();
}

std::unique_ptr<ReceivingFile> FileWorker::takeClosed(bool wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (wait) {
    changed_.wait(lock, [this] { return !closed_.empty() || closing_ == 0; });
  }
  return take(closed_);
}

// One task at a time, in order, so that files come back in the order they
// were asked for.
void FileWorker::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    bool opening = task.file == nullptr;
    Done done;
    try {
      if (opening) {
        task.file = std::make_unique<ReceivingFile>(task.path, task.maxBytes);
      } else {
        task.file->close();
      }
    } catch (...) {
      done.error = std::current_exception();
    }
    done.file = std::move(task.file);
    lock.lock();
    if (opening) {
      opened_.push_back(std::move(done));
      --opening_;
    } else {
      closed_.push_back(std::move(done));
      --closing_;
    }
    changed_.notify_all();
  }
}

}  // namespace tovel
