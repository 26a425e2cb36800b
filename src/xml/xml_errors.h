// libxml2's error reporting brought into the exception family: a handler
// that collects the library's messages while a call runs, and the one place
// where a failed libxml2/libxslt call becomes a tagged exception.
#ifndef FERROW_XML_XML_ERRORS_H_
#define FERROW_XML_XML_ERRORS_H_

#include <libxml/xmlerror.h>

#include <string>

#include "errors/exc.h"

namespace tovel {

// What a failed libxml2/libxslt call raises, and contract checks.
TOVEL_DECLARE_TAG(AssertionFailed)
TOVEL_DECLARE_TAG(tError_XmlInternal)
TOVEL_DECLARE_TAG(tError_ParseFile)
TOVEL_DECLARE_TAG(tError_SaveFile)
TOVEL_DECLARE_TAG(tError_XPath_CantEvaluate)
TOVEL_DECLARE_TAG(tError_XslParse_CanNotParseFile)
TOVEL_DECLARE_TAG(tError_Xslt_CantApplyStylesheet)
TOVEL_DECLARE_TAG(tError_Xslt_ApplyStylesheetTerminated)
TOVEL_DECLARE_TAG(InvalidDtdFile)
TOVEL_DECLARE_TAG(InternalDtdValidationFailed)
TOVEL_DECLARE_TAG(ExternalDtdValidationFailed)

// A libxml2 generic error function (xmlGenericErrorFunc): appends the
// formatted message to the std::string that ctx points to.
void libxmlErrorHandler(void* ctx, const char* msg, ...)
    __attribute__((format(printf, 2, 3)));

// While alive, libxml2's and libxslt's generic error functions point at
// libxmlErrorHandler collecting into messages(); the previous functions are
// put back on destruction. Not copyable: the library holds our address.
class LibxmlErrorCapture {
 public:
  LibxmlErrorCapture();
  ~LibxmlErrorCapture();
  LibxmlErrorCapture(const LibxmlErrorCapture&) = delete;
  LibxmlErrorCapture& operator=(const LibxmlErrorCapture&) = delete;

  // Everything collected so far, trailing line breaks removed.
  std::string messages() const;
  // The address to hand to libxml2 as the handler's context, for contexts
  // that take their own error function (validation).
  void* context() { return &messages_; }

 private:
  std::string messages_;
  xmlGenericErrorFunc oldXmlFunc_;
  void* oldXmlContext_;
  xmlGenericErrorFunc oldXsltFunc_;
  void* oldXsltContext_;
};

// What failed; each kind raises its own tag.
enum class LibxmlFailure {
  kParse,           // tError_ParseFile: subject = file, messages
  kSave,            // tError_SaveFile: subject = file
  kXPathEvaluate,   // tError_XPath_CantEvaluate: subject = expression
  kInvalidDtd,      // InvalidDtdFile: subject = DTD file
  kInternalDtd,     // InternalDtdValidationFailed: messages
  kExternalDtd,     // ExternalDtdValidationFailed: subject = DTD, messages
  kXslParse,        // tError_XslParse_CanNotParseFile: subject = file
  kXsltApply,       // tError_Xslt_CantApplyStylesheet
  kXsltTerminated,  // tError_Xslt_ApplyStylesheetTerminated
};

// Where the failure was met; filled by TOVEL_THROW_LIBXML.
struct ErrorSite {
  const char* context;
  const char* file;
  int line;
};

// Throws the tag of kind, fed with the subject and messages it names;
// messages that the tag's format has no place for go to the host log.
[[noreturn]] void throwLibxmlFailure(LibxmlFailure kind, const ErrorSite& site,
                                     const std::string& subject,
                                     const std::string& messages);

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::AssertionFailed, "AssertionFailed",
                 "Assertion failed: %1%");
TOVEL_EXC_TRAITS(&tovel::tError_XmlInternal, "tError_XmlInternal", "%1%");
TOVEL_EXC_TRAITS(&tovel::tError_ParseFile, "tError_ParseFile",
                 "The XML file %1% was not parsed successfully with the "
                 "following errors:\n%2%");
TOVEL_EXC_TRAITS(&tovel::tError_SaveFile, "tError_SaveFile",
                 "Can not save the XML document to file '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_XPath_CantEvaluate, "tError_XPath_CantEvaluate",
                 "The XML document is invalid for XPath exception.\nCan not "
                 "evaluate result of expression '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_XslParse_CanNotParseFile,
                 "tError_XslParse_CanNotParseFile",
                 "Can not parse XSLT file '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_Xslt_CantApplyStylesheet,
                 "tError_Xslt_CantApplyStylesheet", "Can not apply stylesheet");
TOVEL_EXC_TRAITS(&tovel::tError_Xslt_ApplyStylesheetTerminated,
                 "tError_Xslt_ApplyStylesheetTerminated",
                 "The translation of XML document was terminated by XSLT "
                 "stylesheet. Check for the error reason and try again.");
TOVEL_EXC_TRAITS(&tovel::InvalidDtdFile, "InvalidDtdFile",
                 "The DTD file %1% is invalid");
TOVEL_EXC_TRAITS(&tovel::InternalDtdValidationFailed,
                 "InternalDtdValidationFailed",
                 "Failed validation of the document with its internal DTD. The "
                 "errors are: %1%");
TOVEL_EXC_TRAITS(&tovel::ExternalDtdValidationFailed,
                 "ExternalDtdValidationFailed",
                 "Failed validation of the document with external DTD %1%. The "
                 "errors are: %2%.");

#define TOVEL_THROW_LIBXML(KIND, SUBJECT, MESSAGES)                        \
  ::tovel::throwLibxmlFailure(                                             \
      (KIND), ::tovel::ErrorSite{__PRETTY_FUNCTION__, __FILE__, __LINE__}, \
      (SUBJECT), (MESSAGES))

// A check of the calling contract: throws AssertionFailed naming the
// condition exactly as written.
#define TOVEL_XML_ASSERT(COND)                                  \
  do {                                                          \
    if (!(COND)) TOVEL_THROW(::tovel::AssertionFailed) % #COND; \
  } while (0)

#endif  // FERROW_XML_XML_ERRORS_H_
