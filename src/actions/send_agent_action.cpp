#include "actions/send_agent_action.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "actions/dir_walk.h"
#include "agents/agents_factory.h"
#include "commons/accounts.h"
#include "commons/capped_output.h"
#include "commons/local_file_error.h"
#include "commons/product_paths.h"
#include "commons/session_files.h"

namespace tovel {
namespace fs = boost::filesystem;

namespace {

// The catalogue's directory of files that every agent needs.
const char AGENTS_SHARED_DIR[] = "shared";
// An agent's own control files (its spec among them): they stay local.
const char AGENTS_CONTROL_DIR[] = "control";

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.SendAgentAction");
}

}  // namespace

void SendAgentAction::execute() {
  status_->setAgentParams(cfg().host);
  status_->setAgentOperation(MigrationStatus::deploy);
  status_->saveFile();
  logger().notice("Copying agent " + cfg().agentName + " to the remote host.");
  // A catalogue that cannot be read fails the step like any other error.
  try {
    sendAgent();
  } catch (const fs::filesystem_error& e) {
    throwLocalFileError(e);
  }
  status_->setAgentOperation(MigrationStatus::wait);
  status_->saveFile();
  logger().notice("Getting agent deployment status");
  requestStatus(*theAgentsFactory().getAgent(cfg().agentName));
}

void SendAgentAction::sendAgent() {
  const fs::path catalogue(files::agents::getDir());
  const fs::path remote(agentCommands().dir());
  // Shared files go first so that the agent's own ones overwrite them.
  const fs::path shared = catalogue / AGENTS_SHARED_DIR;
  if (!fs::exists(shared)) TOVEL_THROW(NoSharedAgentsDirectory);
  sendTree(shared, remote);
  const fs::path agentFiles = catalogue / cfg().agentName;
  if (!fs::exists(agentFiles)) {
    TOVEL_THROW(NoAgentDirectory) % cfg().agentName;
  }
  sendTree(agentFiles, remote);
}

void SendAgentAction::sendTree(const fs::path& root, const fs::path& remote) {
  recursive_dir_walk_sync(
      root, remote, [this, &root](const fs::path& local, const fs::path& to) {
        return sendFile(root, local, to);
      });
}

bool SendAgentAction::sendFile(const fs::path& walkRoot, const fs::path& local,
                               const fs::path& remote) {
  if (!fs::is_directory(local)) {
    logger().info("remote <copy " + remote.string() + " (from " +
                  local.string() + ")");
    getSsh()->put(local.string(), remote.string());
    return true;
  }
  if (local.parent_path() == walkRoot &&
      local.filename() == AGENTS_CONTROL_DIR) {
    return false;
  }
  logger().info("remote mkdir " + remote.string());
  prepareRemoteDirectory(AgentCommands::makeDir(remote.string()),
                         remote.string());
  // Files are uploaded as the login, which must be able to write here.
  prepareRemoteDirectory(AgentCommands::giveTo(cfg().login, remote.string()),
                         remote.string());
  return true;
}

void SendAgentAction::prepareRemoteDirectory(const std::string& command,
                                             const std::string& remote) {
  std::istringstream none;
  CappedOutput out, err;
  // quietInput: with sudo the input carries the password.
  if (execRoot(command, none, out, err, false, true) != 0) {
    TOVEL_THROW(CantCreateAgentDirectory) % remote % err.str();
  }
}

void SendAgentAction::requestStatus(const Agent& agent) {
  const AgentCommands commands = agentCommands();
  const std::string entryPoint = commands.entryPoint(agent);
  const std::string local = session().getDeploymentStatusFileName();
  std::ofstream file(local.c_str(), std::ios::binary | std::ios::trunc);
  if (!file) {
    logger().error("Unable to create " + local + ": " + strerror(errno));
    TOVEL_THROW(StreamWrite);
  }
  std::istringstream none;
  CappedOutput err;
  int status =
      execRoot(commands.statusRequest(agent), none, file, err, false, true);
  file.close();
  // The message names the entry point only; the full line is in the log.
  if (status != 0) TOVEL_THROW(CantRequestAgentStatus) % entryPoint % err.str();

  AccountIds panel = lookupAccount(kPanelAccount);
  if (chown(local.c_str(), panel.uid, panel.gid) != 0) {
    logger().warn("Unable to give " + local + " to " + kPanelAccount + ": " +
                  strerror(errno));
  }
}

}  // namespace tovel
