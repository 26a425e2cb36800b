// The XML run record of a run ("execution-result"): whether the action
// succeeded and every error, nested under the objects being processed.
// Objects that received no error leave no trace.
#ifndef FERROW_LOG_RUN_LOG_H_
#define FERROW_LOG_RUN_LOG_H_

#include <libxml/tree.h>

#include <string>
#include <vector>

#include "commons/accounts.h"
#include "commons/session_files.h"
#include "errors/ex_traceable.h"
#include "log/debug_log.h"
#include "xml/xml_document.h"

namespace tovel {

class Log {
 public:
  virtual ~Log() = default;
  virtual void setSuccess(bool success) = 0;
  // Adds the exception as a "message" under the current object and marks
  // that object (and so every enclosing one) as holding an error.
  virtual void log(const ExTraceable& e) = 0;
  // Opens an "object" element with the given name and type attributes.
  virtual void pushObject(const std::string& name, const std::string& type) = 0;
  // Closes the current object; one without error is removed. Throws
  // Exc<&NoParentNode> at the root.
  virtual void popObject() = 0;
  // The number of open objects (0 at the root).
  virtual int getDepth() const = 0;
};

class XmlLog : public Log, public tXmlQvtDocument {
 public:
  // The record goes to the session's "migration.result" when logName is
  // empty, else to the session directory + "/" + logName, and is handed to
  // the session's document owner. An existing file of that name is first
  // renamed to the first free name among name.1, name.2, ... Throws what
  // the XML layer throws. debugLog must outlive the record.
  XmlLog(const SessionFiles& session, const std::string& logName,
         DebugLog& debugLog);
  // Sets the root's "status" to "success" or "error" and saves the record
  // atomically; a failure to save is written to the debug log, never thrown.
  ~XmlLog() override;

  void setSuccess(bool success) override { success_ = success; }
  void log(const ExTraceable& e) override;
  void pushObject(const std::string& name, const std::string& type) override;
  void popObject() override;
  int getDepth() const override;

  const std::string& getFileName() const { return fileName_; }

 private:
  bool success_ = false;
  std::string fileName_;
  AccountIds owner_;
  DebugLog& debugLog_;
  xmlNodePtr current_ = nullptr;
  std::vector<bool> hasError_;
};

}  // namespace tovel

#endif  // FERROW_LOG_RUN_LOG_H_
