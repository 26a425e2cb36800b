#include "actions/archive_batch.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <log4cpp/Category.hh>

namespace tovel {

namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.RetrieveContentAction");
}

}  // namespace

ArchiveBatch::ArchiveBatch(std::vector<Entry> entries,
                           FileRetrievalProgressUpdater& updater,
                           Listener& listener)
    : entries_(std::move(entries)),
      updater_(updater),
      listener_(listener),
      decoder_(*this),
      sink_(*this),
      output_(&sink_) {}

ArchiveBatch::~ArchiveBatch() { discard(); }

ArchiveBatch::Sink::int_type ArchiveBatch::Sink::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    return traits_type::not_eof(c);
  }
  char byte = traits_type::to_char_type(c);
  return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
}

std::streamsize ArchiveBatch::Sink::xsputn(const char* data,
                                           std::streamsize size) {
  return batch_.take(data, static_cast<std::size_t>(size)) ? size : 0;
}

// The stream swallows what a buffer throws; it is kept for finish().
bool ArchiveBatch::take(const char* data, std::size_t size) {
  if (!fault_.empty() || thrown_) return false;
  try {
    if (decoder_.push(data, size)) return true;
    if (fault_.empty()) fail("the source sent " + decoder_.fault());
  } catch (...) {
    thrown_ = std::current_exception();
  }
  return false;
}

bool ArchiveBatch::data(const char* bytes, std::size_t size) {
  if (next_ == entries_.size()) return fail("the source sent more archives");
  if (!file_) open();
  updater_.update(size);
  file_->write(bytes, static_cast<std::streamsize>(size));
  return file_->good() || fail(file_->error());
}

bool ArchiveBatch::end(const std::string& error) {
  if (next_ == entries_.size()) return fail("the source sent more archives");
  if (!file_) open();
  file_->close();
  Ssh::Receipt receipt;
  receipt.status = error.empty() ? 0 : 1;
  receipt.bytes = file_->bytes();
  receipt.md5sum = file_->md5sum();
  receipt.writeError = file_->error();
  const Entry& entry = entries_[next_];
  std::string fault = listener_.verify(*entry.file, receipt, error);
  if (!fault.empty()) return fail(fault);
  file_.reset();
  confirmations_ += std::to_string(next_) + "\n";
  logger().debug("Fetched and verified " + entry.remote);
  ++next_;
  listener_.archiveDone(*entry.file);
  return true;
}

bool ArchiveBatch::fail(const std::string& why) {
  if (fault_.empty()) fault_ = why.empty() ? "unknown failure" : why;
  discard();
  return false;
}

void ArchiveBatch::open() {
  const Entry& entry = entries_[next_];
  listener_.archiveStarts(*entry.file);
  logger().debug("Reading data to the file " + entry.local);
  file_ = std::make_unique<ReceivingFile>(entry.local, *entry.file->size);
}

// A copy that is not verified must not pass for an archive later.
void ArchiveBatch::discard() {
  if (!file_) return;
  file_.reset();
  const std::string& local = entries_[next_].local;
  if (unlink(local.c_str()) == 0) {
    logger().debug("Removed the incomplete local copy " + local);
  }
}

long ArchiveBatch::read(char* data, std::size_t size) {
  if (confirmations_.empty()) {
    return next_ == entries_.size() || !fault_.empty() ? kEnd : kNothingYet;
  }
  std::size_t count = std::min(size, confirmations_.size());
  std::memcpy(data, confirmations_.data(), count);
  confirmations_.erase(0, count);
  return static_cast<long>(count);
}

void ArchiveBatch::finish(int status, const std::string& err) {
  if (thrown_) {
    discard();
    std::rethrow_exception(thrown_);
  }
  if (!fault_.empty() || next_ == entries_.size()) return;
  std::string why = "the remote command ended with status " +
                    std::to_string(status) + " before the archive was sent";
  fail(err.empty() ? why : why + ": " + err);
}

void ArchiveBatch::abandon() { discard(); }

std::vector<std::string> ArchiveBatch::verifiedRemotes() const {
  std::vector<std::string> remotes;
  for (std::size_t i = 0; i < next_; ++i) remotes.push_back(entries_[i].remote);
  return remotes;
}

}  // namespace tovel
