#include "xml/agent_deployment_status.h"

namespace tovel {

XmlAgentDeploymentStatusDocument::XmlAgentDeploymentStatusDocument(
    const std::string& fileName)
    : tXmlQvtDocument(fileName.c_str()) {
  initFileDoc("agentstatus");
}

std::string XmlAgentDeploymentStatusDocument::getAgentDeploymentStatusFileName()
    const {
  return getNodeText(getRootNodeChild("statusfile"));
}

}  // namespace tovel
