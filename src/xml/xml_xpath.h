// XPath expressions over a document.
#ifndef FERROW_XML_XML_XPATH_H_
#define FERROW_XML_XML_XPATH_H_

#include <libxml/xpath.h>

#include <memory>
#include <string>
#include <vector>

#include "errors/exc.h"
#include "xml/xml_document.h"

namespace tovel {

// An expression's result is not of the type asked for.
TOVEL_DECLARE_TAG(tError_XPath_TypesMismatch)

// Something done to each node of a node set (tXPathExpr::forEachNode).
class tXmlOperator {
 public:
  virtual ~tXmlOperator() = default;
  virtual void operator()(xmlNodePtr node) = 0;
};

// One expression evaluated against a document, relative to the document
// node or to a given node. The result is computed once, on first use, and owned
// here; node pointers handed out belong to the document, which must outlive
// this object.
class tXPathExpr {
 public:
  // AssertionFailed "xpathCtx_.get() != NULL" when no XPath context can be
  // made (no document, out of memory).
  tXPathExpr(const tXmlDocument& document, const std::string& expression);
  tXPathExpr(const tXmlDocument& document, xmlNodePtr contextNode,
             const std::string& expression);

  // Evaluates (once) and returns the result, still owned here.
  // tError_XPath_CantEvaluate when the expression cannot be evaluated.
  xmlXPathObjectPtr evalExpression();

  // The nodes of a node-set result in document order;
  // tError_XPath_TypesMismatch ("nodeset") for any other type.
  std::vector<xmlNodePtr> getNodeSet();
  // The first node of a node-set result, null when the set is empty;
  // tError_XPath_TypesMismatch ("nodeset") for any other type.
  xmlNodePtr getNode();
  // The value of a string result (e.g. "string(/a/@b)");
  // tError_XPath_TypesMismatch ("string") for any other type.
  std::string str();
  // Applies op to each node of the node-set result, in document order.
  void forEachNode(tXmlOperator& op);

  const std::string& expression() const { return expression_; }

 private:
  struct ContextFree {
    void operator()(xmlXPathContextPtr ctx) const { xmlXPathFreeContext(ctx); }
  };
  struct ObjectFree {
    void operator()(xmlXPathObjectPtr obj) const { xmlXPathFreeObject(obj); }
  };

  xmlXPathObjectPtr requireType(xmlXPathObjectType type, const char* name);

  std::string expression_;
  std::unique_ptr<xmlXPathContext, ContextFree> xpathCtx_;
  std::unique_ptr<xmlXPathObject, ObjectFree> result_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::tError_XPath_TypesMismatch,
                 "tError_XPath_TypesMismatch",
                 "The result of expression '%1%' is not a '%2%' type");

#endif  // FERROW_XML_XML_XPATH_H_
