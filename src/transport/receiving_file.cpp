#include "transport/receiving_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

namespace tovel {

namespace {

// Writeback is started for every this many bytes written, so that the
// final fdatasync finds little left to do.
constexpr uint64_t kWritebackStep = 8 << 20;

}  // namespace

ReceivingFile::ReceivingFile(const std::string& path, uint64_t maxBytes)
    : std::ostream(&buffer_), buffer_(path, maxBytes) {
  if (!buffer_.error().empty()) setstate(std::ios::badbit);
}

ReceivingFile::~ReceivingFile() = default;

bool ReceivingFile::close() {
  if (!buffer_.close()) setstate(std::ios::badbit);
  return buffer_.error().empty();
}

ReceivingFile::Buffer::Buffer(const std::string& path, uint64_t maxBytes)
    : path_(path),
      fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
      maxBytes_(maxBytes) {
  if (fd_ < 0) fail("cannot create", errno);
}

ReceivingFile::Buffer::~Buffer() {
  stopWriter();
  if (fd_ >= 0) ::close(fd_);
}

// The archive's source copy is removed once this returns true, so the data
// must be on the disk, not only in the page cache.
bool ReceivingFile::Buffer::close() {
  if (fd_ < 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    failLocked("cannot write " + path_ + ": already closed");
    return false;
  }
  stopWriter();
  if (error_.empty() && fdatasync(fd_) != 0) fail("cannot write", errno);
  if (::close(fd_) != 0) fail("cannot close", errno);
  fd_ = -1;
  return error_.empty();
}

uint64_t ReceivingFile::Buffer::bytes() const {
  waitIdle();
  return bytes_;
}

std::string ReceivingFile::Buffer::md5sum() {
  waitIdle();
  return digest_.finish();
}

const std::string& ReceivingFile::Buffer::error() const {
  waitIdle();
  return error_;
}

ReceivingFile::Buffer::int_type ReceivingFile::Buffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    return traits_type::not_eof(c);
  }
  char byte = traits_type::to_char_type(c);
  return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
}

// Takes the bytes in pieces of a chunk buffer each; after a failure the
// stream is bad and the caller stops.
std::streamsize ReceivingFile::Buffer::xsputn(const char* data,
                                              std::streamsize size) {
  if (fd_ < 0) return 0;
  if (static_cast<uint64_t>(size) > maxBytes_ - offered_) {
    std::lock_guard<std::mutex> lock(mutex_);
    failLocked("received more than " + std::to_string(maxBytes_) + " bytes");
    return 0;
  }
  if (!writer_.joinable() && !startWriter()) return 0;
  std::streamsize done = 0;
  while (done < size) {
    std::size_t piece =
        std::min(kSlotSize, static_cast<std::size_t>(size - done));
    if (!handOver(data + done, piece)) break;
    offered_ += piece;
    done += static_cast<std::streamsize>(piece);
  }
  return done;
}

// The thread is created with every signal blocked, so that not even its
// first instant can take a signal meant for the caller.
bool ReceivingFile::Buffer::startWriter() {
  slots_.resize(kSlots * kSlotSize);
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &previous);
  try {
    writer_ = std::thread(&Buffer::writeQueued, this);
  } catch (const std::system_error& e) {
    fail("cannot write", e.code().value());
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return writer_.joinable();
}

// Copies one piece into the next free buffer; false once the writing
// thread (or the limit) has failed.
bool ReceivingFile::Buffer::handOver(const char* data, std::size_t size) {
  std::unique_lock<std::mutex> lock(mutex_);
  slotFree_.wait(lock, [this] { return queued_ < kSlots || !error_.empty(); });
  if (!error_.empty()) return false;
  int slot = (first_ + queued_) % kSlots;
  lock.unlock();
  memcpy(&slots_[slot * kSlotSize], data, size);
  sizes_[slot] = size;
  lock.lock();
  ++queued_;
  slotFilled_.notify_one();
  return true;
}

void ReceivingFile::Buffer::waitIdle() const {
  std::unique_lock<std::mutex> lock(mutex_);
  slotFree_.wait(lock, [this] { return queued_ == 0; });
}

// Lets the writing thread finish what was handed over, then joins it.
void ReceivingFile::Buffer::stopWriter() {
  if (!writer_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  slotFilled_.notify_one();
  writer_.join();
}

// The writing thread: buffers in the order they were filled. After a
// failed write the rest is only released, so that the caller never waits
// on it; what was handed over before a refusal (the limit) is written.
void ReceivingFile::Buffer::writeQueued() {
  bool failed = false;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    slotFilled_.wait(lock, [this] { return queued_ > 0 || stopping_; });
    if (queued_ == 0) return;
    const char* data = &slots_[first_ * kSlotSize];
    std::size_t size = sizes_[first_];
    lock.unlock();
    int err = failed ? 0 : writeOut(data, size);
    lock.lock();
    if (err != 0) {
      failed = true;
      failLocked("cannot write " + path_ + ": " + strerror(err));
    }
    first_ = (first_ + 1) % kSlots;
    --queued_;
    slotFree_.notify_one();
  }
}

// Counts and sums only what the file took; 0, or the errno of a failure.
int ReceivingFile::Buffer::writeOut(const char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    ssize_t written = ::write(fd_, data + done, size - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return written < 0 ? errno : ENOSPC;
    digest_.update(data + done, static_cast<std::size_t>(written));
    bytes_ += static_cast<uint64_t>(written);
    done += static_cast<std::size_t>(written);
  }
  // Failures here are not reported: fdatasync at close() reports them.
  if (kWritebackStep != 0 && bytes_ - writebackFrom_ >= kWritebackStep) {
    sync_file_range(fd_, static_cast<off64_t>(writebackFrom_),
                    static_cast<off64_t>(bytes_ - writebackFrom_),
                    SYNC_FILE_RANGE_WRITE);
    writebackFrom_ = bytes_;
  }
  return 0;
}

void ReceivingFile::Buffer::fail(const char* what, int err) {
  std::lock_guard<std::mutex> lock(mutex_);
  failLocked(std::string(what) + " " + path_ + ": " + strerror(err));
}

void ReceivingFile::Buffer::failLocked(const std::string& message) {
  if (error_.empty()) error_ = message;
}

}  // namespace tovel
