#include "actions/retrieve_dump_action.h"

#include <fstream>
#include <log4cpp/Category.hh>
#include <memory>
#include <sstream>

#include "actions/dumping_status_pull.h"
#include "agents/agents_factory.h"
#include "commons/capped_output.h"

namespace tovel {
namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.RetrieveDumpAction");
}

}  // namespace

RetrieveDumpAction::RetrieveDumpAction(
    const RunContext& run, const std::vector<std::string>& arguments,
    const std::string& input)
    : Action(run, true), arguments_(arguments), input_(input) {}

void RetrieveDumpAction::execute() {
  try {
    const std::string remoteDump = agentCommands().dumpFile();
    status_->setAgentParams(cfg().host);
    status_->setAgentOperation(MigrationStatus::wait);
    status_->saveFile();
    runAgent(buildCommand());
    takeFile(remoteDump);
    if (getSsh()->get(remoteDump, session().getDumpFileName()) != 0) {
      logger().error("Unable to read " + remoteDump + " on the remote host");
    }
    writeDumpName();
  } catch (const ExTraceable& e) {
    TOVEL_THROW_WRAP(CantRetrieveDump, e);
  }
}

std::string RetrieveDumpAction::buildCommand() const {
  std::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg().agentName);
  std::vector<std::string> arguments = arguments_;
  if (cfg().noContent) arguments.push_back("--no-content");
  return agentCommands().agentLine(*agent, arguments);
}

void RetrieveDumpAction::runAgent(const std::string& command) {
  // The pulls belong to this one command: they start with it and end
  // with it.
  DumpingStatusPull pull(*getSsh(), agentCommands().dumpingStatusFile(),
                         session().getDumpingStatusFileName());
  const Periodic pulling = pull.periodic();
  CappedOutput out, err;
  int status;
  if (input_.empty()) {
    status = execRoot(command, out, err, false, &pulling);
  } else {
    std::istringstream in(input_);
    status = execRoot(command, in, out, err, false, false, &pulling);
  }
  if (status != 0) TOVEL_THROW(CantRetrieveDumpFile) % err.str();
}

void RetrieveDumpAction::writeDumpName() const {
  const std::string name = cfg().sessionPath + "/dump-name";
  try {
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(name.c_str(), std::ios::out | std::ios::trunc);
    file << session().getDumpFileName();
    file.close();
  } catch (const std::exception& e) {
    TOVEL_THROW(FileWrite) % name % e.what();
  }
}

}  // namespace tovel
