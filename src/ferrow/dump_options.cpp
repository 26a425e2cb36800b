#include "ferrow/dump_options.h"

#include <string>

#include "xml/xml_document.h"
#include "xml/xml_xpath.h"

namespace tovel {
namespace {

// The selected-objects file: any root element, read as it is.
class tFerrowXmlDocument : public tXmlDocument {
 public:
  explicit tFerrowXmlDocument(const std::string& file)
      : tXmlDocument(file.c_str()) {}
};

// Appends the text of each visited node to a ","-separated list.
class tPeriodSeparatedListOperator : public tXmlOperator {
 public:
  explicit tPeriodSeparatedListOperator(std::string& target)
      : target_(target) {}

  void operator()(xmlNodePtr node) override {
    if (node->content == nullptr) return;
    if (count_ > 0) target_ += ",";
    target_ += reinterpret_cast<const char*>(node->content);
    ++count_;
  }

 private:
  std::string& target_;
  int count_ = 0;
};

void appendNames(const tXmlDocument& document, const std::string& expression,
                 std::string& list) {
  tPeriodSeparatedListOperator append(list);
  tXPathExpr(document, expression).forEachNode(append);
}

bool present(const tXmlDocument& document, const std::string& expression) {
  return !tXPathExpr(document, expression).getNodeSet().empty();
}

std::string attribute(const tXmlDocument& document,
                      const std::string& expression) {
  return tXPathExpr(document, "string(" + expression + ")").str();
}

void appendList(const std::string& value, std::string& list) {
  if (value.empty()) return;
  if (!list.empty()) list += ",";
  list += value;
}

// The argument that announces a list, and the list as a line of input.
void passList(const std::string& list, const char* argument,
              std::vector<std::string>& arguments,
              std::string& standardInputText) {
  if (list.empty()) return;
  arguments.push_back(argument);
  standardInputText += list + "\n";
}

std::string portText(int port) {
  return port == -1 ? std::string() : std::to_string(port);
}

}  // namespace

void parseSelectedObjectsFile(const std::string& file,
                              DumpSelection& selection) {
  tFerrowXmlDocument document(file);
  appendNames(document, "//domain/name/text()", selection.domains);
  appendNames(document, "//client/name/text()", selection.clients);
  appendNames(document, "//reseller/name/text()", selection.resellers);
  selection.server = present(document, "//server");
  if (present(document, "//server/license")) selection.noLicense = true;
  if (present(document, "//admin-info")) selection.adminInfo = true;

  // The file spells hosting "only-phosting", unlike the option.
  std::string filter = attribute(document, "/*/parameters/@filter");
  if (filter == "only-mail") selection.only = ObjectFilter::kMailOnly;
  if (filter == "only-phosting") selection.only = ObjectFilter::kHostingOnly;

  std::string level = attribute(document, "/*/parameters/@compression-level");
  if (level == "do-not-compress")
    selection.compression = Compression::kNoCompression;
  if (level == "standard") selection.compression = Compression::kStandard;
}

void getSelectedObjectsFromConfig(const CommandLine& cfg,
                                  DumpSelection& selection) {
  appendList(cfg.domains, selection.domains);
  appendList(cfg.clients, selection.clients);
  appendList(cfg.resellers, selection.resellers);
  if (cfg.only != ObjectFilter::kAll) selection.only = cfg.only;
  if (cfg.compression != Compression::kUnset)
    selection.compression = cfg.compression;
  selection.server = cfg.server;
  selection.adminInfo = cfg.adminInfo;
  selection.noLicense = cfg.noLicense;
}

void prepareDumpOptions(const CommandLine& cfg,
                        std::vector<std::string>& arguments,
                        std::string& standardInputText) {
  DumpSelection selection;
  if (!cfg.selectedObjectsFile.empty()) {
    parseSelectedObjectsFile(cfg.selectedObjectsFile, selection);
  }
  getSelectedObjectsFromConfig(cfg, selection);

  passList(selection.domains, "--dump-domains=-", arguments, standardInputText);
  passList(selection.clients, "--dump-clients=-", arguments, standardInputText);
  passList(selection.resellers, "--dump-resellers=-", arguments,
           standardInputText);
  if (selection.only == ObjectFilter::kMailOnly)
    arguments.push_back("--only-mail");
  if (selection.only == ObjectFilter::kHostingOnly)
    arguments.push_back("--only-hosting");
  if (selection.compression == Compression::kNoCompression)
    arguments.push_back("--no-compress");
  arguments.push_back("--include-app-distrib");
  if (selection.server) arguments.push_back("--server");
  if (selection.adminInfo) arguments.push_back("--admin-info");
  if (selection.noLicense) arguments.push_back("--no-license");
}

void buildDumpArguments(const CommandLine& cfg,
                        std::vector<std::string>& arguments,
                        std::string& standardInputText) {
  if (cfg.contentTransport == "rsync") {
    // The password goes only to the agent's input, never on a command line
    // that other users of the source host could read.
    standardInputText += cfg.host + "\n" + cfg.login + "\n" + cfg.password +
                         "\n" + portText(cfg.port) + "\n";
    arguments.push_back("--content-transport=rsync");
  }
  arguments.push_back("--migration-mode");
  if (cfg.action == kDumpAll) {
    // A full dump deliberately ignores every selection option.
    arguments.push_back("--dump-all");
    return;
  }
  prepareDumpOptions(cfg, arguments, standardInputText);
}

}  // namespace tovel
