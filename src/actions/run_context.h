// What a run shares with its action: the configuration, the session
// directory, the run record, the debug log and whoever watches a transfer.
// The driver makes each of them in a scope that encloses the action's life
// and hands them over when it makes the action; nothing here is owned.
#ifndef FERROW_ACTIONS_RUN_CONTEXT_H_
#define FERROW_ACTIONS_RUN_CONTEXT_H_

#include "actions/transfer_progress.h"
#include "commons/config.h"
#include "commons/session_files.h"
#include "log/debug_log.h"
#include "log/run_log.h"

namespace tovel {

struct RunContext {
  const config& cfg;
  const SessionFiles& session;
  Log& runRecord;
  DebugLog& debugLog;
  TransferProgressListener* progress;  // null when nobody watches
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_RUN_CONTEXT_H_
