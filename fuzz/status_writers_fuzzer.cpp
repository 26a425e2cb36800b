// The writers of "migration.status" and of the run record fed arbitrary
// strings (the input cut at NUL bytes): every file they save parses back,
// and each non-empty string that XML can hold at all comes back unchanged,
// as an attribute value or as the text of an element.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <stddef.h>
#include <stdint.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commons/free_space.h"
#include "commons/host_log.h"
#include "commons/session_files.h"
#include "fuzz_support.h"
#include "log/debug_log.h"
#include "log/run_log.h"
#include "xml/migration_status.h"

namespace {

using ferrow_fuzz::check;

struct DocFree {
  void operator()(xmlDocPtr doc) const { xmlFreeDoc(doc); }
};

// The text of node's children, as a reader of the element sees it.
std::string textOf(xmlNodePtr node) {
  std::unique_ptr<xmlChar, decltype(xmlFree)> text(xmlNodeGetContent(node),
                                                   xmlFree);
  return text ? reinterpret_cast<const char*>(text.get()) : "";
}

void collectValues(xmlNodePtr node, std::multiset<std::string>& values) {
  for (; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    for (xmlAttrPtr a = node->properties; a != nullptr; a = a->next) {
      values.insert(textOf(reinterpret_cast<xmlNodePtr>(a)));
    }
    bool leaf = true;
    for (xmlNodePtr c = node->children; c != nullptr; c = c->next) {
      leaf = leaf && c->type != XML_ELEMENT_NODE;
    }
    if (leaf) values.insert(textOf(node));
    collectValues(node->children, values);
  }
}

// Parses the saved file with libxml2 alone and checks that each string
// XML can hold is among its attribute values and element texts. An empty
// string may rightly be left out (an optional attribute).
void checkSaved(const std::string& file,
                const std::vector<std::string>& strings) {
  std::unique_ptr<xmlDoc, DocFree> doc(
      xmlReadFile(file.c_str(), nullptr,
                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  check(doc != nullptr, file + " does not parse back");
  std::multiset<std::string> values;
  collectValues(xmlDocGetRootElement(doc.get()), values);
  for (const std::string& s : strings) {
    if (s.empty() || !ferrow_fuzz::isXmlText(s)) continue;
    check(values.count(s) > 0, file + " lost the string '" + s + "'");
  }
}

void writeStatus(const tovel::SessionFiles& session,
                 const std::vector<std::string>& s) {
  const std::string file = session.getStatusFileName();
  std::unique_ptr<tovel::MigrationStatus> status =
      tovel::createMigrationStatusFile(file, session.getDocumentOwner());
  status->setAgentParams(s[0]);
  status->setTransferSpeed(s[1]);
  status->setTransferTotals(s[2], s[3]);
  status->setCurrentFile(s[4], s[5]);
  status->saveFile();
  std::vector<std::string> expected = {s[0], s[1], s[2], s[3], s[4]};
  // The size is shown only with a file name.
  if (!s[4].empty()) expected.push_back(s[5]);
  checkSaved(file, expected);
  status->setDeployTotals(s[6], s[7]);
  status->setCurrentObject(s[8], tovel::MigrationStatus::domain);
  status->saveFile();
  checkSaved(file, {s[6], s[7], s[8]});
}

void writeRunRecord(const tovel::SessionFiles& session,
                    const std::vector<std::string>& s) {
  std::string file;
  {
    tovel::Log4cppDebugLog debugLog(false, false);
    tovel::XmlLog record(session, "", debugLog);
    file = record.getFileName();
    record.pushObject(s[9], s[10]);
    record.log(tovel::Exc<&tovel::CantStatFS>("fuzz", "./fuzz.cpp", 1) % s[11] %
               s[12]);
    record.popObject();
    record.setSuccess(false);
  }
  std::string message =
      "Cannot stat filesystem containing " + s[11] + ": " + s[12];
  checkSaved(file, {s[9], s[10], message});
  unlink(file.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tovel::SessionFiles* session = [] {
    tovel::setHostLogSink([](tovel::HostLogLevel, const std::string&) {});
    return new tovel::SessionFiles(ferrow_fuzz::scratchDir() + "/session");
  }();
  std::vector<std::string> strings = ferrow_fuzz::splitInput(data, size, 13);
  writeStatus(*session, strings);
  writeRunRecord(*session, strings);
  return 0;
}
