#include "xml/migration_status.h"

#include <unistd.h>

namespace tovel {

XmlMigrationStatus::XmlMigrationStatus(const std::string& fileName,
                                       const AccountIds& owner)
    : fileName_(fileName), owner_(owner) {
  initNewDoc("migration-status");
}

void XmlMigrationStatus::setIdle() { state_ = kIdle; }

void XmlMigrationStatus::setAgentParams(const std::string& host) {
  agentParams_ = host;
}

void XmlMigrationStatus::setAgentOperation(agentOperation op) {
  state_ = kAgent;
  agentOperation_ = op;
}

void XmlMigrationStatus::setTransferSpeed(const std::string& speed) {
  speed_ = speed;
}

void XmlMigrationStatus::setTransferDump() { state_ = kTransferDump; }

void XmlMigrationStatus::setTransferTotals(const std::string& files,
                                           const std::string& size) {
  state_ = kTransferFiles;
  filesTotal_ = files;
  sizeTotal_ = size;
  filesLeft_ = files;
  sizeLeft_ = size;
}

void XmlMigrationStatus::setTransferFilesLeft(const std::string& files) {
  state_ = kTransferFiles;
  filesLeft_ = files;
}

void XmlMigrationStatus::setTransferSizeLeft(const std::string& size) {
  state_ = kTransferFiles;
  sizeLeft_ = size;
}

void XmlMigrationStatus::setCurrentFile(const std::string& name,
                                        const std::string& size) {
  currentFile_ = name;
  currentFileSize_ = size;
  currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setTransferCurrentFileSizeLeft(
    const std::string& size) {
  state_ = kTransferFiles;
  currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setDeployTotals(const std::string& accounts,
                                         const std::string& domains) {
  state_ = kDeploy;
  totalAccounts_ = accounts;
  totalDomains_ = domains;
}

void XmlMigrationStatus::setDeploy(const std::string& accounts,
                                   const std::string& domains) {
  state_ = kDeploy;
  completedAccounts_ = accounts;
  completedDomains_ = domains;
}

void XmlMigrationStatus::setCurrentObject(const std::string& name,
                                          objectType type) {
  currentObject_ = name;
  currentObjectType_ = type;
}

void XmlMigrationStatus::setTranslate() { state_ = kTranslate; }

void XmlMigrationStatus::saveFile() {
  pid_ = std::to_string(getpid());
  // The pid has never had a place in the document: the text child has no
  // parent, so nothing is added. Readers of the file rely on its absence.
  newTextChild(nullptr, "pid", pid_);
  clearRoot();
  buildContent();
  saveToFileAtomically(fileName_, owner_);
}

// Only the children go: the deploy phase's root attributes stay, with their
// last values, in later saves.
void XmlMigrationStatus::clearRoot() {
  while (root_->children != nullptr) {
    xmlNodePtr child = root_->children;
    xmlUnlinkNode(child);
    xmlFreeNode(child);
  }
}

void XmlMigrationStatus::buildContent() {
  switch (state_) {
    case kIdle:
      newChild(root_, "idle");
      break;
    case kAgent:
      buildAgent();
      break;
    case kTransferDump:
      newChild(buildTransfer(), "dumpfile");
      break;
    case kTransferFiles:
      buildFiles(buildTransfer());
      break;
    case kTranslate:
      newChild(root_, "translate");
      break;
    case kDeploy:
      buildDeploy();
      break;
  }
}

void XmlMigrationStatus::buildAgent() {
  xmlNodePtr agent = newChild(root_, "agent");
  addAttribute(agent, "action", agentOperation_ == deploy ? "deploy" : "wait");
  newTextChild(agent, "host", agentParams_);
}

xmlNodePtr XmlMigrationStatus::buildTransfer() {
  xmlNodePtr transfer = newChild(root_, "transfer");
  if (!speed_.empty()) addAttribute(transfer, "speed", speed_);
  newTextChild(transfer, "host", agentParams_);
  return transfer;
}

void XmlMigrationStatus::buildFiles(xmlNodePtr transfer) {
  xmlNodePtr files = newChild(transfer, "files");
  addAttribute(files, "total", filesTotal_);
  addAttribute(files, "left", filesLeft_);
  if (!sizeTotal_.empty() && !sizeLeft_.empty()) {
    addAttribute(files, "size-total", sizeTotal_);
    addAttribute(files, "size-left", sizeLeft_);
  }
  if (currentFile_.empty()) return;
  xmlNodePtr current = newTextChild(files, "current-file", currentFile_);
  if (!currentFileSize_.empty()) {
    addAttribute(current, "size", currentFileSize_);
    addAttribute(current, "size-left", currentFileSizeLeft_);
  }
}

void XmlMigrationStatus::buildDeploy() {
  addAttribute(root_, "total-accounts", totalAccounts_);
  addAttribute(root_, "total-domains", totalDomains_);
  addAttribute(root_, "completed-accounts", completedAccounts_);
  addAttribute(root_, "completed-domains", completedDomains_);
  if (currentObject_.empty()) return;
  xmlNodePtr object = newTextChild(root_, "current-object", currentObject_);
  addAttribute(object, "type",
               currentObjectType_ == account ? "account" : "domain");
}

std::unique_ptr<MigrationStatus> createMigrationStatusFile(
    const std::string& fileName, const AccountIds& owner) {
  return std::make_unique<XmlMigrationStatus>(fileName, owner);
}

}  // namespace tovel
