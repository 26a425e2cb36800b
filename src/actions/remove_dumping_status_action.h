#ifndef FERROW_ACTIONS_REMOVE_DUMPING_STATUS_ACTION_H_
#define FERROW_ACTIONS_REMOVE_DUMPING_STATUS_ACTION_H_

#include "actions/action.h"

namespace tovel {

// "--remove-dumping-status": removes the local file
// <agent dir>/dumping-status.xml, ignoring the outcome. No connection is
// opened. Since the agent directory is refused for this action, the file
// is in practice "/dumping-status.xml".
class RemoveDumpingStatusAction : public Action {
 public:
  explicit RemoveDumpingStatusAction(const RunContext& run)
      : Action(run, true) {}
  void execute() override;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_REMOVE_DUMPING_STATUS_ACTION_H_
