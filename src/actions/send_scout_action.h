#ifndef FERROW_ACTIONS_SEND_SCOUT_ACTION_H_
#define FERROW_ACTIONS_SEND_SCOUT_ACTION_H_

#include "actions/action.h"
#include "errors/exc.h"

namespace tovel {

// The scout cannot be read here, or it fails on the remote host.
TOVEL_DECLARE_TAG(UnableToOpenScoutFile)
TOVEL_DECLARE_TAG(FailedToExecuteScout)

// "--send-scout": runs the product's scout script on the source host as
// root, sending it as the standard input of a remote "perl" (nothing is
// copied there), and keeps its standard output as the session's scout
// result.
class SendScoutAction : public Action {
 public:
  explicit SendScoutAction(const RunContext& run) : Action(run, true) {}
  // Throws UnableToOpenScoutFile before connecting when the local script
  // cannot be read, FailedToExecuteScout (status and standard error) when
  // the scout fails; the result file then keeps what was written.
  // Connection, login, sudo and transport errors pass through.
  void execute() override;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::UnableToOpenScoutFile, "UnableToOpenScoutFile",
                 "Unable to open %1% for transferring to the remote host");
TOVEL_EXC_TRAITS(&tovel::FailedToExecuteScout, "FailedToExecuteScout",
                 "Failed to execute scout. \nThe return code is %1%\nThe "
                 "output on STDERR is\n%2%");

#endif  // FERROW_ACTIONS_SEND_SCOUT_ACTION_H_
