#include "log/run_log.h"

#include <sys/stat.h>

#include <boost/format.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commons/host_log.h"
#include "commons/session_files.h"
#include "errors/text_msg_formatter.h"
#include "log/debug_log.h"
#include "xml/xml_msg_formatter.h"
#include "xml/xml_node.h"

namespace tovel {

Log* theLog = nullptr;

namespace {

bool fileExists(const std::string& name) {
  struct stat st;
  return lstat(name.c_str(), &st) == 0;
}

// Keeps an earlier record: renames it to the first free "name.N".
void keepEarlierRecord(const std::string& name) {
  if (!fileExists(name)) return;
  for (int n = 1;; ++n) {
    std::string kept = name + (boost::format(".%1%") % n).str();
    if (fileExists(kept)) continue;
    if (std::rename(name.c_str(), kept.c_str()) != 0) {
      TOVEL_THROW(CantRenameFile) % name % kept % std::strerror(errno);
    }
    return;
  }
}

std::string recordName(const std::string& logName) {
  if (logName.empty()) return theSession->getResultFileName();
  return theSession->getDir() + "/" + logName;
}

void reportUnsavedRecord(const std::string& text) {
  if (theDebugLog) theDebugLog->log(text);
  hostLog(HostLogLevel::kError, "%s", text.c_str());
}

}  // namespace

XmlLog::XmlLog(const std::string& logName)
    : fileName_(recordName(logName)), owner_(theSession->getDocumentOwner()) {
  initNewDoc("execution-result");
  current_ = getRoot();
  hasError_.push_back(true);
  keepEarlierRecord(fileName_);
}

XmlLog::~XmlLog() {
  try {
    addAttribute(getRoot(), "status", success_ ? "success" : "error");
    saveToFileAtomically(fileName_, owner_);
  } catch (const ExTraceable& e) {
    reportUnsavedRecord("Unable to save the run record: " +
                        formatPlainTextMessage(e));
  } catch (const std::exception& e) {
    reportUnsavedRecord(std::string("Unable to save the run record: ") +
                        e.what());
  }
}

void XmlLog::log(const ExTraceable& e) {
  xmlNodePtr message = newChild(current_, "message");
  XmlMsgFormatter formatter(*this, message);
  e.accept(formatter);
  hasError_.back() = true;
}

void XmlLog::pushObject(const std::string& name, const std::string& type) {
  xmlNodePtr object = newChild(current_, "object");
  addAttribute(object, "name", name);
  addAttribute(object, "type", type);
  current_ = object;
  hasError_.push_back(false);
}

void XmlLog::popObject() {
  xmlNodePtr parent = current_->parent;
  if (parent == nullptr || parent->type != XML_ELEMENT_NODE) {
    TOVEL_THROW(NoParentNode);
  }
  if (hasError_.back()) {
    hasError_.pop_back();
    hasError_.back() = true;
  } else {
    xmlUnlinkNode(current_);
    xmlFreeNode(current_);
    hasError_.pop_back();
  }
  current_ = parent;
}

int XmlLog::getDepth() const { return static_cast<int>(hasError_.size()) - 1; }

LogLifetimeController::LogLifetimeController(const std::string& logName)
    : log_(new XmlLog(logName)) {
  theLog = log_.get();
}

LogLifetimeController::~LogLifetimeController() {
  theLog = nullptr;
  log_.reset();
}

}  // namespace tovel
