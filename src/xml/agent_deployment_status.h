// The agent's deployment status document ("agentstatus"), copied from the
// source host after deployment.
#ifndef FERROW_XML_AGENT_DEPLOYMENT_STATUS_H_
#define FERROW_XML_AGENT_DEPLOYMENT_STATUS_H_

#include <string>

#include "xml/xml_document.h"

namespace tovel {

class AgentDeploymentStatus {
 public:
  virtual ~AgentDeploymentStatus() = default;
  // The name of the deployment status file the agent keeps on the remote
  // side. tError_WrongContent when the document does not give it.
  virtual std::string getAgentDeploymentStatusFileName() const = 0;
};

class XmlAgentDeploymentStatusDocument : public tXmlQvtDocument,
                                         public AgentDeploymentStatus {
 public:
  // Reads the local file; the document layer's read errors, and
  // tError_EmptyDoc / tError_WrongDoc unless the root is "agentstatus".
  explicit XmlAgentDeploymentStatusDocument(const std::string& fileName);

  // The text of the root's child "statusfile".
  std::string getAgentDeploymentStatusFileName() const override;
};

}  // namespace tovel

#endif  // FERROW_XML_AGENT_DEPLOYMENT_STATUS_H_
