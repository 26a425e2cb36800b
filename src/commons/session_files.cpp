#include "commons/session_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>

#include "commons/accounts.h"
#include "commons/host_log.h"
#include "commons/product_paths.h"

namespace fs = boost::filesystem;

namespace tovel {

namespace {

const mode_t kSessionDirMode = 0750;

bool isMissing(const std::string& path) {
  boost::system::error_code ignored;
  fs::file_type type = fs::status(path, ignored).type();
  return type == fs::file_not_found || type == fs::status_error;
}

bool isDirectory(const std::string& path) {
  boost::system::error_code ignored;
  return fs::is_directory(path, ignored);
}

// One level only: a session whose parent is missing is a mistake of the
// caller, not something to paper over.
void createSessionDir(const std::string& path) {
  // The uid of the panel's account stands as the group id; installed
  // panels rely on that numbering, so it is kept on purpose.
  gid_t group = lookupAccount(kPanelAccount).uid;
  if (mkdir(path.c_str(), kSessionDirMode) != 0 && errno != EEXIST) {
    hostLog(HostLogLevel::kError, "Unable to create directory %s: %s",
            path.c_str(), std::strerror(errno));
    return;
  }
  if (chown(path.c_str(), 0, group) != 0) {
    hostLog(HostLogLevel::kError, "Unable to change owner of %s: %s",
            path.c_str(), std::strerror(errno));
  }
  if (chmod(path.c_str(), kSessionDirMode) != 0) {
    hostLog(HostLogLevel::kError, "Unable to change mode of %s: %s",
            path.c_str(), std::strerror(errno));
  }
}

}  // namespace

SessionFiles::SessionFiles(const std::string& path) : path_(path) {
  if (isMissing(path_)) createSessionDir(path_);
  if (!isDirectory(path_)) {
    TOVEL_THROW(UnableToCreateSession) % "Unable to create session directory";
  }
  std::string archives = path_ + "/archives";
  if (isMissing(archives)) createSessionDir(archives);
  // Only the session directory itself decides; content goes there anyway.
  if (!isDirectory(path_)) {
    TOVEL_THROW(UnableToCreateSession) %
        "Unable to create session archives directory";
  }
}

std::string SessionFiles::getDir() const { return path_; }

std::string SessionFiles::getStatusFileName() const {
  return path_ + "/migration.status";
}

std::string SessionFiles::getDeploymentStatusFileName() const {
  return path_ + "/agent-deployment.status";
}

std::string SessionFiles::getScoutResultFileName() const {
  return path_ + "/scout-result.xml";
}

std::string SessionFiles::getDumpFileName() const {
  return path_ + "/dump.xml";
}

std::string SessionFiles::getLogFileName() const {
  return path_ + "/migration.log";
}

std::string SessionFiles::getResultFileName() const {
  return path_ + "/migration.result";
}

std::string SessionFiles::getDumpingStatusFileName() const {
  return path_ + "/" + files::getRemoteDumpingStatusFileName();
}

std::string SessionFiles::getCidFilesDir() const { return path_; }

std::string SessionFiles::getCidFile(const std::string& name) const {
  return path_ + "/" + name;
}

std::string SessionFiles::getTovelDumpFileName() const {
  return path_ + "/restore.xml";
}

AccountIds SessionFiles::getDocumentOwner() const {
  return lookupAccount(kPanelAccount);
}

void SessionFiles::remove() { fs::remove_all(path_); }

}  // namespace tovel
