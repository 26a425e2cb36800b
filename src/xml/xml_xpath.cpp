#include "xml/xml_xpath.h"

#include <libxml/xpathInternals.h>

#include "xml/xml_errors.h"

namespace tovel {

tXPathExpr::tXPathExpr(const tXmlDocument& document,
                       const std::string& expression)
    : tXPathExpr(document, nullptr, expression) {}

tXPathExpr::tXPathExpr(const tXmlDocument& document, xmlNodePtr contextNode,
                       const std::string& expression)
    : expression_(expression) {
  if (document.getDoc() != nullptr) {
    xpathCtx_.reset(xmlXPathNewContext(document.getDoc()));
  }
  TOVEL_XML_ASSERT(xpathCtx_.get() != NULL);
  xpathCtx_->node = contextNode != nullptr
                        ? contextNode
                        : reinterpret_cast<xmlNodePtr>(document.getDoc());
}

xmlXPathObjectPtr tXPathExpr::evalExpression() {
  if (result_) return result_.get();
  LibxmlErrorCapture capture;
  result_.reset(
      xmlXPathEvalExpression(BAD_CAST expression_.c_str(), xpathCtx_.get()));
  if (!result_) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kXPathEvaluate, expression_,
                       capture.messages());
  }
  return result_.get();
}

xmlXPathObjectPtr tXPathExpr::requireType(xmlXPathObjectType type,
                                          const char* name) {
  xmlXPathObjectPtr result = evalExpression();
  if (result->type != type) {
    TOVEL_THROW(tError_XPath_TypesMismatch) % expression_ % name;
  }
  return result;
}

std::vector<xmlNodePtr> tXPathExpr::getNodeSet() {
  xmlNodeSetPtr set = requireType(XPATH_NODESET, "nodeset")->nodesetval;
  std::vector<xmlNodePtr> nodes;
  if (set == nullptr) return nodes;
  nodes.assign(set->nodeTab, set->nodeTab + set->nodeNr);
  return nodes;
}

xmlNodePtr tXPathExpr::getNode() {
  xmlNodeSetPtr set = requireType(XPATH_NODESET, "nodeset")->nodesetval;
  if (set == nullptr || set->nodeNr == 0) return nullptr;
  return set->nodeTab[0];
}

std::string tXPathExpr::str() {
  xmlXPathObjectPtr result = requireType(XPATH_STRING, "string");
  if (result->stringval == nullptr) return std::string();
  return reinterpret_cast<const char*>(result->stringval);
}

void tXPathExpr::forEachNode(tXmlOperator& op) {
  for (xmlNodePtr node : getNodeSet()) op(node);
}

}  // namespace tovel
