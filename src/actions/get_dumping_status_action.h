#ifndef FERROW_ACTIONS_GET_DUMPING_STATUS_ACTION_H_
#define FERROW_ACTIONS_GET_DUMPING_STATUS_ACTION_H_

#include "actions/action.h"
#include "errors/exc.h"

namespace tovel {

// The dumping status cannot be fetched.
TOVEL_DECLARE_TAG(DumpStatusError)

// "--get-dumping-status": copies AGENT_DIR/dumping-status.xml from the
// source host to standard output byte for byte, so that the caller can
// follow a running dump. Nothing else is printed.
class GetDumpingStatusAction : public Action {
 public:
  explicit GetDumpingStatusAction(const RunContext& run) : Action(run, true) {}

  // Throws DumpStatusError wrapping any error of the connection or the
  // transfer.
  void execute() override;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::DumpStatusError, "DumpStatusError",
                 "Error during getting dumping status");

#endif  // FERROW_ACTIONS_GET_DUMPING_STATUS_ACTION_H_
