#include "actions/archive_batch.h"

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

std::streamsize ArchiveBatch::Sink::xsputn(const char* data,
                                           std::streamsize size) {
  return batch_.take(data, static_cast<std::size_t>(size)) ? size : 0;
}

// The stream swallows what a buffer throws; it is kept for finish().
bool ArchiveBatch::take(const char* data, std::size_t size) {
  if (!fault_.empty() || thrown_) return false;
  try {
    if (decoder_.push(data, size)) return true;
    if (fault_.empty()) fail("the source sent " + decoder_.fault(), received_);
  } catch (...) {
    thrown_ = std::current_exception();
  }
  return false;
}

bool ArchiveBatch::data(const char* bytes, std::size_t size) {
  if (received_ == entries_.size()) {
    return fail("the source sent more archives", received_);
  }
  if (!file_) open();
  updater_.update(size);
  file_->write(bytes, static_cast<std::streamsize>(size));
  return file_->good() || fail(file_->error(), received_);
}

bool ArchiveBatch::end(const std::string& error) {
  if (received_ == entries_.size()) {
    return fail("the source sent more archives", received_);
  }
  if (!file_) open();
  std::unique_ptr<ReceivingFile> file = std::move(file_);
  bool knownBad =
      !error.empty() || file->bytes() != *entries_[received_].file->size;
  remoteErrors_.push_back(error);
  ++received_;
  if (!knownBad) {
    closer_.close(std::move(file));
    collect(false);
    return fault_.empty();
  }
  // What the source reported, or a length unlike the list's, is known
  // now: the archives before it are settled and none after it is begun.
  collect(true);
  if (!fault_.empty()) return false;
  file->close();
  return verifyClosed(*file);
}

// Verifies the copies closed so far, in order; with wait, all of them.
void ArchiveBatch::collect(bool wait) {
  while (fault_.empty() && verified_ < received_) {
    std::unique_ptr<ReceivingFile> file = closer_.takeClosed(wait);
    if (!file || !verifyClosed(*file)) return;
  }
}

bool ArchiveBatch::verifyClosed(const ReceivingFile& file) {
  Ssh::Receipt receipt;
  std::string error = remoteErrors_.front();
  remoteErrors_.pop_front();
  receipt.status = error.empty() ? 0 : 1;
  receipt.bytes = file.bytes();
  receipt.md5sum = file.md5sum();
  receipt.writeError = file.error();
  const Entry& entry = entries_[verified_];
  std::string fault = listener_.verify(*entry.file, receipt, error);
  if (!fault.empty()) return fail(fault, verified_);
  confirmations_ += std::to_string(verified_) + "\n";
  logger().debug("Fetched and verified " + entry.remote);
  ++verified_;
  listener_.archiveDone(*entry.file);
  return true;
}

// The copies that arrived before the failing one may well be sound: they
// are checked first, so that what arrived before a failure stays fetched.
bool ArchiveBatch::fail(const std::string& why, std::size_t index) {
  while (fault_.empty() && verified_ < std::min(index, received_)) {
    std::unique_ptr<ReceivingFile> file = closer_.takeClosed(true);
    if (!file || !verifyClosed(*file)) break;
  }
  if (fault_.empty()) {
    fault_ = why.empty() ? "unknown failure" : why;
    // A stream that goes on after the last archive fails that one.
    failedIndex_ = std::min(index, entries_.size() - 1);
  }
  discard();
  return false;
}

void ArchiveBatch::open() {
  const Entry& entry = entries_[received_];
  listener_.archiveStarts(*entry.file, entry.start);
  logger().debug("Reading data to the file " + entry.local);
  file_ = std::make_unique<ReceivingFile>(entry.local, *entry.file->size,
                                          entry.start);
}

// A copy that is not verified must not pass for an archive later; one the
// closer still holds loses only its name. Copies kept from earlier fetches
// but not begun yet are handed over too.
void ArchiveBatch::discard() {
  std::size_t end = received_ + (file_ ? 1 : 0);
  file_.reset();
  if (!abandoned_) {
    for (std::size_t i = verified_; i < entries_.size(); ++i) {
      listener_.unverified(entries_[i], i < end);
    }
  }
  abandoned_ = true;
  received_ = verified_;
  remoteErrors_.clear();
}

long ArchiveBatch::read(char* data, std::size_t size) {
  collect(false);
  if (confirmations_.empty()) {
    return verified_ == entries_.size() || stopped() ? kEnd : kNothingYet;
  }
  std::size_t count = std::min(size, confirmations_.size());
  std::memcpy(data, confirmations_.data(), count);
  confirmations_.erase(0, count);
  return static_cast<long>(count);
}

int ArchiveBatch::idle() {
  collect(false);
  int wait = updater_.idle();
  return verified_ < received_ && (wait <= 0 || wait > 1) ? 1 : wait;
}

void ArchiveBatch::finish(int status, const std::string& err) {
  if (thrown_) {
    discard();
    std::rethrow_exception(thrown_);
  }
  collect(true);
  if (!fault_.empty() || verified_ == entries_.size()) return;
  std::string why = "the remote command ended with status " +
                    std::to_string(status) + " before the archive was sent";
  fail(err.empty() ? why : why + ": " + err, received_);
}

std::vector<std::string> ArchiveBatch::remotes(std::size_t from,
                                               std::size_t to) const {
  std::vector<std::string> paths;
  for (std::size_t i = from; i < to; ++i) paths.push_back(entries_[i].remote);
  return paths;
}

std::vector<uint64_t> ArchiveBatch::starts() const {
  std::vector<uint64_t> starts;
  for (const Entry& entry : entries_) starts.push_back(entry.start);
  return starts;
}

std::vector<std::string> ArchiveBatch::verifiedRemotes() const {
  return remotes(0, verified_);
}

// The lines still held, a line partly handed over among them, are the
// last ones confirmed.
std::vector<std::string> ArchiveBatch::unconfirmedRemotes() const {
  std::size_t held = static_cast<std::size_t>(
      std::count(confirmations_.begin(), confirmations_.end(), '\n'));
  return remotes(verified_ - held, verified_);
}

}  // namespace tovel
