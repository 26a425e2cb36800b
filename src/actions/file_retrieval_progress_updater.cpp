#include "actions/file_retrieval_progress_updater.h"

#include <chrono>
#include <string>

namespace tovel {

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(
    MigrationStatus& status, TransferProgressListener* watcher,
    int64_t totalSize, int files, Clock clock, SaveClock saveClock)
    : status_(status),
      watcher_(watcher),
      clock_(clock),
      saveClock_(saveClock),
      startTime_(clock()),
      sizeLeft_(totalSize),
      filesLeft_(files),
      sizeTotal_(totalSize),
      filesTotal_(files) {
  report();
}

int64_t FileRetrievalProgressUpdater::monotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::time_t FileRetrievalProgressUpdater::currentTime() {
  return std::time(nullptr);
}

void FileRetrievalProgressUpdater::update(std::size_t bytes) {
  (*this)(static_cast<long>(bytes));
}

void FileRetrievalProgressUpdater::startFile(std::optional<uint64_t> size,
                                             uint64_t kept) {
  currentFileSized_ = size.has_value();
  currentFileSizeLeft_ = static_cast<int64_t>(size.value_or(0) - kept);
  if (kept == 0) return;
  sizeLeft_ -= static_cast<int64_t>(kept);
  setFigures();
}

void FileRetrievalProgressUpdater::refetch(uint64_t bytes) {
  sizeLeft_ += static_cast<int64_t>(bytes);
  setFigures();
}

void FileRetrievalProgressUpdater::operator()(long n) {
  sizeLeft_ -= n;
  currentFileSizeLeft_ -= n;
  transferred_ += n;
  std::time_t now = clock_();
  speed_ = now == startTime_
               ? 0
               : transferred_ / static_cast<int64_t>(now - startTime_);
  setFigures();
}

void FileRetrievalProgressUpdater::setFigures() {
  status_.setTransferSpeed(std::to_string(speed_));
  status_.setTransferSizeLeft(std::to_string(sizeLeft_));
  if (currentFileSized_) {
    status_.setTransferCurrentFileSizeLeft(
        std::to_string(currentFileSizeLeft_));
  }
  changed();
  report();
}

// Each save creates a file, which costs about half a millisecond on a
// busy ext4 directory: one per archive start and end would take longer
// than receiving many small archives.
void FileRetrievalProgressUpdater::changed() {
  int64_t nowMs = saveClock_();
  if (!saved_ || nowMs - lastSaveMs_ >= kSaveIntervalMs) {
    save(nowMs);
  } else {
    heldBack_ = true;
  }
}

void FileRetrievalProgressUpdater::flush() {
  if (heldBack_) save(saveClock_());
}

int FileRetrievalProgressUpdater::idle() {
  if (!heldBack_) return -1;
  int64_t nowMs = saveClock_();
  int64_t left = kSaveIntervalMs - (nowMs - lastSaveMs_);
  if (left > 0) return static_cast<int>(left);
  save(nowMs);
  return -1;
}

void FileRetrievalProgressUpdater::save(int64_t nowMs) {
  status_.saveFile();
  saved_ = true;
  heldBack_ = false;
  lastSaveMs_ = nowMs;
}

int FileRetrievalProgressUpdater::fileDone() {
  --filesLeft_;
  report();
  return filesLeft_;
}

void FileRetrievalProgressUpdater::report() const {
  if (watcher_ == nullptr) return;
  TransferFigures figures;
  figures.filesTotal = filesTotal_;
  figures.filesLeft = filesLeft_;
  figures.sizeTotal = sizeTotal_;
  figures.sizeLeft = sizeLeft_;
  figures.speed = speed_;
  watcher_->transferProgress(figures);
}

}  // namespace tovel
