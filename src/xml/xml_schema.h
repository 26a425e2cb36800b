// XML Schema validation through the product's own libxml proxy tool.
#ifndef FERROW_XML_XML_SCHEMA_H_
#define FERROW_XML_XML_SCHEMA_H_

#include <string>

namespace tovel {

// Runs the proxy tool locally with "--validate-xml", "--xml-file=" +
// xmlFile and "--xsd-file=" + xsdFile. A non-zero exit (the file is not
// valid, or the tool failed) throws ExecCmd::ExFailed carrying the tool's
// output; a failure to start it throws SystemError.
void validateSchema(const std::string& xmlFile, const std::string& xsdFile);

}  // namespace tovel

#endif  // FERROW_XML_XML_SCHEMA_H_
