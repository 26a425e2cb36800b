#include "agents/agent.h"

#include <boost/filesystem/path.hpp>
#include <boost/format.hpp>
#include <fstream>
#include <log4cpp/Category.hh>

#include "commons/product_paths.h"

namespace tovel {
namespace fs = boost::filesystem;

namespace {

const char* const kKeys[] = {"Description", "EntryPoint", "DocumentType",
                             "Stylesheet", "Interpreter"};

log4cpp::Category& agentLog() {
  return log4cpp::Category::getInstance("p.Agent");
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

}  // namespace tovel
