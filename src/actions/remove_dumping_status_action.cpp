#include "actions/remove_dumping_status_action.h"

#include <unistd.h>

namespace tovel {

void RemoveDumpingStatusAction::execute() {
  unlink(agentCommands().dumpingStatusFile().c_str());
}

}  // namespace tovel
