// The agent catalogue of the destination host: one directory per agent
// under files::agents::getDir(), each describing itself in control/spec.
#ifndef FERROW_AGENTS_AGENT_SPEC_H_
#define FERROW_AGENTS_AGENT_SPEC_H_

#include <boost/array.hpp>
#include <boost/filesystem/path.hpp>
#include <map>
#include <memory>
#include <string>

namespace tovel {

class Agent {
 public:
  // The values of a spec, in the order of its keys.
  enum Field {
    kDescription,
    kEntryPoint,
    kDocumentType,
    kStylesheet,
    kInterpreter
  };
  typedef boost::array<std::string, 5> Data;

  // Reads "Key: value" lines (keys exact and case-sensitive, leading blanks
  // of a value dropped, trailing ones kept, empty lines skipped, the last
  // of a repeated key wins). A file that cannot be opened gives five empty
  // values. Throws ParseFailed for a line without ":" or an unknown key.
  static Data parse(const std::string& specFile);

  // Parses specFile (throws ParseFailed) and logs the contents at INFO.
  Agent(const std::string& name, const std::string& specFile);
  Agent(const std::string& name, const boost::filesystem::path& specFile);

  void logContents() const;

  const std::string& getName() const { return name_; }
  const std::string& getDescription() const { return data_[kDescription]; }
  // The script to run, relative to the agent's directory.
  const std::string& getEntryPoint() const { return data_[kEntryPoint]; }
  const std::string& getDocumentType() const { return data_[kDocumentType]; }
  // CATALOGUE/name/control/DOCUMENT_TYPE, or empty when the key is absent.
  std::string getDocumentTypePath() const;
  const std::string& getStylesheet() const { return data_[kStylesheet]; }
  // As written in the spec; may be empty.
  const std::string& getInterpreter() const { return data_[kInterpreter]; }
  // The program that runs the entry point: the interpreter, or "perl".
  std::string getInterpreterOrDefault() const;

 private:
  std::string name_;
  Data data_;
};

// Finds agents in the catalogue and keeps each one parsed at most once.
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

#endif  // FERROW_AGENTS_AGENT_SPEC_H_
