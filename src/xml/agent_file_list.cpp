#include "xml/agent_file_list.h"

#include <boost/lexical_cast.hpp>
#include <type_traits>

#include "xml/xml_errors.h"

namespace tovel {

namespace {

// lexical_cast would wrap "-1" into a huge unsigned value: a minus sign is
// refused up front.
template <class Number>
Number parseNumber(xmlNodePtr node, const char* attribute,
                   const std::string& value) {
  try {
    if (std::is_unsigned<Number>::value && !value.empty() && value[0] == '-') {
      throw boost::bad_lexical_cast();
    }
    return boost::lexical_cast<Number>(value);
  } catch (const boost::bad_lexical_cast&) {
    TOVEL_THROW(tError_WrongContent) %
        (std::string("Attribute '") + attribute + "' of element '" +
         reinterpret_cast<const char*>(node->name) +
         "' is not a valid number: '" + value + "'.");
  }
}

}  // namespace

XmlAgentFileList::XmlAgentFileList(const std::string& xmlText)
    : tXmlQvtDocument(xmlText) {
  initFileDoc("contentlist");
}

std::vector<DumpFile> XmlAgentFileList::getFileList() const {
  std::vector<DumpFile> files;
  for (xmlNodePtr node = root_->children; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE ||
        xmlStrcmp(node->name, BAD_CAST "file") != 0) {
      continue;
    }
    DumpFile file;
    file.name = getNodeText(node);
    if (xmlHasProp(node, BAD_CAST "size") != nullptr) {
      file.size =
          parseNumber<uint64_t>(node, "size", getAttribute(node, "size"));
    }
    if (xmlHasProp(node, BAD_CAST "md5sum") != nullptr) {
      file.md5sum = getAttribute(node, "md5sum");
    }
    files.push_back(file);
  }
  return files;
}

int64_t XmlAgentFileList::getTotalSize() const {
  return parseNumber<int64_t>(root_, "size", getAttribute(root_, "size"));
}

int64_t XmlAgentFileList::getUnpackedSize() const {
  return parseNumber<int64_t>(root_, "unpacked",
                              getAttribute(root_, "unpacked"));
}

std::unique_ptr<AgentFileList> getFileList(const std::string& xmlText) {
  return std::make_unique<XmlAgentFileList>(xmlText);
}

}  // namespace tovel
