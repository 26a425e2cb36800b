#ifndef FERROW_ACTIONS_SEND_SCOUT_ACTION_H_
#define FERROW_ACTIONS_SEND_SCOUT_ACTION_H_

#include "actions/action.h"

namespace tovel {

// "--send-scout": runs the product's scout script on the source host as
// root, sending it as the standard input of a remote "perl" (nothing is
// copied there), and keeps its standard output as the session's scout
// result.
class SendScoutAction : public Action {
 public:
  SendScoutAction() : Action(true) {}
  // Throws UnableToOpenScoutFile before connecting when the local script
  // cannot be read, FailedToExecuteScout (status and standard error) when
  // the scout fails; the result file then keeps what was written.
  // Connection, login, sudo and transport errors pass through.
  void execute() override;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_SEND_SCOUT_ACTION_H_
