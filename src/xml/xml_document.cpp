#include "xml/xml_document.h"

#include <libxml/parser.h>
#include <libxml/xmlsave.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commons/accounts.h"
#include "commons/temp_files.h"
#include "xml/xml_errors.h"

namespace tovel {

namespace {

const char kMemoryDocumentName[] = "in-memory buffer";

// Status documents are read by the panel through the group of "dyradm".
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

std::string temporaryNameFor(const std::string& target) {
  boost::filesystem::path path(target);
  std::string dir = path.parent_path().string();
  if (dir.empty()) dir = ".";
  try {
    return QVT_getTempFileName(dir, path.filename().string());
  } catch (const ExTraceable& e) {
    TOVEL_THROW_WRAP(tError_SaveFile, e) % target;
  }
}

// Gives the file to "dyradm" so that the panel's processes can read it.
void handToPanel(const std::string& fileName) {
  AccountIds ids = lookupAccount(kPanelAccount);
  if (chown(fileName.c_str(), ids.uid, ids.gid) != 0 ||
      chmod(fileName.c_str(), kSavedFileMode) != 0) {
    int err = errno;
    TOVEL_THROW(CantTakeFileOwnership) % fileName % strerror(err);
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

void tXmlDocument::saveToFileAtomically(const std::string& target) {
  // Beside the target, so that the rename stays within one file system.
  std::string temporary = temporaryNameFor(target);
  // No fsync: readers are protected by the rename alone, and the progress
  // document is rewritten after every chunk of a transfer, where a sync
  // each time would cost more than the transfer itself.
  saveToFile(temporary);
  handToPanel(temporary);
  if (rename(temporary.c_str(), target.c_str()) != 0) {
    int err = errno;
    TOVEL_THROW(CantRenameFile) % temporary % target % strerror(err);
  }
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
  return xmlNewTextChild(parent, nullptr, BAD_CAST name, BAD_CAST text.c_str());
}

void tXmlQvtDocument::addAttribute(xmlNodePtr node, const char* name,
                                   const std::string& value) {
  TOVEL_XML_ASSERT(node != NULL);
  if (xmlSetProp(node, BAD_CAST name, BAD_CAST value.c_str()) == nullptr) {
    TOVEL_THROW(tError_XmlInternal) % "#0002: Can not create new node";
  }
}

}  // namespace tovel
