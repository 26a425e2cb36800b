// FileRetrievalProgressUpdater: the figures of the content transfer, kept
// in the status document and handed to the progress watcher.
#ifndef FERROW_ACTIONS_FILE_RETRIEVAL_PROGRESS_UPDATER_H_
#define FERROW_ACTIONS_FILE_RETRIEVAL_PROGRESS_UPDATER_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>

#include "actions/transfer_progress.h"
#include "transport/ssh_transfer.h"
#include "xml/migration_status.h"

namespace tovel {

// Writes the transfer figures into the status document after every chunk
// received; "migration.status" is rewritten at most every kSaveIntervalMs,
// the first time at once. What changed meanwhile (figures, the current
// file, the files left) is saved once kSaveIntervalMs has passed even when
// no more data comes (idle), so the document never lags a stalled source
// for longer. The same figures go to the progress watcher, if any.
class FileRetrievalProgressUpdater : public Ssh::Counter {
 public:
  typedef std::time_t (*Clock)();
  // Milliseconds of a clock that never goes back.
  typedef int64_t (*SaveClock)();

  // Least time between two saves of the figures within one file. A save
  // costs tens of microseconds and a chunk of 64 KiB arrives every few
  // hundred on a fast link, so saving each one cost about 8% of a transfer.
  static constexpr int64_t kSaveIntervalMs = 100;

  // The transfer phase starts now (by clock); nothing is received yet.
  // status, and watcher unless null, must outlive the updater.
  FileRetrievalProgressUpdater(MigrationStatus& status,
                               TransferProgressListener* watcher,
                               int64_t totalSize, int files,
                               Clock clock = &currentTime,
                               SaveClock saveClock = &monotonicMs);

  // Counts a chunk of n bytes, then sets the speed (bytes per second since
  // the start, "0" within the first second), the size left and the current
  // file's size left, and saves them as changed() does. Throws the
  // document's save errors.
  void operator()(long n);
  void update(std::size_t bytes) override;
  // Saves the figures that the interval held back once it has passed;
  // returns the milliseconds left until then, or -1 when nothing waits.
  // Throws the document's save errors.
  int idle() override;

  // The document changed: saves it unless the updater saved it within
  // kSaveIntervalMs; then idle() or a later change saves it. Throws the
  // document's save errors.
  void changed();
  // Saves what is held back, if anything. Throws as changed().
  void flush();

  // Before each file of the list: its listed size, if any, less the `kept`
  // bytes already here from an earlier fetch, is what is left of it; the
  // kept bytes leave the size left, not the speed. A file of no listed
  // size has no figures of its own.
  void startFile(std::optional<uint64_t> size, uint64_t kept = 0);
  // A file whose `bytes` were counted is to be fetched again from its
  // start: they are left again (the speed keeps them: they did arrive).
  void refetch(uint64_t bytes);
  // After each file, fetched or skipped; returns the files left.
  int fileDone();

  int64_t transferred() const { return transferred_; }
  int64_t sizeLeft() const { return sizeLeft_; }

  static std::time_t currentTime();
  static int64_t monotonicMs();

 private:
  MigrationStatus& status_;
  TransferProgressListener* watcher_;
  Clock clock_;
  SaveClock saveClock_;
  bool saved_ = false;
  bool heldBack_ = false;  // figures set but not saved
  int64_t lastSaveMs_ = 0;
  std::time_t startTime_;
  int64_t transferred_ = 0;
  int64_t sizeLeft_;
  int filesLeft_;
  bool currentFileSized_ = false;
  int64_t currentFileSizeLeft_ = 0;
  int64_t sizeTotal_;
  int filesTotal_;
  int64_t speed_ = 0;

  void save(int64_t nowMs);
  // Puts the figures in the document and saves it as changed() does.
  void setFigures();
  // Hands the figures to the watcher, if any.
  void report() const;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_FILE_RETRIEVAL_PROGRESS_UPDATER_H_
