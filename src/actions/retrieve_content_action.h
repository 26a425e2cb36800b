// "--get-content": fetches the content archives that the agent packed on
// the source host, skipping those whose local copy already has the listed
// MD5 sum, and removes each fetched archive on the source host.
#ifndef FERROW_ACTIONS_RETRIEVE_CONTENT_ACTION_H_
#define FERROW_ACTIONS_RETRIEVE_CONTENT_ACTION_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "actions/action.h"
#include "actions/retrieval_errors.h"
#include "actions/transfer_progress.h"
#include "commons/accounts.h"
#include "errors/exc.h"
#include "xml/agent_file_list.h"

namespace tovel {

// The list, one archive, its removal, the room for it, its sum.
TOVEL_DECLARE_TAG(CantRetrieveContentList)
TOVEL_DECLARE_TAG(CantRetrieveContentFile)
TOVEL_DECLARE_TAG(UnableToRemoveRemoteFile)
TOVEL_DECLARE_TAG(NotEnoughSpace)
TOVEL_DECLARE_TAG(WrongMd5Sum)

// Writes the transfer figures into the status document after every chunk
// received; "migration.status" is rewritten at most every kSaveIntervalMs
// and whenever the last chunk of a file of listed size arrives. Figures
// held back are saved once kSaveIntervalMs has passed even when no more
// data comes (idle), so the document never lags a stalled source for
// longer. The same figures go to the progress watcher, if any.
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
  // status must outlive the updater.
  FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize,
                               int files, Clock clock = &currentTime,
                               SaveClock saveClock = &monotonicMs);

  // Counts a chunk of n bytes, then sets the speed (bytes per second since
  // the start, "0" within the first second), the size left and the current
  // file's size left; saves when no save of the updater happened within
  // kSaveIntervalMs, or when the chunk completes the current file. Throws
  // the document's save errors.
  void operator()(long n);
  void update(std::size_t bytes) override;
  // Saves the figures that the interval held back once it has passed;
  // returns the milliseconds left until then, or -1 when nothing waits.
  // Throws the document's save errors.
  int idle() override;

  // Before each file of the list: its listed size, if any, is what is left
  // of it. A file of no listed size has no figures of its own.
  void startFile(std::optional<uint64_t> size);
  // After each file, fetched or skipped; returns the files left.
  int fileDone();

  int64_t transferred() const { return transferred_; }
  int64_t sizeLeft() const { return sizeLeft_; }

  static std::time_t currentTime();
  static int64_t monotonicMs();

 private:
  MigrationStatus& status_;
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
  // Hands the figures to the progress watcher (transfer_progress.h).
  void report() const;
};

class RetrieveContentAction : public Action {
 public:
  RetrieveContentAction() : Action(true) {}

  // Asks the agent (as root) for its content list (longer than 64 MiB:
  // CantRetrieveContentList), checks the free space of the destination
  // directory ("--dumps-dir", else the session directory) unless
  // "--no-check-space", fetches each archive not already present and
  // removes it on the source host (a failed removal is only logged), then
  // writes the session's "dump-name" and "migration-result-name".
  // An archive is removed on the source host only once its local copy was
  // written and closed without error, "cat" succeeded, and the copy has the
  // listed size and MD5 sum, each where listed (the sum compared without
  // regard to case); an archive of no listed size is fetched whole, one of
  // a listed size is cut off there. Otherwise the local copy is removed,
  // the source copy kept, a wrong sum recorded as WrongMd5Sum in the run
  // record, and the step fails with CantRetrieveContentFile. Every error of
  // the family is
  // wrapped in CantRetrieveDump, except the connection failures that have
  // exit codes of their own (SshConnectionFault and those of connecting
  // and logging in), which pass as they are. Files fetched before a
  // failure stay.
  void execute() override;

  // True when the session directory holds a regular file of f's base name
  // with f's MD5 sum, compared exactly (a sum listed in capital letters
  // never matches, so that archive is fetched again); false for an empty
  // listed sum or no such file. Throws
  // StreamRead when the local file cannot be read through.
  bool checkMD5(const DumpFile& f);

  // Writes WrongMd5Sum to the run record when the local copy (found as
  // checkMD5 finds it) exists and has another sum. Never throws; does
  // nothing without a run record.
  void checkFile(const DumpFile& f);

 private:
  void retrieve();
  std::unique_ptr<AgentFileList> fetchFileList();
  void checkSpace(const std::string& destination, int64_t total);
  void transfer(const std::vector<DumpFile>& files, int64_t total,
                const std::string& destination, const AccountIds& owner);
  void fetchFile(const DumpFile& f, const std::string& destination,
                 FileRetrievalProgressUpdater& updater);
  std::string verify(const DumpFile& f, const Ssh::Receipt& receipt,
                     const std::string& catError);
  void recordWrongMd5Sum(const DumpFile& f, const std::string& sum);
  void removeRemoteFile(const std::string& remote);
  std::string destinationDir() const;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::CantRetrieveContentList, "CantRetrieveContentList",
                 "Error during content list retrieval: %1%");
TOVEL_EXC_TRAITS(&tovel::CantRetrieveContentFile, "CantRetrieveContentFile",
                 "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%");
TOVEL_EXC_TRAITS(&tovel::UnableToRemoveRemoteFile, "UnableToRemoveRemoteFile",
                 "Unable to remove remote file '%1%' from '%2%': %3%");
TOVEL_EXC_TRAITS(&tovel::NotEnoughSpace, "NotEnoughSpace",
                 "Selected filesystem has only %1% free space, but %2% is "
                 "needed for operation");
TOVEL_EXC_TRAITS(&tovel::WrongMd5Sum, "WrongMd5Sum",
                 "Problem during content retrieval: downloaded %1% has MD5 sum "
                 "%2%, but it has to be %3%. Restarting download.");

#endif  // FERROW_ACTIONS_RETRIEVE_CONTENT_ACTION_H_
