#include "xml/xml_schema.h"

#include "commons/exec_cmd.h"
#include "commons/product_paths.h"

namespace tovel {

void validateSchema(const std::string& xmlFile, const std::string& xsdFile) {
  ExecCmd cmd(files::getLibxmlProxyFileName());
  cmd << "--validate-xml"
      << "--xml-file=" + xmlFile << "--xsd-file=" + xsdFile;
  cmd.exec();
}

}  // namespace tovel
