// One agent of the destination host's catalogue: a directory under
// files::agents::getDir() that describes itself in control/spec.
#ifndef FERROW_AGENTS_AGENT_H_
#define FERROW_AGENTS_AGENT_H_

#include <boost/array.hpp>
#include <boost/filesystem/path.hpp>
#include <string>

#include "errors/exc.h"

namespace tovel {

// A spec file that cannot be read as "Key: value" lines of known keys.
TOVEL_DECLARE_TAG(ParseFailed)

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

}  // namespace tovel

// The code names the class the tag belongs to.
TOVEL_EXC_TRAITS(&tovel::ParseFailed, "Agent::ParseFailed",
                 "Unable to parse spec file: %1%");

#endif  // FERROW_AGENTS_AGENT_H_
