#include "agents/agent_spec.h"

#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <fstream>
#include <log4cpp/Category.hh>

#include "commons/product_paths.h"
#include "errors/tags.h"

namespace tovel {
namespace fs = boost::filesystem;

namespace {

const char* const kKeys[] = {"Description", "EntryPoint", "DocumentType",
                             "Stylesheet", "Interpreter"};

log4cpp::Category& agentLog() {
  return log4cpp::Category::getInstance("p.Agent");
}

log4cpp::Category& factoryLog() {
  return log4cpp::Category::getInstance("p.AgentsFactory");
}

// Stores one "Key: value" line into data; throws ParseFailed.
void parseLine(const std::string& specFile, int number, const std::string& line,
               Agent::Data& data) {
  std::string::size_type colon = line.find(':');
  if (colon == std::string::npos) {
    TOVEL_THROW(ParseFailed) %
        (boost::format("%1%:%2%: Expected '<token>: <value>', got '%3%'") %
         specFile % number % line)
            .str();
  }
  std::string key = line.substr(0, colon);
  std::string::size_type start =
      line.find_first_not_of(" \t\n\v\f\r", colon + 1);
  std::string value =
      start == std::string::npos ? std::string() : line.substr(start);
  for (size_t i = 0; i < data.size(); ++i) {
    if (key == kKeys[i]) {
      data[i] = value;
      return;
    }
  }
  TOVEL_THROW(ParseFailed) %
      (boost::format("Illegal parameter found in %1%: %2%") % specFile % key)
          .str();
}

}  // namespace

Agent::Data Agent::parse(const std::string& specFile) {
  Data data;
  std::ifstream in(specFile.c_str());
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty()) continue;
    parseLine(specFile, number, line, data);
  }
  return data;
}

Agent::Agent(const std::string& name, const std::string& specFile)
    : name_(name), data_(parse(specFile)) {
  logContents();
}

Agent::Agent(const std::string& name, const fs::path& specFile)
    : Agent(name, specFile.string()) {}

std::string Agent::getDocumentTypePath() const {
  if (getDocumentType().empty()) return "";
  return files::agents::getDir() + "/" + name_ + "/control/" +
         getDocumentType();
}

std::string Agent::getInterpreterOrDefault() const {
  return getInterpreter().empty() ? "perl" : getInterpreter();
}

void Agent::logContents() const {
  agentLog().info("Description: " + getDescription());
  agentLog().info("EntryPoint: " + getEntryPoint());
  agentLog().info("DocumentType: " + getDocumentTypePath());
  agentLog().info("Interpreter: " + getInterpreterOrDefault());
}

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
