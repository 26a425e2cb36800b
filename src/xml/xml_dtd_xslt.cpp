#include "xml/xml_dtd_xslt.h"

#include <libxml/valid.h>
#include <libxslt/transform.h>
#include <libxslt/xsltutils.h>

#include <vector>

#include "commons/host_log.h"
#include "xml/xml_errors.h"

namespace tovel {

namespace {

struct ValidCtxtFree {
  void operator()(xmlValidCtxtPtr ctxt) const { xmlFreeValidCtxt(ctxt); }
};
typedef std::unique_ptr<xmlValidCtxt, ValidCtxtFree> ValidCtxtOwner;

struct TransformCtxtFree {
  void operator()(xsltTransformContextPtr ctxt) const {
    xsltFreeTransformContext(ctxt);
  }
};

struct DocFree {
  void operator()(xmlDocPtr doc) const { xmlFreeDoc(doc); }
};

// A validation context whose messages go to capture.
ValidCtxtOwner newValidCtxt(LibxmlErrorCapture& capture) {
  ValidCtxtOwner ctxt(xmlNewValidCtxt());
  if (!ctxt) {
    TOVEL_THROW(tError_XmlInternal) %
        "Can not allocate memory for xmlValidCtxtPtr";
  }
  ctxt->userData = capture.context();
  ctxt->error = libxmlErrorHandler;
  ctxt->warning = libxmlErrorHandler;
  return ctxt;
}

// What xsl:message said during a successful transformation.
void logXsltMessages(const std::string& messages) {
  if (!messages.empty()) {
    hostLog(HostLogLevel::kWarning, "XSLT: %s", messages.c_str());
  }
}

}  // namespace

tExternalDtdDoc::tExternalDtdDoc(const std::string& fileName)
    : fileName_(fileName) {
  LibxmlErrorCapture capture;
  dtd_.reset(xmlParseDTD(nullptr, BAD_CAST fileName.c_str()));
  if (!dtd_) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kInvalidDtd, fileName,
                       capture.messages());
  }
}

void validateWithInternalDtd(const tXmlDocument& document) {
  LibxmlErrorCapture capture;
  ValidCtxtOwner ctxt = newValidCtxt(capture);
  if (document.getDoc() == nullptr ||
      xmlValidateDocument(ctxt.get(), document.getDoc()) != 1) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kInternalDtd, "", capture.messages());
  }
}

void validateWithExternalDtd(const tXmlDocument& document,
                             const tExternalDtdDoc& dtd) {
  LibxmlErrorCapture capture;
  ValidCtxtOwner ctxt = newValidCtxt(capture);
  if (document.getDoc() == nullptr ||
      xmlValidateDtd(ctxt.get(), document.getDoc(), dtd.getDtd()) != 1) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kExternalDtd, dtd.fileName(),
                       capture.messages());
  }
}

void tXsltStylesheet::StylesheetFree::operator()(
    xsltStylesheetPtr style) const {
  xsltFreeStylesheet(style);
}

tXsltStylesheet::tXsltStylesheet(const std::string& fileName) {
  LibxmlErrorCapture capture;
  style_.reset(xsltParseStylesheetFile(BAD_CAST fileName.c_str()));
  if (!style_) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kXslParse, fileName, capture.messages());
  }
}

tXmlDocFromXslt::tXmlDocFromXslt(xmlDocPtr result) {
  setDoc(result);
  root_ = result == nullptr ? nullptr : xmlDocGetRootElement(result);
}

tXmlDocFromXslt apply_stylesheet(const tXsltStylesheet& style,
                                 const tXmlDocument& source,
                                 const XsltParams& params) {
  std::vector<const char*> paramList;
  for (const auto& param : params) {
    paramList.push_back(param.first.c_str());
    paramList.push_back(param.second.c_str());
  }
  paramList.push_back(nullptr);

  LibxmlErrorCapture capture;
  std::unique_ptr<xsltTransformContext, TransformCtxtFree> ctxt(
      xsltNewTransformContext(style.get(), source.getDoc()));
  TOVEL_XML_ASSERT(ctxt != NULL);
  std::unique_ptr<xmlDoc, DocFree> result(
      xsltApplyStylesheetUser(style.get(), source.getDoc(), paramList.data(),
                              nullptr, nullptr, ctxt.get()));
  if (ctxt->state == XSLT_STATE_STOPPED) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kXsltTerminated, "", capture.messages());
  }
  if (!result || ctxt->state == XSLT_STATE_ERROR) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kXsltApply, "", capture.messages());
  }
  logXsltMessages(capture.messages());
  return tXmlDocFromXslt(result.release());
}

}  // namespace tovel
