#include "xml/agent_file_list.h"

#include <boost/lexical_cast.hpp>
#include <limits>

#include "xml/xml_errors.h"

namespace tovel {

namespace {

std::string elementName(xmlNodePtr node) {
  return reinterpret_cast<const char*>(node->name);
}

// lexical_cast would wrap "-1" into a huge unsigned value: a minus sign is
// refused up front. Sizes beyond the signed 64-bit range are refused too,
// as every byte count downstream is signed.
template <class Number>
Number parseNumber(xmlNodePtr node, const char* attribute,
                   const std::string& value) {
  try {
    if (!value.empty() && value[0] == '-') throw boost::bad_lexical_cast();
    Number number = boost::lexical_cast<Number>(value);
    if (static_cast<uint64_t>(number) >
        static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      throw boost::bad_lexical_cast();
    }
    return number;
  } catch (const boost::bad_lexical_cast&) {
    TOVEL_THROW(tError_WrongContent) %
        (std::string("Attribute '") + attribute + "' of element '" +
         elementName(node) + "' is not a valid number: '" + value + "'.");
  }
}

// The name is joined to the destination directory and to the agent
// directory, whose file is then removed as root: it must stay inside both.
void checkName(const std::string& name) {
  bool escapes = name.empty() || name[0] == '/';
  std::string::size_type start = 0;
  while (!escapes && start <= name.size()) {
    std::string::size_type end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    escapes = name.compare(start, end - start, "..") == 0;
    start = end + 1;
  }
  if (escapes) {
    TOVEL_THROW(tError_WrongContent) %
        ("The content list names the file '" + name +
         "': a name must be relative and must not contain '..'.");
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
    checkName(file.name);
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
