#include "actions/remove_agent_action.h"

#include <sstream>

#include "commons/args_builder.h"
#include "commons/capped_output.h"

namespace tovel {

void RemoveAgentAction::execute() {
  ArgsBuilder command;
  command << "rm"
          << "-rf" << config_->agentDir;
  CappedOutput out, err;
  execRoot(command.str(), out, err, false);
}

}  // namespace tovel
