#include "xml/xml_node.h"

#include "xml/xml_document.h"
#include "xml/xml_errors.h"

namespace tovel {

namespace {

// A document that adopts a copy of a node as its root.
class NodeCopyDocument : public tXmlDocument {
 public:
  explicit NodeCopyDocument(xmlNodePtr node) {
    xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
    if (doc == nullptr) {
      TOVEL_THROW(tError_XmlInternal) %
          "#0001: Can not create new XML document.";
    }
    setDoc(doc);
    xmlNodePtr copy = xmlDocCopyNode(node, doc, 1);
    if (copy == nullptr) {
      TOVEL_THROW(tError_XmlInternal) % "#0002: Can not create new node";
    }
    xmlDocSetRootElement(doc, copy);
  }
};

}  // namespace

XmlNode::XmlNode(xmlNodePtr node) : node_(node) {
  TOVEL_XML_ASSERT(node != NULL);
}

XmlNode XmlNode::getParent() const {
  xmlNodePtr parent = node_->parent;
  if (parent == nullptr || parent->type != XML_ELEMENT_NODE) {
    TOVEL_THROW(NoParentNode);
  }
  return XmlNode(parent);
}

void XmlNode::saveToFileAtomically(const std::string& target,
                                   const AccountIds& owner) const {
  NodeCopyDocument document(node_);
  document.saveToFileAtomically(target, owner);
}

}  // namespace tovel
