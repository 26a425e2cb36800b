// A handle on one element of a document.
#ifndef FERROW_XML_XML_NODE_H_
#define FERROW_XML_XML_NODE_H_

#include <libxml/tree.h>

#include <string>

#include "commons/accounts.h"
#include "errors/exc.h"

namespace tovel {

// A node without an enclosing element was asked for its parent.
TOVEL_DECLARE_TAG(NoParentNode)

// Does not own the node: the node belongs to its document, which must
// outlive the handle.
class XmlNode {
 public:
  // node must not be null (AssertionFailed "node != NULL").
  explicit XmlNode(xmlNodePtr node);

  xmlNodePtr getNode() const { return node_; }
  // The enclosing element; NoParentNode for a node without one (the root
  // element's parent is the document, not an element).
  XmlNode getParent() const;
  // Saves a copy of this node and its subtree, as the root of a document
  // of its own, with tXmlDocument::saveToFileAtomically.
  void saveToFileAtomically(const std::string& target,
                            const AccountIds& owner) const;

 private:
  xmlNodePtr node_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::NoParentNode, "NoParentNode",
                 "No parent node on requested XML element");

#endif  // FERROW_XML_XML_NODE_H_
