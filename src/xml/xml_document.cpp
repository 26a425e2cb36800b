#include "xml/xml_document.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlsave.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "commons/temp_files.h"
#include "xml/xml_errors.h"
#include "xml/xml_text.h"

namespace tovel {

namespace {

const char kMemoryDocumentName[] = "in-memory buffer";

// Saved documents are read through the group of the owner they are given.
const mode_t kSavedFileMode = 0640;

struct XmlCharFree {
  void operator()(xmlChar* text) const { xmlFree(text); }
};

// Takes a string that libxml2 allocated; "" for null.
std::string adoptXmlString(xmlChar* text) {
  std::unique_ptr<xmlChar, XmlCharFree> owner(text);
  if (!owner) return std::string();
  return reinterpret_cast<const char*>(owner.get());
}

struct BufferFree {
  void operator()(xmlBufferPtr buffer) const { xmlBufferFree(buffer); }
};

bool isRegularFile(const char* fileName) {
  struct stat st;
  return stat(fileName, &st) == 0 && S_ISREG(st.st_mode);
}

// Owner of the descriptor of a temporary file being written.
class OpenFile {
 public:
  OpenFile(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}
  ~OpenFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int fd() const { return fd_; }
  const std::string& name() const { return name_; }
  // Closes now; false (errno set) when the system reports a deferred
  // write error.
  bool close() {
    int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
  std::string name_;
};

// A new empty file beside target (so that the rename stays within one
// file system), named after it, open for writing. tError_SaveFile naming
// target, with CantCreateTempFile inside, when none can be made.
std::unique_ptr<OpenFile> createTemporaryFor(const std::string& target) {
  boost::filesystem::path path(target);
  std::string dir = path.parent_path().string();
  if (dir.empty()) dir = ".";
  std::vector<char> name;
  initTempName(name, dir, path.filename().string());
  std::string pattern(name.data());
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    Exc<&CantCreateTempFile> cause(__PRETTY_FUNCTION__, __FILE__, __LINE__);
    cause % pattern % strerror(error);
    TOVEL_THROW_WRAP(tError_SaveFile, cause) % target;
  }
  return std::make_unique<OpenFile>(fd, name.data());
}

// Serialises doc into the open file exactly as saveToFile would.
void writeDocument(xmlDocPtr doc, OpenFile& file) {
  LibxmlErrorCapture capture;
  xmlSaveCtxtPtr ctxt = nullptr;
  if (doc != nullptr) ctxt = xmlSaveToFd(file.fd(), "UTF-8", XML_SAVE_FORMAT);
  if (ctxt == nullptr) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, file.name().c_str(),
                       capture.messages());
  }
  long written = xmlSaveDoc(ctxt, doc);
  if (xmlSaveClose(ctxt) < 0 || written < 0) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, file.name().c_str(),
                       capture.messages());
  }
}

// Gives the file to owner so that the processes of its group can read it.
void handTo(const AccountIds& owner, OpenFile& file) {
  if (fchown(file.fd(), owner.uid, owner.gid) != 0 ||
      fchmod(file.fd(), kSavedFileMode) != 0) {
    int err = errno;
    TOVEL_THROW(CantTakeFileOwnership) % file.name() % strerror(err);
  }
}

// Puts temporary in target's place. An existing target is exchanged with
// the new file and then unlinked, rather than renamed over: ext4 starts
// writing a file's data to disk when a rename replaces another file
// (auto_da_alloc), one disk write per save of a document that a transfer
// rewrites after every chunk. A reader still sees one complete document or
// the other. Where the exchange is not possible (no target yet, a file
// system without it, a target a file cannot replace) a rename does the
// work and reports the failure.
void replaceFile(const std::string& temporary, const std::string& target) {
  if (renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(),
                RENAME_EXCHANGE) == 0) {
    if (unlink(temporary.c_str()) == 0) return;
    renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(),
              RENAME_EXCHANGE);
  }
  if (rename(temporary.c_str(), target.c_str()) != 0) {
    int err = errno;
    TOVEL_THROW(CantRenameFile) % temporary % target % strerror(err);
  }
}

}  // namespace

tXmlDocument::tXmlDocument(const char* fileName) { readFromFile(fileName); }

tXmlDocument::tXmlDocument(const boost::filesystem::path& fileName) {
  readFromFile(fileName.c_str());
}

tXmlDocument::tXmlDocument(const std::string& content) {
  readFromMemory(content);
}

tXmlDocument::~tXmlDocument() = default;

void tXmlDocument::setDoc(xmlDocPtr doc) {
  doc_ = std::shared_ptr<xmlDoc>(doc, [](xmlDocPtr d) {
    if (d != nullptr) xmlFreeDoc(d);
  });
}

void tXmlDocument::readFromFile(const char* filename) {
  TOVEL_XML_ASSERT(filename != NULL);
  TOVEL_XML_ASSERT(*filename != 0);
  if (strcmp(filename, "-") != 0 && !isRegularFile(filename)) {
    TOVEL_THROW(tError_WrongInputFile) % filename;
  }
  LibxmlErrorCapture capture;
  xmlDocPtr doc = xmlReadFile(filename, nullptr, XML_PARSE_NONET);
  if (doc == nullptr) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kParse, filename, capture.messages());
  }
  setDoc(doc);
}

void tXmlDocument::readFromMemory(const std::string& content) {
  TOVEL_XML_ASSERT(content.size());
  LibxmlErrorCapture capture;
  xmlDocPtr doc =
      xmlReadMemory(content.data(), static_cast<int>(content.size()),
                    kMemoryDocumentName, nullptr, XML_PARSE_NONET);
  if (doc == nullptr) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kParse, kMemoryDocumentName,
                       capture.messages());
  }
  setDoc(doc);
}

void tXmlDocument::saveToFile(const char* filename) {
  TOVEL_XML_ASSERT(filename != NULL);
  TOVEL_XML_ASSERT(*filename != 0);
  LibxmlErrorCapture capture;
  if (getDoc() == nullptr ||
      xmlSaveFormatFileEnc(filename, getDoc(), "UTF-8", 1) < 0) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, filename, capture.messages());
  }
}

void tXmlDocument::saveToFile(const std::string& fileName) {
  saveToFile(fileName.c_str());
}

void tXmlDocument::saveToStdout() {
  LibxmlErrorCapture capture;
  if (getDoc() == nullptr || xmlDocFormatDump(stdout, getDoc(), 1) < 0 ||
      fflush(stdout) != 0) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, "-", capture.messages());
  }
}

void tXmlDocument::saveToBuffer(xmlBufferPtr buffer) const {
  TOVEL_XML_ASSERT(buffer != 0);
  LibxmlErrorCapture capture;
  xmlSaveCtxtPtr ctxt = nullptr;
  if (getDoc() != nullptr) {
    ctxt = xmlSaveToBuffer(buffer, "UTF-8", XML_SAVE_FORMAT);
  }
  if (ctxt == nullptr) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, kMemoryDocumentName,
                       capture.messages());
  }
  long written = xmlSaveDoc(ctxt, getDoc());
  if (xmlSaveClose(ctxt) < 0 || written < 0) {
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, kMemoryDocumentName,
                       capture.messages());
  }
}

std::string tXmlDocument::saveToString() const {
  std::unique_ptr<xmlBuffer, BufferFree> buffer(xmlBufferCreate());
  saveToBuffer(buffer.get());
  return std::string(
      reinterpret_cast<const char*>(xmlBufferContent(buffer.get())),
      static_cast<size_t>(xmlBufferLength(buffer.get())));
}

void tXmlDocument::saveToFileAtomically(const std::string& target,
                                        const AccountIds& owner) {
  std::unique_ptr<OpenFile> temporary = createTemporaryFor(target);
  // No fsync: readers are protected by the rename alone, and the progress
  // document is rewritten after every chunk of a transfer, where a sync
  // each time would cost more than the transfer itself.
  writeDocument(getDoc(), *temporary);
  handTo(owner, *temporary);
  if (!temporary->close()) {
    int err = errno;
    TOVEL_THROW_LIBXML(LibxmlFailure::kSave, temporary->name().c_str(),
                       strerror(err));
  }
  replaceFile(temporary->name(), target);
}

tXmlQvtDocument::tXmlQvtDocument(const char* fileName)
    : tXmlDocument(fileName) {}

tXmlQvtDocument::tXmlQvtDocument(const boost::filesystem::path& fileName)
    : tXmlDocument(fileName) {}

tXmlQvtDocument::tXmlQvtDocument(const std::string& content)
    : tXmlDocument(content) {}

void tXmlQvtDocument::initNewDoc(const char* rootName) {
  xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
  if (doc == nullptr) {
    TOVEL_THROW(tError_XmlInternal) % "#0001: Can not create new XML document.";
  }
  setDoc(doc);
  xmlNodePtr root = xmlNewDocNode(doc, nullptr, BAD_CAST rootName, nullptr);
  if (root == nullptr) {
    TOVEL_THROW(tError_XmlInternal) % "#0002: Can not create new node";
  }
  xmlDocSetRootElement(doc, root);
  root_ = root;
}

void tXmlQvtDocument::initFileDoc(const char* rootName) {
  xmlNodePtr root =
      getDoc() == nullptr ? nullptr : xmlDocGetRootElement(getDoc());
  if (root == nullptr) TOVEL_THROW(tError_EmptyDoc) % rootName;
  if (xmlStrcmp(root->name, BAD_CAST rootName) != 0) {
    TOVEL_THROW(tError_WrongDoc) % rootName %
        reinterpret_cast<const char*>(root->name);
  }
  root_ = root;
}

xmlNodePtr tXmlQvtDocument::getRootNodeChild(const char* name) const {
  TOVEL_XML_ASSERT(root_ != NULL);
  for (xmlNodePtr child = root_->children; child != nullptr;
       child = child->next) {
    if (child->type == XML_ELEMENT_NODE &&
        xmlStrcmp(child->name, BAD_CAST name) == 0) {
      return child;
    }
  }
  TOVEL_THROW(tError_WrongContent) %
      (std::string("Can not find '") + name + "' element in '" +
       reinterpret_cast<const char*>(root_->name) + "' element.");
}

std::string tXmlQvtDocument::getNodeText(xmlNodePtr node) const {
  TOVEL_XML_ASSERT(node != NULL);
  return adoptXmlString(xmlNodeListGetString(node->doc, node->children, 1));
}

std::string tXmlQvtDocument::getAttribute(xmlNodePtr node,
                                          const char* name) const {
  TOVEL_XML_ASSERT(node != NULL);
  xmlChar* value = xmlGetProp(node, BAD_CAST name);
  if (value == nullptr) {
    TOVEL_THROW(NoSuchAttribute) % reinterpret_cast<const char*>(node->name) %
        name;
  }
  return adoptXmlString(value);
}

xmlNodePtr tXmlQvtDocument::newChild(xmlNodePtr parent, const char* name) {
  xmlNodePtr node = parent == nullptr
                        ? nullptr
                        : xmlNewChild(parent, nullptr, BAD_CAST name, nullptr);
  if (node == nullptr) {
    TOVEL_THROW(tError_XmlInternal) % "#0002: Can not create new node";
  }
  return node;
}

xmlNodePtr tXmlQvtDocument::newTextChild(xmlNodePtr parent, const char* name,
                                         const std::string& text) {
  if (parent == nullptr) return nullptr;
  return xmlNewTextChild(parent, nullptr, BAD_CAST name,
                         BAD_CAST asXmlText(text).c_str());
}

void tXmlQvtDocument::addAttribute(xmlNodePtr node, const char* name,
                                   const std::string& value) {
  TOVEL_XML_ASSERT(node != NULL);
  if (xmlSetProp(node, BAD_CAST name, BAD_CAST asXmlText(value).c_str()) ==
      nullptr) {
    TOVEL_THROW(tError_XmlInternal) % "#0002: Can not create new node";
  }
}

}  // namespace tovel
