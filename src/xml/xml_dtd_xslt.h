// DTD validation and XSLT transformation of documents.
#ifndef FERROW_XML_XML_DTD_XSLT_H_
#define FERROW_XML_XML_DTD_XSLT_H_

#include <libxml/tree.h>
#include <libxslt/xsltInternals.h>

#include <map>
#include <memory>
#include <string>

#include "xml/xml_document.h"

namespace tovel {

// A DTD read from a file. InvalidDtdFile when it cannot be read or parsed.
class tExternalDtdDoc {
 public:
  explicit tExternalDtdDoc(const std::string& fileName);

  xmlDtdPtr getDtd() const { return dtd_.get(); }
  const std::string& fileName() const { return fileName_; }

 private:
  struct DtdFree {
    void operator()(xmlDtdPtr dtd) const { xmlFreeDtd(dtd); }
  };
  std::string fileName_;
  std::unique_ptr<xmlDtd, DtdFree> dtd_;
};

// Validates the document against the DTD it declares;
// InternalDtdValidationFailed with the validator's messages.
void validateWithInternalDtd(const tXmlDocument& document);
// Validates the document against dtd; ExternalDtdValidationFailed with the
// DTD's file name and the validator's messages.
void validateWithExternalDtd(const tXmlDocument& document,
                             const tExternalDtdDoc& dtd);

// A parsed stylesheet. tError_XslParse_CanNotParseFile when the file
// cannot be parsed.
class tXsltStylesheet {
 public:
  explicit tXsltStylesheet(const std::string& fileName);

  xsltStylesheetPtr get() const { return style_.get(); }

 private:
  struct StylesheetFree {
    void operator()(xsltStylesheetPtr style) const;
  };
  std::unique_ptr<xsltStylesheet, StylesheetFree> style_;
};

// The document produced by a stylesheet; its root is set when it has one.
class tXmlDocFromXslt : public tXmlQvtDocument {
 public:
  // Takes ownership of result.
  explicit tXmlDocFromXslt(xmlDocPtr result);
};

// Stylesheet parameters: name to XPath expression (quote strings: "'x'").
typedef std::map<std::string, std::string> XsltParams;

// Applies style to source. tError_Xslt_ApplyStylesheetTerminated when the
// stylesheet stops the transformation (xsl:message terminate="yes"),
// tError_Xslt_CantApplyStylesheet on any other failure; the processor's
// messages go to the host log.
tXmlDocFromXslt apply_stylesheet(const tXsltStylesheet& style,
                                 const tXmlDocument& source,
                                 const XsltParams& params = XsltParams());

}  // namespace tovel

#endif  // FERROW_XML_XML_DTD_XSLT_H_
