// Agent spec files and the factory that finds, rejects and caches agents.
#include "agents/agents_factory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>

#include "agents/agent.h"
#include "commons/dyr_conf.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using ferrow_test::LogCapture;
using ferrow_test::writeFile;
using ::testing::Contains;
using ::testing::ElementsAre;

TEST(AgentParseTest, KeysValuesAndRefusedLines) {
  ferrow_test::TempDir dir;
  const std::string name = dir.path() + "/spec";
  writeFile(name,
            "Interpreter:   /usr/bin/perl -w\n\nStylesheet: agent.xsl\n"
            "DocumentType:\tdump.dtd\nEntryPoint:agent.pl\n"
            "Description: Source: agent \r\nEntryPoint: later.pl");
  EXPECT_THAT(Agent::parse(name),
              ElementsAre("Source: agent \r", "later.pl", "dump.dtd",
                          "agent.xsl", "/usr/bin/perl -w"));
  EXPECT_THAT(Agent::parse(dir.path() + "/missing"),
              ElementsAre("", "", "", "", ""));
  // Keys are exact; line numbers count the empty lines too.
  const std::string illegal = "Illegal parameter found in " + name + ": ";
  // clang-format off
  const std::pair<std::string, std::string> refused[] = {
      {"Description: d\n\nno colon here\n", name + ":3: Expected '<token>: <value>', got 'no colon here'"},
      {"Entrypoint: x\n", illegal + "Entrypoint"}, {"EntryPoint : x\n", illegal + "EntryPoint "},
      {" EntryPoint: x\n", illegal + " EntryPoint"}, {"EntryPointX: x\n", illegal + "EntryPointX"}};
  // clang-format on
  for (const auto& r : refused) {
    writeFile(name, r.first);
    try {
      Agent::parse(name);
      ADD_FAILURE() << "accepted: " << r.first;
    } catch (const Exc<&ParseFailed>& e) {
      EXPECT_EQ("Unable to parse spec file: " + r.second, e.what());
    }
  }
}

// The factory over a catalogue under a fixture product root.
TEST(AgentsFactoryTest, FindsRejectsAndKeepsAgents) {
  ferrow_test::TempDir dir;
  const std::string catalogue = dir.path() + "/product/QVT/agents";
  auto spec = [&](const std::string& agent) {
    return catalogue + "/" + agent + "/control/spec";
  };
  auto add = [&](const std::string& agent, const std::string& text) {
    boost::filesystem::create_directories(catalogue + "/" + agent + "/control");
    if (!text.empty()) writeFile(spec(agent), text);
  };
  writeFile(dir.path() + "/c", "PRODUCT_ROOT_D " + dir.path() + "/product\n");
  dyrConfResetForTesting((dir.path() + "/c").c_str());
  add("sample", "Description: Src\nEntryPoint: a.pl\nDocumentType: d.dtd\n");
  add("sh", "EntryPoint: run.sh\nInterpreter: /bin/sh\n");
  add("bad", "Entrypoint: wrong.pl\n");
  add("no-spec", "");
  boost::filesystem::create_directories(spec("dir-spec"));
  writeFile(catalogue + "/loose-file", "not an agent");
  LogCapture log("p.AgentsFactory");
  AgentsFactory factory;
  std::shared_ptr<Agent> agent = factory.getAgent("sample");
  EXPECT_EQ("sample|Src|a.pl|perl|" + catalogue + "/sample/control/d.dtd",
            agent->getName() + "|" + agent->getDescription() + "|" +
                agent->getEntryPoint() + "|" +
                agent->getInterpreterOrDefault() + "|" +
                agent->getDocumentTypePath());
  std::shared_ptr<Agent> sh = factory.getAgent("sh");
  EXPECT_EQ("/bin/sh|",
            sh->getInterpreterOrDefault() + "|" + sh->getDocumentTypePath());
  for (const char* name : {"bad", "dir-spec", "no-spec", "absent"})
    EXPECT_THROW(factory.getAgent(name), Exc<&AgentNotFound>) << name;
  // Log readers match this line, placeholder and all.
  EXPECT_THAT(log.lines(),
              Contains("%1% is not a valid agent spec file" + spec("bad")));

  // Parsed once: a changed spec does not change an agent already found.
  writeFile(spec("sample"), "EntryPoint: second.pl\n");
  EXPECT_TRUE(factory.parseAgent("sample", catalogue + "/sample"));
  EXPECT_EQ(agent, factory.getAgent("sample"));
  EXPECT_EQ("a.pl", agent->getEntryPoint());
  dyrConfResetForTesting(nullptr);
}

}  // namespace
}  // namespace tovel
