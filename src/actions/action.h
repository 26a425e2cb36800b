// The base of every command-line action. The driver creates one action,
// hands it the configuration and calls execute() once.
#ifndef FERROW_ACTIONS_ACTION_H_
#define FERROW_ACTIONS_ACTION_H_

#include <memory>

#include "commons/config.h"
#include "xml/migration_status.h"

namespace tovel {

// Where an action may report a result beyond its files; reserved for
// callers that embed actions.
class Result;

class Action {
 public:
  // With withStatus, creates the session's "migration.status" document and
  // saves it as idle. Throws what the XML layer throws.
  explicit Action(bool withStatus);
  // Saves the status document (if any) as idle once more; a failure is
  // written to the debug log, never thrown.
  virtual ~Action();
  Action(const Action&) = delete;
  Action& operator=(const Action&) = delete;

  // cfg must outlive the action.
  virtual void setConfig(const config* cfg) { config_ = cfg; }
  virtual void setResult(Result* result) { result_ = result; }
  virtual void execute() = 0;

 protected:
  const config* config_ = nullptr;
  Result* result_ = nullptr;
  std::unique_ptr<MigrationStatus> status_;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_ACTION_H_
