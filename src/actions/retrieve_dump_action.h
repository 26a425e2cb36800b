#ifndef FERROW_ACTIONS_RETRIEVE_DUMP_ACTION_H_
#define FERROW_ACTIONS_RETRIEVE_DUMP_ACTION_H_

#include <string>
#include <vector>

#include "actions/action.h"
#include "actions/retrieval_errors.h"
#include "errors/exc.h"

namespace tovel {

// The agent failed while it dumped.
TOVEL_DECLARE_TAG(CantRetrieveDumpFile)

// "--dump-selected" and "--dump-all": runs the agent as root on the source
// host with the dump arguments (and "--no-content" last when given), the
// input text on its standard input, pulling the remote dumping status into
// the session every 5 seconds meanwhile; then fetches AGENT_DIR/dump.xml
// into the session's dump file and writes that file's name, without a line
// end, into SESSION/dump-name.
class RetrieveDumpAction : public Action {
 public:
  // arguments: the agent's dump arguments, in order; input: its standard
  // input, empty for none. Creates the status document (see Action).
  RetrieveDumpAction(const RunContext& run,
                     const std::vector<std::string>& arguments,
                     const std::string& input);

  // Throws CantRetrieveDump wrapping the cause: CantRetrieveDumpFile with
  // the agent's standard error when it exits non-zero, FileWrite when
  // dump-name cannot be written, or any error of the connection, the agent
  // catalogue and the transfer.
  void execute() override;

 private:
  std::string buildCommand() const;
  void runAgent(const std::string& command);
  void writeDumpName() const;

  const std::vector<std::string> arguments_;
  const std::string input_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::CantRetrieveDumpFile, "CantRetrieveDumpFile",
                 "Error during dump file retrieving. \nRemote agent failed "
                 "with the following stderr messages: %1%");

#endif  // FERROW_ACTIONS_RETRIEVE_DUMP_ACTION_H_
