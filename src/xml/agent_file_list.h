// The agent's content list: the archives of a dump with their sizes and
// MD5 sums, as the agent prints it ("contentlist").
#ifndef FERROW_XML_AGENT_FILE_LIST_H_
#define FERROW_XML_AGENT_FILE_LIST_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "xml/xml_document.h"

namespace tovel {

// One archive of the content list.
struct DumpFile {
  std::string name;              // relative to the agent's dump directory
  std::optional<uint64_t> size;  // bytes; none when the list gives none
  std::string md5sum;            // empty when the list gives none
};

// Each getter reads the document anew and throws its reading errors:
// NoSuchAttribute for a missing required attribute, tError_WrongContent for
// a value that is not a number from 0 to 2^63-1, or for a file name that is
// empty, absolute or has a ".." component (names are joined to local and
// remote directories unchecked).
class AgentFileList {
 public:
  virtual ~AgentFileList() = default;
  // The "file" children of the root in document order.
  virtual std::vector<DumpFile> getFileList() const = 0;
  // Root attribute "size": total bytes of all listed files.
  virtual int64_t getTotalSize() const = 0;
  // Root attribute "unpacked": bytes after unpacking.
  virtual int64_t getUnpackedSize() const = 0;
};

class XmlAgentFileList : public tXmlQvtDocument, public AgentFileList {
 public:
  // Parses xmlText (must not be empty) and checks its root is
  // "contentlist": the document layer's parse and root errors.
  explicit XmlAgentFileList(const std::string& xmlText);

  std::vector<DumpFile> getFileList() const override;
  int64_t getTotalSize() const override;
  int64_t getUnpackedSize() const override;
};

// The content list printed by the agent, owned by the caller.
std::unique_ptr<AgentFileList> getFileList(const std::string& xmlText);

}  // namespace tovel

#endif  // FERROW_XML_AGENT_FILE_LIST_H_
