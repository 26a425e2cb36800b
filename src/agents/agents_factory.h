// The agent catalogue of the destination host: finds agents by name under
// files::agents::getDir() and keeps each one parsed at most once.
#ifndef FERROW_AGENTS_AGENTS_FACTORY_H_
#define FERROW_AGENTS_AGENTS_FACTORY_H_

#include <boost/filesystem/path.hpp>
#include <map>
#include <memory>
#include <string>

#include "agents/agent.h"
#include "errors/exc.h"

namespace tovel {

// No agent of the requested name, or none with a valid spec.
TOVEL_DECLARE_TAG(AgentNotFound)

class AgentsFactory {
 public:
  // Parses CATALOGUE/name when the catalogue is a directory.
  bool parseAgent(const std::string& name);
  // Parses agentDir/control/spec and caches the agent under agentDir's last
  // component (an agent already cached is kept). Returns false, with a
  // warning in the log, when the spec is missing or invalid.
  bool parseAgent(const std::string& name,
                  const boost::filesystem::path& agentDir);
  // Parses every directory of the catalogue; failures are only logged.
  void getAllAgents();
  // The cached or newly parsed agent; throws AgentNotFound.
  std::shared_ptr<Agent> getAgent(const std::string& name);

 private:
  std::map<std::string, std::shared_ptr<Agent>> agents_;
};

// The process-wide factory.
AgentsFactory& theAgentsFactory();

}  // namespace tovel

TOVEL_EXC_TRAITS(
    &tovel::AgentNotFound, "AgentNotFound",
    "Agent %1% was not found or does not contain proper spec file");

#endif  // FERROW_AGENTS_AGENTS_FACTORY_H_
