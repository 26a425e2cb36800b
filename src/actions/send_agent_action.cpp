#include "actions/send_agent_action.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "agents/agents_factory.h"
#include "commons/accounts.h"
#include "commons/args_builder.h"
#include "commons/capped_output.h"
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

void recursive_dir_walk_sync(const fs::path& local, const fs::path& destination,
                             const DirWalkCallback& callback) {
  if (!callback(local, destination) || !fs::is_directory(local)) return;
  for (fs::directory_iterator entry(local), end; entry != end; ++entry) {
    recursive_dir_walk_internal(entry->path(), destination, callback);
  }
}

void recursive_dir_walk_internal(const fs::path& entry,
                                 const fs::path& destination,
                                 const DirWalkCallback& callback) {
  recursive_dir_walk_sync(entry, destination / entry.filename(), callback);
}

void recursive_dir_walk(const fs::path& local,
                        const DirWalkCallback& callback) {
  recursive_dir_walk_sync(local, fs::path(), callback);
}

void SendAgentAction::execute() {
  status_->setAgentParams(config_->host);
  status_->setAgentOperation(MigrationStatus::deploy);
  status_->saveFile();
  logger().notice("Copying agent " + config_->agentName +
                  " to the remote host.");

  const fs::path catalogue(files::agents::getDir());
  const fs::path remote(config_->agentDir);
  // Shared files go first so that the agent's own ones overwrite them.
  const fs::path shared = catalogue / AGENTS_SHARED_DIR;
  if (!fs::exists(shared)) TOVEL_THROW(NoSharedAgentsDirectory);
  sendTree(shared, remote);
  const fs::path agentDir = catalogue / config_->agentName;
  if (!fs::exists(agentDir)) TOVEL_THROW(NoAgentDirectory) % config_->agentName;
  sendTree(agentDir, remote);

  status_->setAgentOperation(MigrationStatus::wait);
  status_->saveFile();
  logger().notice("Getting agent deployment status");
  requestStatus(*theAgentsFactory().getAgent(config_->agentName));
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
  ArgsBuilder mkdir;
  mkdir << "mkdir"
        << "-p" << remote.string();
  prepareRemoteDirectory(mkdir.str(), remote.string());
  // Files are uploaded as the login, which must be able to write here.
  ArgsBuilder chown;
  chown << "chown" << config_->login << remote.string();
  prepareRemoteDirectory(chown.str(), remote.string());
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
  const std::string entryPoint =
      config_->agentDir + "/" + agent.getEntryPoint();
  const std::string local = theSession->getDeploymentStatusFileName();
  std::ofstream file(local.c_str(), std::ios::binary | std::ios::trunc);
  if (!file) {
    logger().error("Unable to create " + local + ": " + strerror(errno));
    TOVEL_THROW(StreamWrite);
  }
  ArgsBuilder line;
  line << "sh"
       << "-c"
       << "cd " + config_->agentDir + " && " + agent.getInterpreterOrDefault() +
              " " + entryPoint + " --get-status";
  std::istringstream none;
  CappedOutput err;
  int status = execRoot(line.str(), none, file, err, false, true);
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
