#include "actions/retrieve_dump_action.h"

#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <log4cpp/Category.hh>
#include <memory>
#include <sstream>

#include "agents/agents_factory.h"
#include "commons/args_builder.h"
#include "commons/capped_output.h"
#include "commons/session_files.h"

namespace tovel {
namespace {

const int kStatusPullSeconds = 5;

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.RetrieveDumpAction");
}

// Makes `action` the one the status alarm arms while it lives. The timer
// is stopped afterwards: a tick that lands in one of libssh2's blocking
// waits (opening or closing a channel) makes it report a lost connection.
class StatusPullScope {
 public:
  explicit StatusPullScope(Action* action) {
    pAction = action;
    installStatusAlarmHandler();
    alarm(kStatusPullSeconds);
  }
  ~StatusPullScope() {
    pAction = nullptr;
    alarm(0);
  }
  StatusPullScope(const StatusPullScope&) = delete;
  StatusPullScope& operator=(const StatusPullScope&) = delete;
};

}  // namespace

RetrieveDumpAction::RetrieveDumpAction(
    const std::vector<std::string>& arguments, const std::string& input)
    : Action(true), arguments_(arguments), input_(input) {}

void RetrieveDumpAction::execute() {
  try {
    const std::string remoteDump = config_->agentDir + "/dump.xml";
    status_->setAgentParams(config_->host);
    status_->setAgentOperation(MigrationStatus::wait);
    status_->saveFile();
    runAgent(buildCommand());
    takeFile(remoteDump);
    if (getSsh()->get(remoteDump, theSession->getDumpFileName()) != 0) {
      logger().error("Unable to read " + remoteDump + " on the remote host");
    }
    writeDumpName();
  } catch (const ExTraceable& e) {
    TOVEL_THROW_WRAP(CantRetrieveDump, e);
  }
}

std::string RetrieveDumpAction::buildCommand() const {
  std::shared_ptr<Agent> agent =
      theAgentsFactory().getAgent(config_->agentName);
  ArgsBuilder command;
  command << agent->getInterpreterOrDefault()
          << config_->agentDir + "/" + agent->getEntryPoint();
  for (const std::string& argument : arguments_) command << argument;
  if (config_->noContent) command << "--no-content";
  return command.str();
}

void RetrieveDumpAction::runAgent(const std::string& command) {
  StatusPullScope pulling(this);
  CappedOutput out, err;
  int status;
  if (input_.empty()) {
    status = execRoot(command, out, err, false);
  } else {
    std::istringstream in(input_);
    status = execRoot(command, in, out, err, false, false);
  }
  if (status != 0) TOVEL_THROW(CantRetrieveDumpFile) % err.str();
  // A tick that registered the pull but found no wait round left would
  // run it during the fetch and start the timer again.
  getSsh()->setAlarm(nullptr);
}

void RetrieveDumpAction::writeDumpName() const {
  const std::string name = config_->sessionPath + "/dump-name";
  try {
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(name.c_str(), std::ios::out | std::ios::trunc);
    file << theSession->getDumpFileName();
    file.close();
  } catch (const std::exception& e) {
    TOVEL_THROW(FileWrite) % name % e.what();
  }
}

}  // namespace tovel
