#ifndef FERROW_ACTIONS_SEND_AGENT_ACTION_H_
#define FERROW_ACTIONS_SEND_AGENT_ACTION_H_

#include <boost/filesystem/path.hpp>

#include "actions/action.h"
#include "errors/exc.h"

namespace tovel {

// The remote directory cannot be made, or the copied agent does not
// answer.
TOVEL_DECLARE_TAG(CantCreateAgentDirectory)
TOVEL_DECLARE_TAG(CantRequestAgentStatus)

class Agent;

// "--deploy-agent": copies CATALOGUE/shared and then CATALOGUE/AGENT_NAME
// into AGENT_DIR on the source host (the agent's files overwrite shared
// ones of the same name; the agent's top-level "control" stays behind),
// then runs the deployed agent as root with "--get-status" and keeps its
// answer in the session's "agent-deployment.status".
class SendAgentAction : public Action {
 public:
  explicit SendAgentAction(const RunContext& run) : Action(run, true) {}

  // Throws NoSharedAgentsDirectory, NoAgentDirectory,
  // CantCreateAgentDirectory, CantRequestAgentStatus, LocalFileError when
  // the catalogue cannot be read, and what the SSH layer and the agent
  // catalogue (AgentNotFound) throw, unchanged.
  void execute() override;

  // The walk callback: for a directory, creates `remote` as root and gives
  // it to the login (CantCreateAgentDirectory) unless it is walkRoot's
  // "control", which is skipped (returns false); for a file, uploads it as
  // the login. Returns whether to descend.
  bool sendFile(const boost::filesystem::path& walkRoot,
                const boost::filesystem::path& local,
                const boost::filesystem::path& remote);

 private:
  // Copies the catalogue's shared files, then the agent's own.
  void sendAgent();
  // Walks root to remote with sendFile.
  void sendTree(const boost::filesystem::path& root,
                const boost::filesystem::path& remote);
  // Runs command as root; throws CantCreateAgentDirectory naming `remote`
  // unless it succeeds.
  void prepareRemoteDirectory(const std::string& command,
                              const std::string& remote);
  // Asks the deployed agent for its status into the session file.
  void requestStatus(const Agent& agent);
};

}  // namespace tovel

// Local catalogue directories that are missing; at global scope, where
// their callers name them.
TOVEL_DECLARE_TAG(NoSharedAgentsDirectory)
TOVEL_DECLARE_TAG(NoAgentDirectory)

TOVEL_EXC_TRAITS(&tovel::CantCreateAgentDirectory, "CantCreateAgentDirectory",
                 "Can't create agent directory %1% on the remote host: %2%");
TOVEL_EXC_TRAITS(
    &tovel::CantRequestAgentStatus, "CantRequestAgentStatus",
    "Cannot request remote agent status using command line %1%: %2%");
TOVEL_EXC_TRAITS(&::NoSharedAgentsDirectory, "NoSharedAgentsDirectory",
                 "'shared' agents directory not found");
TOVEL_EXC_TRAITS(&::NoAgentDirectory, "NoAgentDirectory",
                 "Directory for agent '%1%' does not exist");

#endif  // FERROW_ACTIONS_SEND_AGENT_ACTION_H_
