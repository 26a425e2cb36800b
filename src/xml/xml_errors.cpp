#include "xml/xml_errors.h"

#include <libxml/globals.h>
#include <libxslt/xsltutils.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "commons/host_log.h"

namespace tovel {

void libxmlErrorHandler(void* ctx, const char* msg, ...) {
  if (ctx == nullptr || msg == nullptr) return;
  std::string* out = static_cast<std::string*>(ctx);
  va_list args;
  va_start(args, msg);
  va_list copy;
  va_copy(copy, args);
  int needed = vsnprintf(nullptr, 0, msg, copy);
  va_end(copy);
  if (needed > 0) {
    std::vector<char> text(static_cast<size_t>(needed) + 1);
    vsnprintf(text.data(), text.size(), msg, args);
    out->append(text.data(), static_cast<size_t>(needed));
  }
  va_end(args);
}

LibxmlErrorCapture::LibxmlErrorCapture()
    : oldXmlFunc_(xmlGenericError),
      oldXmlContext_(xmlGenericErrorContext),
      oldXsltFunc_(xsltGenericError),
      oldXsltContext_(xsltGenericErrorContext) {
  xmlSetGenericErrorFunc(&messages_, libxmlErrorHandler);
  xsltSetGenericErrorFunc(&messages_, libxmlErrorHandler);
}

LibxmlErrorCapture::~LibxmlErrorCapture() {
  xsltSetGenericErrorFunc(oldXsltContext_, oldXsltFunc_);
  xmlSetGenericErrorFunc(oldXmlContext_, oldXmlFunc_);
}

std::string LibxmlErrorCapture::messages() const {
  std::string text = messages_;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

void throwLibxmlFailure(LibxmlFailure kind, const ErrorSite& site,
                        const std::string& subject,
                        const std::string& messages) {
  // Most formats have no room for the library's own words; they still say
  // why (a full disk, a syntax error) and go to the host log.
  bool messagesInFormat = kind == LibxmlFailure::kParse ||
                          kind == LibxmlFailure::kInternalDtd ||
                          kind == LibxmlFailure::kExternalDtd;
  if (!messagesInFormat && !messages.empty()) {
    hostLog(HostLogLevel::kError, "%s", messages.c_str());
  }
  switch (kind) {
    case LibxmlFailure::kParse:
      throw Exc<&tError_ParseFile>(site.context, site.file, site.line) %
          subject % messages;
    case LibxmlFailure::kSave:
      throw Exc<&tError_SaveFile>(site.context, site.file, site.line) % subject;
    case LibxmlFailure::kXPathEvaluate:
      throw Exc<&tError_XPath_CantEvaluate>(site.context, site.file,
                                            site.line) %
          subject;
    case LibxmlFailure::kInvalidDtd:
      throw Exc<&InvalidDtdFile>(site.context, site.file, site.line) % subject;
    case LibxmlFailure::kInternalDtd:
      throw Exc<&InternalDtdValidationFailed>(site.context, site.file,
                                              site.line) %
          messages;
    case LibxmlFailure::kExternalDtd:
      throw Exc<&ExternalDtdValidationFailed>(site.context, site.file,
                                              site.line) %
          subject % messages;
    case LibxmlFailure::kXslParse:
      throw Exc<&tError_XslParse_CanNotParseFile>(site.context, site.file,
                                                  site.line) %
          subject;
    case LibxmlFailure::kXsltApply:
      throw Exc<&tError_Xslt_CantApplyStylesheet>(site.context, site.file,
                                                  site.line);
    case LibxmlFailure::kXsltTerminated:
      throw Exc<&tError_Xslt_ApplyStylesheetTerminated>(site.context, site.file,
                                                        site.line);
  }
  throw Exc<&tError_XmlInternal>(site.context, site.file, site.line) %
      "unknown libxml2 failure";
}

}  // namespace tovel
