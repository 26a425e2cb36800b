#ifndef FERROW_ACTIONS_REMOVE_AGENT_ACTION_H_
#define FERROW_ACTIONS_REMOVE_AGENT_ACTION_H_

#include "actions/action.h"

namespace tovel {

// "--remove-agent": "rm -rf AGENT_DIR" as root on the source host. The
// status of rm is ignored so that removal can be repeated; only
// connection, login and sudo errors propagate. Has no status document.
class RemoveAgentAction : public Action {
 public:
  explicit RemoveAgentAction(const RunContext& run) : Action(run, false) {}
  void execute() override;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_REMOVE_AGENT_ACTION_H_
