#include "transport/receiving_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tovel {

ReceivingFile::ReceivingFile(const std::string& path, uint64_t maxBytes,
                             uint64_t resumeAt)
    : std::ostream(&buffer_), buffer_(path, maxBytes, resumeAt) {
  if (!buffer_.error().empty()) setstate(std::ios::badbit);
}

ReceivingFile::~ReceivingFile() = default;

bool ReceivingFile::close() {
  if (!buffer_.close()) setstate(std::ios::badbit);
  return buffer_.error().empty();
}

namespace {

// Readable too where possible, so that the file can be summed by reading
// it back; a file we may only write is still taken.
int openForWriting(const std::string& path, bool resume) {
  if (resume) return ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  const int flags = O_CREAT | O_TRUNC | O_CLOEXEC;
  int fd = ::open(path.c_str(), O_RDWR | flags, 0666);
  if (fd < 0 && errno == EACCES) fd = ::open(path.c_str(), O_WRONLY | flags);
  return fd;
}

}  // namespace

ReceivingFile::Buffer::Buffer(const std::string& path, uint64_t maxBytes,
                              uint64_t resumeAt)
    : path_(path), fd_(openForWriting(path, resumeAt > 0)), maxBytes_(maxBytes) {
  if (fd_ < 0) {
    fail(resumeAt > 0 ? "cannot open" : "cannot create", errno);
    return;
  }
  startSum();
  if (resumeAt > 0) resume(resumeAt);
}

// The kept bytes count as written: the follower sums them first, from the
// file, while the rest arrives.
void ReceivingFile::Buffer::resume(uint64_t at) {
  struct stat st;
  if (fstat(fd_, &st) != 0 || static_cast<uint64_t>(st.st_size) != at ||
      at > maxBytes_ || !follower_ ||
      lseek(fd_, 0, SEEK_END) != static_cast<off_t>(at)) {
    error_ = "cannot resume " + path_ + " after " + std::to_string(at) +
             " bytes";
    return;
  }
  bytes_ = at;
  follower_->existing(bytes_);
}

// A regular file we can read back is summed by a follower; anything else
// (a device, a file we may only write) as it passes through xsputn.
void ReceivingFile::Buffer::startSum() {
  struct stat st;
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return;
  if ((fcntl(fd_, F_GETFL) & O_ACCMODE) != O_RDWR) return;
  follower_ = std::make_unique<FileFollower>(fd_);
}

// A file that failed is not checked, so it is not read back either.
void ReceivingFile::Buffer::finishSum() {
  if (!error_.empty()) {
    follower_.reset();
    return;
  }
  if (!follower_) {
    md5sum_ = digest_.finish();
    return;
  }
  std::string readError;
  md5sum_ = follower_->finish(&readError);
  follower_.reset();
  if (!readError.empty() && error_.empty()) {
    error_ = "cannot read back " + path_ + ": " + readError;
  }
}

ReceivingFile::Buffer::~Buffer() {
  follower_.reset();
  if (fd_ >= 0) ::close(fd_);
}

// The archive's source copy is removed once this returns true, so the data
// must be on the disk, not only in the page cache.
bool ReceivingFile::Buffer::close() {
  if (fd_ < 0) {
    if (error_.empty()) error_ = "cannot write " + path_ + ": already closed";
    return false;
  }
  finishSum();
  if (error_.empty() && fdatasync(fd_) != 0) fail("cannot write", errno);
  if (::close(fd_) != 0 && error_.empty()) fail("cannot close", errno);
  fd_ = -1;
  return error_.empty();
}

// Counts and sums only what the file took: after a failed write the stream
// is bad and the caller stops.
std::streamsize ReceivingFile::Buffer::xsputn(const char* data,
                                              std::streamsize size) {
  if (fd_ < 0 || !error_.empty()) return 0;
  if (static_cast<uint64_t>(size) > maxBytes_ - bytes_) {
    error_ = "received more than " + std::to_string(maxBytes_) + " bytes";
    return 0;
  }
  std::streamsize done = 0;
  while (done < size) {
    ssize_t written = ::write(fd_, data + done, size - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      fail("cannot write", written < 0 ? errno : ENOSPC);
      break;
    }
    bytes_ += static_cast<uint64_t>(written);
    if (follower_) {
      follower_->written(bytes_);
    } else {
      digest_.update(data + done, static_cast<std::size_t>(written));
    }
    done += written;
  }
  return done;
}

void ReceivingFile::Buffer::fail(const char* what, int err) {
  if (error_.empty())
    error_ = std::string(what) + " " + path_ + ": " + strerror(err);
}

}  // namespace tovel
