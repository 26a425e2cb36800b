// The document layer over libxml2 through which every XML file of the tool
// is read and written.
#ifndef FERROW_XML_XML_DOCUMENT_H_
#define FERROW_XML_XML_DOCUMENT_H_

#include <libxml/tree.h>

#include <boost/filesystem/path.hpp>
#include <memory>
#include <string>

#include "commons/accounts.h"
#include "errors/exc.h"
#include "xml/xml_errors.h"

namespace tovel {

// Reading a document, checking its shape and replacing a file with it.
TOVEL_DECLARE_TAG(tError_WrongInputFile)
TOVEL_DECLARE_TAG(tError_EmptyDoc)
TOVEL_DECLARE_TAG(tError_WrongDoc)
TOVEL_DECLARE_TAG(tError_WrongContent)
TOVEL_DECLARE_TAG(NoSuchAttribute)
TOVEL_DECLARE_TAG(CantTakeFileOwnership)
TOVEL_DECLARE_TAG(CantRenameFile)

// Owns one libxml2 document through a shared holder: copies of the object
// share the document and the last one frees it (xmlFreeDoc). May hold no
// document at all (default construction) until a subclass builds one.
class tXmlDocument {
 public:
  tXmlDocument() = default;
  // Read and parse a file (readFromFile).
  explicit tXmlDocument(const char* fileName);
  explicit tXmlDocument(const boost::filesystem::path& fileName);
  // Parse the text in memory; it must not be empty (AssertionFailed
  // "content.size()"). A parse failure throws tError_ParseFile naming
  // "in-memory buffer".
  explicit tXmlDocument(const std::string& content);
  virtual ~tXmlDocument();

  // Saves the document (UTF-8, indented) to the file. The name must be
  // non-null and non-empty (AssertionFailed); a failure throws
  // tError_SaveFile with the name.
  virtual void saveToFile(const char* fileName);
  virtual void saveToFile(const std::string& fileName);
  // Prints the document on standard output; tError_SaveFile "-" on failure.
  virtual void saveToStdout();

  // Appends the serialised document to buffer, which must not be null
  // (AssertionFailed "buffer != 0"); tError_SaveFile on failure.
  void saveToBuffer(xmlBufferPtr buffer) const;
  // The serialised document as text.
  std::string saveToString() const;

  // Replaces target as a whole: a reader sees either the previous complete
  // file or the new one. A temporary file is created beside target, the
  // document saved into it (tError_SaveFile naming it; not synced), handed
  // to owner's uid and gid (CantTakeFileOwnership), made readable by that
  // group (mode 0640) and put in target's place (CantRenameFile). When no
  // temporary file can be created, tError_SaveFile names target with the
  // cause inside. A temporary file that was written is left behind when a
  // later step fails.
  void saveToFileAtomically(const std::string& target, const AccountIds& owner);

  // The libxml2 document, still owned by this object; null when none.
  xmlDocPtr getDoc() const { return doc_.get(); }

 protected:
  // Parses the file into this object, replacing any document held. The name
  // must be non-null and non-empty (AssertionFailed); "-" reads standard
  // input, any other name must be an existing regular file
  // (tError_WrongInputFile). Parser messages are collected and reported
  // with tError_ParseFile.
  void readFromFile(const char* fileName);
  void readFromMemory(const std::string& content);
  // Takes ownership of doc (may be null).
  void setDoc(xmlDocPtr doc);

 private:
  std::shared_ptr<xmlDoc> doc_;
};

// A document with one root element and the checked accessors that the
// status and exchange documents use. Node pointers handed out belong to the
// document.
class tXmlQvtDocument : public tXmlDocument {
 public:
  // No document yet: call initNewDoc.
  tXmlQvtDocument() = default;
  // Read a document (as tXmlDocument); call initFileDoc to check its root.
  explicit tXmlQvtDocument(const char* fileName);
  explicit tXmlQvtDocument(const boost::filesystem::path& fileName);
  explicit tXmlQvtDocument(const std::string& content);

  // Starts a new document whose root element is rootName. Throws
  // tError_XmlInternal ("#0001: Can not create new XML document." or
  // "#0002: Can not create new node").
  void initNewDoc(const char* rootName);
  // Checks the root of a document that was read: tError_EmptyDoc when there
  // is none, tError_WrongDoc when its name is not rootName.
  void initFileDoc(const char* rootName);

  xmlNodePtr getRoot() const { return root_; }

  // The first child element of the root named name; tError_WrongContent
  // when there is none.
  xmlNodePtr getRootNodeChild(const char* name) const;
  // The text content of node's children ("" when none).
  std::string getNodeText(xmlNodePtr node) const;
  // The value of node's attribute; NoSuchAttribute when it has none.
  std::string getAttribute(xmlNodePtr node, const char* name) const;

  // Appends an empty element to parent and returns it; tError_XmlInternal
  // "#0002: Can not create new node" when that fails (null parent too).
  xmlNodePtr newChild(xmlNodePtr parent, const char* name);
  // Appends an element holding text (escaped) to parent and returns it.
  // With a null parent nothing is created, nothing is reported, and null is
  // returned: the status document relies on this.
  xmlNodePtr newTextChild(xmlNodePtr parent, const char* name,
                          const std::string& text);
  // Sets the attribute, replacing one of the same name.
  void addAttribute(xmlNodePtr node, const char* name,
                    const std::string& value);

 protected:
  xmlNodePtr root_ = nullptr;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::tError_WrongInputFile, "tError_WrongInputFile",
                 "The XML file does not exist or is not a regular file. Check "
                 "the file '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_EmptyDoc, "tError_EmptyDoc",
                 "The document is empty. Can not find root element <%1%>");
TOVEL_EXC_TRAITS(&tovel::tError_WrongDoc, "tError_WrongDoc",
                 "The document has the wrong type, root node is <%2%>, but "
                 "<%1%> was expected");
TOVEL_EXC_TRAITS(&tovel::tError_WrongContent, "tError_WrongContent", "%1%");
TOVEL_EXC_TRAITS(&tovel::NoSuchAttribute, "NoSuchAttribute",
                 "Node %1% does not have attribute %2%");
TOVEL_EXC_TRAITS(&tovel::CantTakeFileOwnership, "CantTakeFileOwnership",
                 "Cannot take ownership of %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::CantRenameFile, "CantRenameFile",
                 "Cannot rename %1% to %2%: %3%");

#endif  // FERROW_XML_XML_DOCUMENT_H_
