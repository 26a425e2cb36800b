// "--get-content": fetches the content archives that the agent packed on
// the source host, skipping those whose local copy already has the listed
// MD5 sum, and removes each fetched archive on the source host.
#ifndef FERROW_ACTIONS_RETRIEVE_CONTENT_ACTION_H_
#define FERROW_ACTIONS_RETRIEVE_CONTENT_ACTION_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "actions/action.h"
#include "actions/archive_batch.h"
#include "actions/file_retrieval_progress_updater.h"
#include "actions/partial_store.h"
#include "actions/retrieval_errors.h"
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

class RetrieveContentAction : public Action, private ArchiveBatch::Listener {
 public:
  // The command line of one batch, as sent, stays within this many bytes:
  // libssh2 sends it in one packet, and refuses one of 35 000 bytes or
  // more ("Unable to send channel request").
  static constexpr std::size_t kMaxCommandBytes = 32 * 1024;

  explicit RetrieveContentAction(const RunContext& run) : Action(run, true) {}

  // Asks the agent (as root) for its content list (longer than 64 MiB:
  // CantRetrieveContentList), checks the free space of the destination
  // directory ("--dumps-dir", else the session directory) unless
  // "--no-check-space", fetches each archive not already present and
  // removes it on the source host (a failed removal is only logged), then
  // writes the session's "dump-name" and "migration-result-name".
  // Consecutive archives of listed size come back to back in one remote
  // command each (ArchiveBatch), as many as fit in kMaxCommandBytes; each is removed on the source once verified, while the
  // next ones arrive. An archive of no listed size is fetched on its own.
  // An archive is removed on the source host only once its local copy was
  // written and closed without error, "cat" succeeded, and the copy has the
  // listed size and MD5 sum, each where listed (the sum compared without
  // regard to case); an archive of no listed size is fetched whole, one of
  // a listed size is cut off there. Otherwise the local copy is removed,
  // the source copy kept, a wrong sum recorded as WrongMd5Sum in the run
  // record, and the step fails with CantRetrieveContentFile.
  //
  // A copy of an archive of listed size that stopped early (the
  // connection lost, a cancel, a failed write, bytes missing) goes to the
  // PartialStore, unless its sum was found wrong; the next run resumes it
  // from where it ends, within a batch, and sums the whole file. A resumed
  // copy with a wrong sum is removed and the archive fetched once more
  // from its start in the same run. Kept copies of archives no longer
  // listed as they were, and of archives skipped, are removed first.
  //
  // Every error of
  // the family is
  // wrapped in CantRetrieveDump, except the connection failures that have
  // exit codes of their own (SshConnectionFault and those of connecting
  // and logging in), which pass as they are. Files fetched before a
  // failure stay; a removal still on its way when the command failed is
  // repeated, unless the connection is gone.
  void execute() override;

  // True when the session directory holds a regular file of f's base name
  // with f's MD5 sum, compared exactly (a sum listed in capital letters
  // never matches, so that archive is fetched again); false for an empty
  // listed sum or no such file. Throws
  // StreamRead when the local file cannot be read through.
  bool checkMD5(const DumpFile& f);

  // Writes WrongMd5Sum to the run record when the local copy (found as
  // checkMD5 finds it) exists and has another sum. Never throws.
  void checkFile(const DumpFile& f);

 private:
  void retrieve();
  std::unique_ptr<AgentFileList> fetchFileList();
  void checkSpace(const std::string& destination, int64_t total);
  void transfer(const std::vector<DumpFile>& files, int64_t total,
                const std::string& destination, const AccountIds& owner);
  std::vector<ArchiveBatch::Entry> nextBatch(
      const std::vector<const DumpFile*>& wanted, std::size_t* next,
      const std::string& destination);
  std::vector<const DumpFile*> skipPresent(const std::vector<DumpFile>& files,
                                           const std::string& destination,
                                           const AccountIds& owner);
  void fetchFile(const DumpFile& f, const std::string& destination);
  std::size_t fetchBatch(std::vector<ArchiveBatch::Entry> entries);
  void archiveStarts(const DumpFile& f, uint64_t kept) override;
  void unverified(const ArchiveBatch::Entry& entry, bool begun) override;
  std::string verify(const DumpFile& f, const Ssh::Receipt& receipt,
                     const std::string& catError) override;
  void archiveDone(const DumpFile& f) override;
  void recordWrongMd5Sum(const DumpFile& f, const std::string& sum);
  void removeRemoteFiles(const std::vector<std::string>& remotes,
                         const std::string& command);
  void logFailedRemovals(const std::string& err,
                         const std::vector<ArchiveBatch::Entry>& entries);
  std::string destinationDir() const;

  std::unique_ptr<FileRetrievalProgressUpdater> updater_;
  std::unique_ptr<PartialStore> partials_;
  // Archives whose copy was found to have a wrong sum: never kept.
  std::set<const DumpFile*> wrongSum_;
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
