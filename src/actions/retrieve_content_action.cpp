#include "actions/retrieve_content_action.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <log4cpp/Category.hh>
#include <memory>
#include <regex>
#include <sstream>

#include "agents/agents_factory.h"
#include "commons/accounts.h"
#include "commons/capped_output.h"
#include "commons/checksum.h"
#include "commons/free_space.h"
#include "commons/make_dir.h"
#include "commons/product_paths.h"
#include "commons/session_files.h"
#include "commons/sh_quote.h"
#include "commons/unbuffered_output.h"

namespace tovel {

namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.RetrieveContentAction");
}

// The archives are read by the panel's tools as well as by root, so their
// directories get an exact 0755 whatever umask the caller left.
void make_content_dir(const std::string& path, const AccountIds& owner,
                      mode_t mode) {
  mode_t saved = umask(022);
  make_dir(path, owner.uid, owner.gid, mode);
  umask(saved);
}

std::string parentOf(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string baseNameOf(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The local copy that the skip test compares: in the session directory, by
// base name, wherever the archives are downloaded to.
std::string skipCandidate(const SessionFiles& session, const DumpFile& f) {
  return session.getCidFilesDir() + "/" + baseNameOf(f.name);
}

void writePointerFile(const std::string& path, const std::string& content) {
  try {
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(path.c_str(), std::ios::out | std::ios::trunc);
    file << content;
    file.close();
  } catch (const std::ios_base::failure& e) {
    TOVEL_THROW(FileWrite) % path % e.what();
  }
}

// The expected sum stands where the message says "has": the panel's readers
// of the record expect this order.
Exc<&WrongMd5Sum> wrongMd5Sum(const DumpFile& f, const std::string& sum) {
  Exc<&WrongMd5Sum> e(__PRETTY_FUNCTION__, __FILE__, __LINE__);
  e % f.name % f.md5sum % sum;
  return e;
}

// The content list is held in memory to be parsed; a bound keeps an agent
// that never stops printing from exhausting it. Real lists take about
// 150 bytes per archive.
const std::size_t kMaxContentListBytes = std::size_t(64) << 20;

// Collects text up to a limit; past it every write fails, which stops the
// command that writes.
class BoundedText : public UnbufferedOutput {
 public:
  explicit BoundedText(std::size_t limit) : limit_(limit) {}
  const std::string& str() const { return text_; }
  bool overflowed() const { return overflowed_; }

 protected:
  std::streamsize xsputn(const char* data, std::streamsize size) override {
    if (size < 0 || text_.size() + static_cast<std::size_t>(size) > limit_) {
      overflowed_ = true;
      return 0;
    }
    text_.append(data, static_cast<std::size_t>(size));
    return size;
  }

 private:
  std::size_t limit_;
  std::string text_;
  bool overflowed_ = false;
};

// The received sum is in lower case; agents may list theirs in capitals.
bool sameSum(const std::string& listed, const std::string& received) {
  return listed.size() == received.size() &&
         std::equal(listed.begin(), listed.end(), received.begin(),
                    [](char a, char b) {
                      return std::tolower(static_cast<unsigned char>(a)) == b;
                    });
}

// A copy that failed its checks must not pass for an archive later.
void discardLocalCopy(const std::string& path) {
  if (unlink(path.c_str()) == 0) {
    logger().debug("Removed the incomplete local copy " + path);
  }
}

}  // namespace

void RetrieveContentAction::execute() {
  try {
    retrieve();
  } catch (const ExTraceable& e) {
    TOVEL_THROW_WRAP(CantRetrieveDump, e);
  }
}

void RetrieveContentAction::retrieve() {
  AccountIds owner = lookupAccount(kPanelAccount);
  make_content_dir(session().getCidFilesDir(), owner, 0755);
  status_->setAgentParams(cfg().host);
  status_->setTransferDump();
  status_->saveFile();

  std::unique_ptr<AgentFileList> list = fetchFileList();
  std::vector<DumpFile> files = list->getFileList();
  int64_t total = list->getTotalSize();
  std::string destination = destinationDir();
  if (!cfg().noCheckSpace) checkSpace(destination, total);
  status_->setTransferTotals(std::to_string(files.size()),
                             std::to_string(total));
  transfer(files, total, destination, owner);

  writePointerFile(session().getDir() + "/dump-name",
                   destination + "/dump.xml");
  writePointerFile(session().getDir() + "/migration-result-name",
                   destination + "/migration.result");
  list.reset();
}

std::unique_ptr<AgentFileList> RetrieveContentAction::fetchFileList() {
  std::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg().agentName);
  const std::string command =
      agentCommands().agentLine(*agent, {"--get-content-list"});
  BoundedText list(kMaxContentListBytes);
  std::ostream out(&list);
  CappedOutput err;
  int status = -1;
  try {
    status = execRoot(command, out, err, false);
  } catch (const Exc<&StreamWrite>&) {
    if (!list.overflowed()) throw;
    TOVEL_THROW(CantRetrieveContentList) %
        ("the content list is longer than " +
         std::to_string(kMaxContentListBytes) + " bytes");
  }
  if (status != 0) TOVEL_THROW(CantRetrieveContentList) % err.str();
  return getFileList(list.str());
}

void RetrieveContentAction::checkSpace(const std::string& destination,
                                       int64_t total) {
  uint64_t free = getFreeSpace(destination);
  // Only the packed total counts: the archives are not unpacked here. A
  // total below zero fits anywhere.
  if (total > 0 && free < static_cast<uint64_t>(total)) {
    TOVEL_THROW(NotEnoughSpace) % free % total;
  }
}

void RetrieveContentAction::transfer(const std::vector<DumpFile>& files,
                                     int64_t total,
                                     const std::string& destination,
                                     const AccountIds& owner) {
  updater_ = std::make_unique<FileRetrievalProgressUpdater>(
      *status_, progress(), total, static_cast<int>(files.size()));
  // The store is named after the destination's real path: it must exist.
  make_content_dir(destination, owner, 0755);
  partials_ =
      std::make_unique<PartialStore>(files::getPartialsDir(), destination);
  partials_->prune(files);
  std::vector<const DumpFile*> wanted = skipPresent(files, destination, owner);
  for (std::size_t i = 0; i < wanted.size();) {
    if (!wanted[i]->size) {
      fetchFile(*wanted[i++], destination);
      continue;
    }
    i -= fetchBatch(nextBatch(wanted, &i, destination));
  }
  updater_->flush();
}

// The consecutive archives of listed size from *next on whose command line
// fits kMaxCommandBytes, at least one; *next is moved past them. A path
// costs its doubly quoted length (the line is quoted again as a word of
// sh -c) and a quoted blank; a start, at most 20 digits and a comma.
std::vector<ArchiveBatch::Entry> RetrieveContentAction::nextBatch(
    const std::vector<const DumpFile*>& wanted, std::size_t* next,
    const std::string& destination) {
  std::size_t length =
      agentCommands()
          .inAgentDir(AgentCommands::asRoot(
              AgentCommands::streamArchives({}, {})))
          .size();
  std::vector<ArchiveBatch::Entry> entries;
  for (std::size_t& i = *next; i < wanted.size() && wanted[i]->size; ++i) {
    const DumpFile& f = *wanted[i];
    std::string remote = agentCommands().path(f.name);
    length += sh_quote(sh_quote(remote)).size() + 2 +
              (*f.size >= PartialStore::kMinBytes ? 21 : 2);
    if (!entries.empty() && length > kMaxCommandBytes) break;
    std::string local = destination + "/" + f.name;
    uint64_t start = partials_->restore(f, local);
    entries.push_back({&f, std::move(local), std::move(remote), start});
  }
  return entries;
}

// The skip test reads local files only: a skipped archive costs no round
// trip.
std::vector<const DumpFile*> RetrieveContentAction::skipPresent(
    const std::vector<DumpFile>& files, const std::string& destination,
    const AccountIds& owner) {
  std::vector<const DumpFile*> wanted;
  for (const DumpFile& f : files) {
    make_content_dir(parentOf(destination + "/" + f.name), owner, 0755);
    if (!checkMD5(f)) {
      wanted.push_back(&f);
      continue;
    }
    logger().debug("Skipping " + f.name + ": the local copy is complete");
    partials_->discard(f);
    status_->setTransferFilesLeft(std::to_string(updater_->fileDone()));
  }
  updater_->changed();
  return wanted;
}

void RetrieveContentAction::archiveStarts(const DumpFile& f, uint64_t kept) {
  status_->setCurrentFile(f.name,
                          f.size ? std::to_string(*f.size) : std::string());
  updater_->startFile(f.size, kept);
  updater_->changed();
}

// A copy that failed its sum is worth nothing; one not begun is there
// only when it was kept from an earlier fetch.
void RetrieveContentAction::unverified(const ArchiveBatch::Entry& entry,
                                       bool begun) {
  if (!begun && entry.start == 0) return;
  if (wrongSum_.count(entry.file) != 0) {
    discardLocalCopy(entry.local);
  } else {
    partials_->keep(*entry.file, entry.local);
  }
}

void RetrieveContentAction::archiveDone(const DumpFile&) {
  status_->setTransferFilesLeft(std::to_string(updater_->fileDone()));
  updater_->changed();
}

void RetrieveContentAction::fetchFile(const DumpFile& f,
                                      const std::string& destination) {
  archiveStarts(f, 0);
  std::string local = destination + "/" + f.name;
  std::string remote = agentCommands().path(f.name);
  logger().debug("Fetching " + remote + " to " + local);
  CappedOutput err;
  Ssh::Receipt receipt;
  try {
    receipt = getSsh()->receive(remote, err, local, *updater_);
  } catch (...) {
    discardLocalCopy(local);
    throw;
  }
  std::string fault = verify(f, receipt, err.str());
  if (!fault.empty()) {
    discardLocalCopy(local);
    TOVEL_THROW(CantRetrieveContentFile) % remote % cfg().host % local % fault;
  }
  removeRemoteFiles({remote}, AgentCommands::removeFile(remote));
  archiveDone(f);
}

// Returns how many of the entries are to be fetched again: those from a
// resumed archive whose sum came out wrong, which is then fetched from its
// start.
std::size_t RetrieveContentAction::fetchBatch(
    std::vector<ArchiveBatch::Entry> entries) {
  ArchiveBatch batch(std::move(entries), *updater_, *this);
  const std::string command = AgentCommands::streamArchives(
      batch.remotes(0, batch.entries().size()), batch.starts());
  CappedOutput err;
  int status = -1;
  try {
    status = execRoot(command, batch,
                      batch.output(), err, true, true, batch);
  } catch (const Exc<&StreamWrite>&) {
    // Only the batch's own stop is its business.
    if (!batch.stopped()) {
      batch.abandon();
      throw;
    }
  } catch (...) {
    batch.abandon();
    throw;
  }
  batch.finish(status, err.str());
  logFailedRemovals(err.str(), batch.entries());
  // After a failure, confirmations on their way when the command stopped
  // may not have arrived; removing what is already gone changes nothing.
  // After a success only one never handed over is left to remove.
  std::vector<std::string> again = batch.fault().empty()
                                       ? batch.unconfirmedRemotes()
                                       : batch.verifiedRemotes();
  if (!again.empty()) {
    removeRemoteFiles(again, AgentCommands::removeFiles(again));
  }
  if (batch.fault().empty()) return 0;
  const ArchiveBatch::Entry& failed = batch.failed();
  if (failed.start > 0 && wrongSum_.erase(failed.file) != 0) {
    logger().debug("Fetching " + failed.remote + " again from its start");
    updater_->refetch(*failed.file->size);
    return batch.entries().size() - batch.verified();
  }
  TOVEL_THROW(CantRetrieveContentFile) % failed.remote % cfg().host %
      failed.local % batch.fault();
}

// Empty when the local copy is complete: written and closed without error,
// as long as listed and with the listed sum, where the list gives them.
// Otherwise what is wrong with it, for the error message.
std::string RetrieveContentAction::verify(const DumpFile& f,
                                          const Ssh::Receipt& receipt,
                                          const std::string& catError) {
  if (!receipt.writeError.empty()) return receipt.writeError;
  if (receipt.status != 0) return catError;
  if (f.size && receipt.bytes != *f.size) {
    return "received " + std::to_string(receipt.bytes) + " bytes, but " +
           std::to_string(*f.size) + " are listed";
  }
  if (!f.md5sum.empty() && !sameSum(f.md5sum, receipt.md5sum)) {
    wrongSum_.insert(&f);
    recordWrongMd5Sum(f, receipt.md5sum);
    return "received data has MD5 sum " + receipt.md5sum + ", but " + f.md5sum +
           " is listed";
  }
  return std::string();
}

// The archives are already safe here; a copy left behind on the source
// host only costs space there, so removal never stops the transfer.
void RetrieveContentAction::removeRemoteFiles(
    const std::vector<std::string>& remotes, const std::string& command) {
  std::string what = remotes.front();
  for (std::size_t i = 1; i < remotes.size(); ++i) what += "', '" + remotes[i];
  CappedOutput out, err;
  try {
    if (execRoot(command, out, err, false) != 0) {
      Exc<&UnableToRemoveRemoteFile> e(__PRETTY_FUNCTION__, __FILE__, __LINE__);
      e % what % cfg().host % err.str();
      debugLog().log(e);
    }
  } catch (const ExTraceable& e) {
    debugLog().log(e);
  } catch (const std::exception& e) {
    Exc<&UnableToRemoveRemoteFile> wrapped(__PRETTY_FUNCTION__, __FILE__,
                                           __LINE__);
    wrapped % what % cfg().host % e.what();
    debugLog().log(wrapped);
  } catch (...) {
    Exc<&UnableToRemoveRemoteFile> wrapped(__PRETTY_FUNCTION__, __FILE__,
                                           __LINE__);
    wrapped % what % cfg().host % "Unknown internal exception occured";
    debugLog().log(wrapped);
  }
}

// The stream's remover reports each failure as "unlink INDEX: REASON".
void RetrieveContentAction::logFailedRemovals(
    const std::string& err, const std::vector<ArchiveBatch::Entry>& entries) {
  static const std::regex failure("^unlink ([0-9]+): (.*)$");
  std::istringstream lines(err);
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (!std::regex_match(line, match, failure)) continue;
    std::size_t index = std::stoul(match[1]);
    if (index >= entries.size()) continue;
    Exc<&UnableToRemoveRemoteFile> e(__PRETTY_FUNCTION__, __FILE__, __LINE__);
    e % entries[index].remote % cfg().host % match[2].str();
    debugLog().log(e);
  }
}

std::string RetrieveContentAction::destinationDir() const {
  return cfg().dumpsDir.empty() ? session().getCidFilesDir() : cfg().dumpsDir;
}

bool RetrieveContentAction::checkMD5(const DumpFile& f) {
  std::string local = skipCandidate(session(), f);
  if (f.md5sum.empty()) return false;
  // A directory of that name opens as a stream but cannot be read.
  struct stat info;
  if (stat(local.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  std::ifstream in(local.c_str(), std::ios::binary);
  if (!in.is_open()) return false;
  return countMd5Sum(in) == f.md5sum;
}

void RetrieveContentAction::checkFile(const DumpFile& f) {
  std::string local = skipCandidate(session(), f);
  try {
    std::ifstream in(local.c_str(), std::ios::binary);
    if (!in.is_open()) return;
    std::string sum = countMd5Sum(in);
    if (sum != f.md5sum) runRecord().log(wrongMd5Sum(f, sum));
  } catch (const std::exception& e) {
    logger().debug("Unable to check " + local + ": " + e.what());
  }
}

void RetrieveContentAction::recordWrongMd5Sum(const DumpFile& f,
                                              const std::string& sum) {
  Exc<& WrongMd5Sum> e = wrongMd5Sum(f, sum);
  debugLog().log(e);
  runRecord().log(e);
}

}  // namespace tovel
