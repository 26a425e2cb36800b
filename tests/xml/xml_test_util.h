// Helpers shared by the XML tests.
#ifndef FERROW_TESTS_XML_XML_TEST_UTIL_H_
#define FERROW_TESTS_XML_XML_TEST_UTIL_H_

#include <cctype>
#include <string>

#include "commons/commons_test_util.h"
#include "commons/session_files.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace xml_test {

using testing_util::messageOf;

// A session directory in a scratch area, installed as theSession for the
// lifetime of the object.
class ScratchSession {
 public:
  ScratchSession() : session_(dir_.path() + "/session") {
    theSession = &session_;
  }
  ~ScratchSession() { theSession = nullptr; }
  std::string statusFile() const { return session_.getStatusFileName(); }

 private:
  ferrow_test::TempDir dir_;
  SessionFiles session_;
};

// The XML text without its declaration, indentation and final newline, so
// that what the tool wrote is compared as text, independent of its reader.
inline std::string bodyOf(const std::string& text) {
  std::string body = ferrow_test::compactXml(text);
  if (body.compare(0, 5, "<?xml") == 0) body.erase(0, body.find("?>") + 2);
  while (!body.empty() && isspace(static_cast<unsigned char>(body.back()))) {
    body.pop_back();
  }
  return body;
}

inline std::string savedBody(const std::string& fileName) {
  return bodyOf(ferrow_test::readFile(fileName));
}

}  // namespace xml_test
}  // namespace tovel

#endif  // FERROW_TESTS_XML_XML_TEST_UTIL_H_
