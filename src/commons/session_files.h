// The session directory of a migration and the name of every file in it.
// Names are plain concatenations of the path as given and a fixed suffix.
#ifndef FERROW_COMMONS_SESSION_FILES_H_
#define FERROW_COMMONS_SESSION_FILES_H_

#include <string>

#include "commons/accounts.h"
#include "errors/exc.h"

namespace tovel {

// The session directory is not there and cannot be made.
TOVEL_DECLARE_TAG(UnableToCreateSession)

class SessionFiles {
 public:
  // Creates the directory (owner 0, group = the uid of "dyradm", mode 0750)
  // and its "archives" subdirectory when missing; an existing directory is
  // kept as it is. Throws Exc<&UnableToCreateSession> when path is not a
  // directory afterwards.
  explicit SessionFiles(const std::string& path);

  std::string getDir() const;
  std::string getStatusFileName() const;            // D/migration.status
  std::string getDeploymentStatusFileName() const;  // D/agent-deployment.status
  std::string getScoutResultFileName() const;       // D/scout-result.xml
  std::string getDumpFileName() const;              // D/dump.xml
  std::string getLogFileName() const;               // D/migration.log
  std::string getResultFileName() const;            // D/migration.result
  std::string getDumpingStatusFileName() const;     // D/dumping-status.xml
  std::string getCidFilesDir() const;               // D itself
  std::string getCidFile(const std::string& name) const;  // D/name
  std::string getTovelDumpFileName() const;               // D/restore.xml

  // The account that the documents saved in the directory are handed to,
  // so that the panel's processes can read them: "dyradm", looked up at
  // each call (see lookupAccount).
  AccountIds getDocumentOwner() const;

  // Deletes the directory and everything under it. Throws
  // boost::filesystem::filesystem_error.
  void remove();

 private:
  std::string path_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::UnableToCreateSession, "UnableToCreateSession",
                 "Unable to create session: %1%");

#endif  // FERROW_COMMONS_SESSION_FILES_H_
