// A list of agents with their descriptions ("agents-list"), printed on
// standard output.
#ifndef FERROW_XML_AGENTS_LIST_H_
#define FERROW_XML_AGENTS_LIST_H_

#include <memory>
#include <string>

#include "xml/xml_document.h"

namespace tovel {

class AgentsList {
 public:
  virtual ~AgentsList() = default;
  // Appends an "agent" element with text children "name" and
  // "description".
  virtual void addAgent(const std::string& name,
                        const std::string& description) = 0;
  // Prints the document; tError_SaveFile on failure.
  virtual void saveDocToStdout() = 0;
};

class XmlAgentsList : public tXmlQvtDocument, public AgentsList {
 public:
  XmlAgentsList();  // an empty "agents-list"

  void addAgent(const std::string& name,
                const std::string& description) override;
  void saveDocToStdout() override;
};

// A new empty list, owned by the caller.
std::unique_ptr<AgentsList> createAgentsListFile();

}  // namespace tovel

#endif  // FERROW_XML_AGENTS_LIST_H_
