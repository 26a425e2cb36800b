// Helpers shared by the XML tests.
#ifndef FERROW_TESTS_XML_XML_TEST_UTIL_H_
#define FERROW_TESTS_XML_XML_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commons/session_files.h"
#include "errors/exc.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace xml_test {

// Runs body, which must throw Exc<Tag>; returns its message ("" and a test
// failure otherwise).
template <ExcTag Tag>
std::string messageOf(const std::function<void()>& body) {
  try {
    body();
    ADD_FAILURE() << "nothing thrown, expected " << ExcTraits<Tag>::code();
  } catch (const Exc<Tag>& e) {
    return e.what();
  } catch (const ExTraceable& e) {
    ADD_FAILURE() << "expected " << ExcTraits<Tag>::code() << ", got "
                  << e.code() << ": " << e.what();
  }
  return std::string();
}

// Creates "dyradm" when missing. Test programs run side by side under
// ctest: when another one creates it at the same moment our useradd fails,
// which is fine as long as the account exists afterwards.
inline void ensurePanelAccount() {
  try {
    ferrow_test::ensurePanelAccount();
  } catch (const std::exception&) {
    ferrow_test::ensurePanelAccount();
  }
}

// A session directory in a scratch area, installed as theSession for the
// lifetime of the object.
class ScratchSession {
 public:
  ScratchSession() : session_(dir_.path() + "/session") {
    theSession = &session_;
  }
  ~ScratchSession() { theSession = nullptr; }
  ScratchSession(const ScratchSession&) = delete;
  ScratchSession& operator=(const ScratchSession&) = delete;

  std::string statusFile() const { return session_.getStatusFileName(); }
  const std::string& scratch() const { return dir_.path(); }

 private:
  ferrow_test::TempDir dir_;
  SessionFiles session_;
};

struct DocFree {
  void operator()(xmlDocPtr doc) const { xmlFreeDoc(doc); }
};
typedef std::unique_ptr<xmlDoc, DocFree> DocOwner;

// Parses a file with libxml2 directly, so that what the tool wrote is
// checked independently of its own reader; null when it does not parse.
inline DocOwner parseWithLibxml(const std::string& fileName) {
  return DocOwner(xmlReadFile(fileName.c_str(), nullptr,
                              XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}

inline std::string nodeName(xmlNodePtr node) {
  return node == nullptr ? "(null)" : reinterpret_cast<const char*>(node->name);
}

// The value of an attribute, or "(none)" when the node lacks it.
inline std::string attr(xmlNodePtr node, const char* name) {
  xmlChar* value = xmlGetProp(node, BAD_CAST name);
  if (value == nullptr) return "(none)";
  std::string result(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return result;
}

inline std::string text(xmlNodePtr node) {
  xmlChar* value = xmlNodeGetContent(node);
  std::string result(value ? reinterpret_cast<const char*>(value) : "");
  xmlFree(value);
  return result;
}

// The element children of node, in order.
inline std::vector<xmlNodePtr> elements(xmlNodePtr node) {
  std::vector<xmlNodePtr> result;
  for (xmlNodePtr child = node->children; child; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) result.push_back(child);
  }
  return result;
}

inline int attributeCount(xmlNodePtr node) {
  int count = 0;
  for (xmlAttrPtr a = node->properties; a; a = a->next) ++count;
  return count;
}

}  // namespace xml_test
}  // namespace tovel

#endif  // FERROW_TESTS_XML_XML_TEST_UTIL_H_
