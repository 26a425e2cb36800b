#include "xml/agents_list.h"

namespace tovel {

XmlAgentsList::XmlAgentsList() { initNewDoc("agents-list"); }

void XmlAgentsList::addAgent(const std::string& name,
                             const std::string& description) {
  xmlNodePtr agent = newChild(root_, "agent");
  newTextChild(agent, "name", name);
  newTextChild(agent, "description", description);
}

void XmlAgentsList::saveDocToStdout() { saveToStdout(); }

std::unique_ptr<AgentsList> createAgentsListFile() {
  return std::make_unique<XmlAgentsList>();
}

}  // namespace tovel
