// The progress document "migration.status" that the migration manager polls
// while the tool runs, and the interface the actions write it through.
#ifndef FERROW_XML_MIGRATION_STATUS_H_
#define FERROW_XML_MIGRATION_STATUS_H_

#include <memory>
#include <string>

#include "commons/accounts.h"
#include "xml/xml_document.h"

namespace tovel {

// Setters only store; saveFile() writes the whole document. Numbers are
// decimal text supplied by the caller and written as given.
class MigrationStatus {
 public:
  enum agentOperation { deploy = 0, wait = 1 };
  enum objectType { account = 0, domain = 1 };

  virtual ~MigrationStatus() = default;
  // Shows "idle".
  virtual void setIdle() = 0;
  // The source host shown under "host"; the phase is unchanged.
  virtual void setAgentParams(const std::string& host) = 0;
  // Shows the agent phase: deploying (deploy) or waiting (anything else).
  virtual void setAgentOperation(agentOperation op) = 0;
  // Transfer speed; the phase is unchanged.
  virtual void setTransferSpeed(const std::string& speed) = 0;
  // Shows the transfer of the dump.
  virtual void setTransferDump() = 0;
  // Shows the transfer of files; totals, and what is left set to them.
  virtual void setTransferTotals(const std::string& files,
                                 const std::string& size) = 0;
  virtual void setTransferFilesLeft(const std::string& files) = 0;
  virtual void setTransferSizeLeft(const std::string& size) = 0;
  // The file being fetched, its size, and its size left set to it; the
  // phase is unchanged.
  virtual void setCurrentFile(const std::string& name,
                              const std::string& size) = 0;
  virtual void setTransferCurrentFileSizeLeft(const std::string& size) = 0;
  // Shows the deploy phase with its totals / completed counts.
  virtual void setDeployTotals(const std::string& accounts,
                               const std::string& domains) = 0;
  virtual void setDeploy(const std::string& accounts,
                         const std::string& domains) = 0;
  // The object being deployed; the phase is unchanged.
  virtual void setCurrentObject(const std::string& name, objectType type) = 0;
  // Shows "translate".
  virtual void setTranslate() = 0;
  // Rewrites the status file atomically, handed to its owner. Throws the
  // document layer's save errors.
  virtual void saveFile() = 0;
};

class XmlMigrationStatus : public tXmlQvtDocument, public MigrationStatus {
 public:
  // An empty "migration-status" document showing idle, saved to fileName
  // and handed to owner.
  XmlMigrationStatus(const std::string& fileName, const AccountIds& owner);

  void setIdle() override;
  void setAgentParams(const std::string& host) override;
  void setAgentOperation(agentOperation op) override;
  void setTransferSpeed(const std::string& speed) override;
  void setTransferDump() override;
  void setTransferTotals(const std::string& files,
                         const std::string& size) override;
  void setTransferFilesLeft(const std::string& files) override;
  void setTransferSizeLeft(const std::string& size) override;
  void setCurrentFile(const std::string& name,
                      const std::string& size) override;
  void setTransferCurrentFileSizeLeft(const std::string& size) override;
  void setDeployTotals(const std::string& accounts,
                       const std::string& domains) override;
  void setDeploy(const std::string& accounts,
                 const std::string& domains) override;
  void setCurrentObject(const std::string& name, objectType type) override;
  void setTranslate() override;
  void saveFile() override;

 private:
  enum State {
    kIdle = 0,
    kAgent = 1,
    kTransferDump = 2,
    kTransferFiles = 3,
    kTranslate = 4,
    kDeploy = 5,
  };

  void clearRoot();
  void buildContent();
  void buildAgent();
  xmlNodePtr buildTransfer();
  void buildFiles(xmlNodePtr transfer);
  void buildDeploy();

  const std::string fileName_;
  const AccountIds owner_;
  State state_ = kIdle;
  agentOperation agentOperation_ = deploy;
  std::string pid_;
  std::string agentParams_;
  std::string speed_;
  std::string filesTotal_, filesLeft_;
  std::string sizeTotal_, sizeLeft_;
  std::string currentFileSizeLeft_, currentFile_, currentFileSize_;
  std::string totalAccounts_, totalDomains_;
  std::string completedAccounts_, completedDomains_;
  std::string currentObject_;
  objectType currentObjectType_ = account;
};

// A new status document showing idle, owned by the caller; see
// XmlMigrationStatus.
std::unique_ptr<MigrationStatus> createMigrationStatusFile(
    const std::string& fileName, const AccountIds& owner);

}  // namespace tovel

#endif  // FERROW_XML_MIGRATION_STATUS_H_
