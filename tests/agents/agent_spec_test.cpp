// The agent catalogue: the spec file syntax and the factory that finds,
// rejects and caches agents under the product's QVT/agents.
#include "agents/agent_spec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>

#include "commons/dyr_conf.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"

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
  const std::pair<std::string, std::string> refused[] = {
      {"Description: d\n\nno colon here\n",
       name + ":3: Expected '<token>: <value>', got 'no colon here'"},
      {"Entrypoint: x\n", illegal + "Entrypoint"},
      {"EntryPoint : x\n", illegal + "EntryPoint "},
      {" EntryPoint: x\n", illegal + " EntryPoint"},
      {"EntryPointX: x\n", illegal + "EntryPointX"},
  };
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

class AgentsFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    catalogue_ = dir_.path() + "/product/QVT/agents";
    writeFile(dir_.path() + "/dyr.conf",
              "PRODUCT_ROOT_D " + dir_.path() + "/product\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
    boost::filesystem::create_directories(catalogue_ + "/shared");
  }
  void TearDown() override { dyrConfResetForTesting(nullptr); }

  std::string specOf(const std::string& agent) const {
    return catalogue_ + "/" + agent + "/control/spec";
  }
  void addAgent(const std::string& agent, const std::string& spec) const {
    boost::filesystem::create_directories(catalogue_ + "/" + agent +
                                          "/control");
    writeFile(specOf(agent), spec);
  }
  void expectNotFound(const std::string& name) {
    try {
      factory_.getAgent(name);
      ADD_FAILURE() << name << " was found";
    } catch (const Exc<&AgentNotFound>& e) {
      EXPECT_EQ("Agent " + name +
                    " was not found or does not contain proper spec file",
                std::string(e.what()));
    }
  }

  ferrow_test::TempDir dir_;
  std::string catalogue_;
  AgentsFactory factory_;
};

TEST_F(AgentsFactoryTest, FindsLogsAndKeepsAnAgentOnce) {
  addAgent("sample",
           "Description: Source agent\nEntryPoint: agent.pl\n"
           "DocumentType: dump.dtd\n");
  addAgent("sh-agent", "EntryPoint: run.sh\nInterpreter: /bin/sh\n");
  LogCapture agentLog("p.Agent");
  LogCapture factoryLog("p.AgentsFactory");
  std::shared_ptr<Agent> agent = factory_.getAgent("sample");
  EXPECT_EQ("sample", agent->getName());
  EXPECT_EQ("perl", agent->getInterpreterOrDefault());
  EXPECT_EQ(catalogue_ + "/sample/control/dump.dtd",
            agent->getDocumentTypePath());
  EXPECT_THAT(
      factoryLog.lines(),
      ElementsAre("Parsing sample", "Parsing " + catalogue_ + "/sample"));
  EXPECT_THAT(
      agentLog.lines(),
      ElementsAre("Description: Source agent", "EntryPoint: agent.pl",
                  "DocumentType: " + catalogue_ + "/sample/control/dump.dtd",
                  "Interpreter: perl"));
  std::shared_ptr<Agent> sh = factory_.getAgent("sh-agent");
  EXPECT_EQ("/bin/sh", sh->getInterpreterOrDefault());
  EXPECT_EQ("", sh->getDocumentTypePath());

  // Parsed once: a changed spec is not read again by this factory.
  writeFile(specOf("sample"), "EntryPoint: second.pl\n");
  EXPECT_TRUE(factory_.parseAgent("sample", catalogue_ + "/sample"));
  EXPECT_EQ(agent, factory_.getAgent("sample"));
  EXPECT_EQ("agent.pl", agent->getEntryPoint());
  EXPECT_EQ(5u, factoryLog.lines().size());  // only the parse asked for
  EXPECT_EQ("second.pl", AgentsFactory().getAgent("sample")->getEntryPoint());
}

TEST_F(AgentsFactoryTest, BrokenAgentsAreRefusedUntilMended) {
  addAgent("a", "Entrypoint: wrong.pl\n");
  boost::filesystem::create_directories(specOf("dir-spec"));
  boost::filesystem::create_directories(catalogue_ + "/no-spec/control");
  LogCapture log("p.AgentsFactory");
  for (const char* name : {"a", "dir-spec", "no-spec", "absent"})
    expectNotFound(name);
  // The placeholder is written out as it stands, the path right after it.
  EXPECT_THAT(log.lines(),
              Contains("%1% is not a valid agent spec file" + specOf("a")));
  for (const char* name : {"dir-spec", "no-spec", "absent"}) {
    EXPECT_THAT(log.lines(), Contains(specOf(name) + " is not a regular file"));
  }
  writeFile(specOf("a"), "EntryPoint: right.pl\n");
  EXPECT_EQ("right.pl", factory_.getAgent("a")->getEntryPoint());
}

TEST_F(AgentsFactoryTest, GetAllAgentsCachesEveryValidOne) {
  addAgent("good", "EntryPoint: g.pl\n");
  addAgent("bad", "garbage\n");
  writeFile(catalogue_ + "/loose-file", "not an agent");
  LogCapture log("p.AgentsFactory");
  factory_.getAllAgents();
  for (const char* line : {"Parsing available agents info", "Parsing shared",
                           "Parsing good", "Parsing bad"}) {
    EXPECT_THAT(log.lines(), Contains(line));
  }
  EXPECT_THAT(log.lines(), ::testing::Not(Contains("Parsing loose-file")));
  // Once the catalogue is gone only what was cached is left, and a missing
  // catalogue is no broken agent: no warning.
  boost::filesystem::rename(catalogue_, catalogue_ + ".gone");
  EXPECT_EQ("g.pl", factory_.getAgent("good")->getEntryPoint());
  expectNotFound("bad");
  EXPECT_EQ("Parsing bad", log.lines().back());
  AgentsFactory empty;
  empty.getAllAgents();
  EXPECT_EQ("Parsing available agents info", log.lines().back());
}

}  // namespace
}  // namespace tovel
