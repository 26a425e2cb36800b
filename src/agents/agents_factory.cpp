#include "agents/agents_factory.h"

#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/product_paths.h"

namespace tovel {
namespace fs = boost::filesystem;

namespace {

log4cpp::Category& factoryLog() {
  return log4cpp::Category::getInstance("p.AgentsFactory");
}

}  // namespace

bool AgentsFactory::parseAgent(const std::string& name) {
  factoryLog().info("Parsing " + name);
  fs::path catalogue(files::agents::getDir());
  boost::system::error_code error;
  if (!fs::is_directory(catalogue, error)) return false;
  return parseAgent(name, catalogue / name);
}

bool AgentsFactory::parseAgent(const std::string&, const fs::path& agentDir) {
  factoryLog().info("Parsing " + agentDir.string());
  fs::path spec = agentDir / "control" / "spec";
  boost::system::error_code error;
  if (!fs::exists(spec, error) || fs::is_directory(spec, error)) {
    factoryLog().warn(
        (boost::format("%1% is not a regular file") % spec.string()).str());
    return false;
  }
  try {
    std::string key = agentDir.filename().string();
    agents_.insert(std::make_pair(key, std::make_shared<Agent>(key, spec)));
    return true;
  } catch (const Exc<&ParseFailed>& e) {
    // The placeholder stays unfilled: the panel's log readers match on it.
    factoryLog().warn("%1% is not a valid agent spec file" + spec.string());
    return false;
  }
}

void AgentsFactory::getAllAgents() {
  factoryLog().info("Parsing available agents info");
  boost::system::error_code error;
  fs::directory_iterator entry(files::agents::getDir(), error), end;
  for (; !error && entry != end; entry.increment(error)) {
    if (fs::is_directory(entry->status())) {
      parseAgent(entry->path().filename().string());
    }
  }
}

std::shared_ptr<Agent> AgentsFactory::getAgent(const std::string& name) {
  auto found = agents_.find(name);
  if (found == agents_.end() && parseAgent(name)) found = agents_.find(name);
  if (found == agents_.end()) TOVEL_THROW(AgentNotFound) % name;
  return found->second;
}

AgentsFactory& theAgentsFactory() {
  static AgentsFactory factory;
  return factory;
}

}  // namespace tovel
