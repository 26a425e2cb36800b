#include "actions/remove_agent_action.h"

#include "commons/capped_output.h"

namespace tovel {

void RemoveAgentAction::execute() {
  CappedOutput out, err;
  execRoot(agentCommands().removeAgentDir(), out, err, false);
}

}  // namespace tovel
