#include "log/run_log.h"

#include <sys/stat.h>

#include <boost/format.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commons/host_log.h"
#include "errors/text_msg_formatter.h"
#include "xml/xml_msg_formatter.h"
#include "xml/xml_node.h"

namespace tovel {

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

std::string recordName(const SessionFiles& session,
                       const std::string& logName) {
  if (logName.empty()) return session.getResultFileName();
  return session.getDir() + "/" + logName;
}

}  // namespace

XmlLog::XmlLog(const SessionFiles& session, const std::string& logName,
               DebugLog& debugLog)
    : fileName_(recordName(session, logName)),
      owner_(session.getDocumentOwner()),
      debugLog_(debugLog) {
  initNewDoc("execution-result");
  current_ = getRoot();
  hasError_.push_back(true);
  keepEarlierRecord(fileName_);
}

XmlLog::~XmlLog() {
  std::string failure;
  try {
    addAttribute(getRoot(), "status", success_ ? "success" : "error");
    saveToFileAtomically(fileName_, owner_);
    return;
  } catch (const ExTraceable& e) {
    failure = formatPlainTextMessage(e);
  } catch (const std::exception& e) {
    failure = e.what();
  }
  const std::string text = "Unable to save the run record: " + failure;
  debugLog_.log(text);
  hostLog(HostLogLevel::kError, "%s", text.c_str());
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

}  // namespace tovel
