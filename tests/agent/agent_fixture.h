// The reference agent of share/agents run locally, laid out as
// --deploy-agent lays it out on a source host, and small readers for what
// it writes.
#ifndef FERROW_TESTS_AGENT_AGENT_FIXTURE_H_
#define FERROW_TESTS_AGENT_AGENT_FIXTURE_H_

#include <libxml/tree.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commons/checksum.h"
#include "commons/exec_cmd.h"
#include "support/ferrow_runner.h"
#include "xml/xml_document.h"
#include "xml/xml_xpath.h"

namespace ferrow_test {

inline std::string shareDir() { return FERROW_SOURCE_DIR "/share"; }
inline std::string sampleSource() { return shareDir() + "/sample-source"; }
inline std::string agentCatalogue() { return shareDir() + "/agents"; }

// Runs program with args, feeding input; the result of the run.
inline RunResult runProgram(const std::string& program,
                            const std::vector<std::string>& args,
                            const std::string& input = "") {
  tovel::ExecCmd cmd(program);
  for (const std::string& arg : args) cmd << arg;
  cmd.setInput(input);
  RunResult result;
  result.exitCode = cmd.execCmdLine();
  result.out = cmd.getOutput();
  result.err = cmd.getErrors();
  return result;
}

// Runs program and throws when it fails.
inline void mustRun(const std::string& program,
                    const std::vector<std::string>& args) {
  RunResult r = runProgram(program, args);
  if (r.exitCode != 0) throw std::runtime_error(program + " failed: " + r.err);
}

class DeployedAgent {
 public:
  // The shared files, then the agent's own files without its top-level
  // control directory; agent.conf holds settings unless they are empty.
  explicit DeployedAgent(const std::string& settings = "source-root: " +
                                                       sampleSource() + "\n") {
    mustRun("cp", {"-a", agentCatalogue() + "/shared/.", dir()});
    mustRun("cp", {"-a", agentCatalogue() + "/reference/.", dir()});
    mustRun("rm", {"-r", dir() + "/control"});
    if (!settings.empty()) writeFile(file("agent.conf"), settings);
  }

  const std::string& dir() const { return dir_.path(); }
  std::string file(const std::string& name) const { return dir() + "/" + name; }

  // perl <dir>/agent.pl args, as ferrow runs it.
  RunResult run(const std::vector<std::string>& args,
                const std::string& input = "") const {
    std::vector<std::string> all = {file("agent.pl")};
    all.insert(all.end(), args.begin(), args.end());
    return runProgram("perl", all, input);
  }

 private:
  TempDir dir_;
};

// The string values of the nodes that xpath selects in document (attribute
// values or element texts), in document order.
inline std::vector<std::string> xpathStrings(const tovel::tXmlDocument& doc,
                                             const std::string& xpath) {
  std::vector<std::string> values;
  tovel::tXPathExpr expr(doc, xpath);
  for (xmlNodePtr node : expr.getNodeSet()) {
    std::unique_ptr<xmlChar, void (*)(void*)> text(xmlNodeGetContent(node),
                                                   xmlFree);
    values.push_back(text ? reinterpret_cast<const char*>(text.get()) : "");
  }
  return values;
}

// The single value xpath selects; "" when it selects nothing.
inline std::string xpathString(const tovel::tXmlDocument& doc,
                               const std::string& xpath) {
  std::vector<std::string> values = xpathStrings(doc, xpath);
  return values.empty() ? std::string() : values.front();
}

inline std::set<std::string> asSet(const std::vector<std::string>& values) {
  return std::set<std::string>(values.begin(), values.end());
}

inline std::string md5OfFile(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + name);
  return tovel::countMd5Sum(in);
}

// Total size of the regular files under dir.
inline uint64_t treeSize(const std::string& dir) {
  uint64_t size = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir))
    if (entry.is_regular_file()) size += entry.file_size();
  return size;
}

}  // namespace ferrow_test

#endif  // FERROW_TESTS_AGENT_AGENT_FIXTURE_H_
