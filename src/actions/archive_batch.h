// ArchiveBatch: the receiving end of one archive stream (archive_stream.h).
// Each archive goes to its local file, which a FileCloser flushes to the
// disk while the next archive arrives; once closed, the copy is verified,
// and only then is its index confirmed on the command's input, which
// removes the source copy. Many small archives thus cost one command, not
// a few round trips and a disk flush each.
#ifndef FERROW_ACTIONS_ARCHIVE_BATCH_H_
#define FERROW_ACTIONS_ARCHIVE_BATCH_H_

#include <algorithm>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "actions/archive_stream.h"
#include "actions/file_retrieval_progress_updater.h"
#include "commons/unbuffered_output.h"
#include "transport/file_closer.h"
#include "transport/input_feed.h"
#include "transport/receiving_file.h"
#include "transport/ssh_transfer.h"
#include "xml/agent_file_list.h"

namespace tovel {

class ArchiveBatch : public InputFeed,
                     public Ssh::Counter,
                     private ArchiveStreamDecoder::Handler {
 public:
  struct Entry {
    const DumpFile* file;  // of listed size; not owned
    std::string local;
    std::string remote;
    // Bytes of the archive already in `local`, kept from an earlier fetch:
    // the stream starts after them.
    uint64_t start = 0;
  };

  // What the fetch decides around each archive.
  class Listener {
   public:
    virtual ~Listener() = default;
    // Before the archive's local file is opened; `kept` of its bytes are
    // there already.
    virtual void archiveStarts(const DumpFile& f, uint64_t kept) = 0;
    // The local copy is closed: empty when it is sound, else what is wrong
    // with it. remoteError is the sender's, empty when it read the archive
    // through.
    virtual std::string verify(const DumpFile& f, const Ssh::Receipt& receipt,
                               const std::string& remoteError) = 0;
    // After a sound copy was confirmed for removal.
    virtual void archiveDone(const DumpFile& f) = 0;
    // The batch stopped before entry's copy was verified: the listener
    // keeps or removes what is in entry.local. begun: the batch wrote to
    // it. Must not throw.
    virtual void unverified(const Entry& entry, bool begun) = 0;
  };

  // entries must not be empty. None of the references is owned; all must
  // outlive the batch.
  ArchiveBatch(std::vector<Entry> entries,
               FileRetrievalProgressUpdater& updater, Listener& listener);
  ~ArchiveBatch() override;

  // Where the command's standard output goes. A write fails once an
  // archive failed (fault()) or a listener threw (rethrown by finish()).
  std::ostream& output() { return output_; }

  // The confirmations, one line per verified archive; the end once every
  // archive is verified, or one failed.
  long read(char* data, std::size_t size) override;
  // Counts only the archives' bytes, as they reach their files.
  void update(std::size_t) override {}
  // Asks to be asked again within a millisecond while a copy is being
  // closed.
  int idle() override;

  // After the command ended with `status` and error text `err`: rethrows
  // what a listener threw; verifies the copies still being closed; if not
  // every archive arrived, the first one missing fails.
  void finish(int status, const std::string& err);
  // After the command failed: hands every copy not verified to the
  // listener (Listener::unverified), once.
  void abandon() { discard(); }

  // True once the batch stopped the stream: an archive failed or a
  // listener threw.
  bool stopped() const { return !fault_.empty() || thrown_ != nullptr; }
  // Empty while no archive failed; else what is wrong with failed().
  const std::string& fault() const { return fault_; }
  const Entry& failed() const { return entries_[failedIndex_]; }
  // The source paths of entries [from, to).
  std::vector<std::string> remotes(std::size_t from, std::size_t to) const;
  // Where each entry's stream starts.
  std::vector<uint64_t> starts() const;
  // How many archives, from the first, were verified.
  std::size_t verified() const { return verified_; }
  // The archives verified so far, in order.
  std::vector<std::string> verifiedRemotes() const;
  // Those whose confirmation was not handed to the command whole.
  std::vector<std::string> unconfirmedRemotes() const;
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  class Sink : public UnbufferedOutput {
   public:
    explicit Sink(ArchiveBatch& batch) : batch_(batch) {}

   protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override;

   private:
    ArchiveBatch& batch_;
  };

  bool take(const char* data, std::size_t size);
  bool data(const char* bytes, std::size_t size) override;
  bool end(const std::string& error) override;
  void collect(bool wait);
  bool verifyClosed(const ReceivingFile& file);
  bool fail(const std::string& why, std::size_t index);
  void open();
  void discard();

  std::vector<Entry> entries_;
  FileRetrievalProgressUpdater& updater_;
  Listener& listener_;
  ArchiveStreamDecoder decoder_;
  Sink sink_;
  std::ostream output_;
  // Archives [verified_, received_) are with the closer, their senders'
  // error texts in remoteErrors_; file_ is entries_[received_], once begun.
  std::size_t received_ = 0;
  std::size_t verified_ = 0;
  std::unique_ptr<ReceivingFile> file_;
  std::deque<std::string> remoteErrors_;
  std::string confirmations_;  // not yet handed to the pump
  std::string fault_;
  std::size_t failedIndex_ = 0;
  std::exception_ptr thrown_;
  bool abandoned_ = false;
  // Last: its thread must end before what it closes for goes.
  FileCloser closer_;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_ARCHIVE_BATCH_H_
