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
using ::testing::IsEmpty;

// --- spec syntax -------------------------------------------------------------

class AgentParseTest : public ::testing::Test {
 protected:
  std::string spec(const std::string& text) {
    std::string name = dir_.path() + "/spec";
    writeFile(name, text);
    return name;
  }
  // The message of the ParseFailed that parsing text raises.
  std::string failure(const std::string& text) {
    std::string name = spec(text);
    try {
      Agent::parse(name);
    } catch (const Exc<&ParseFailed>& e) {
      return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return "";
  }

  ferrow_test::TempDir dir_;
};

TEST_F(AgentParseTest, ReadsEveryKeyInItsSlot) {
  Agent::Data data = Agent::parse(
      spec("Interpreter:   /usr/bin/perl -w\n"
           "\n"
           "Stylesheet: agent.xsl\n"
           "DocumentType:\tdump.dtd\n"
           "EntryPoint:agent.pl\n"
           "Description: Source: server agent  \n"
           "EntryPoint: later.pl"));  // last line without a line break
  EXPECT_EQ(data[Agent::kDescription], "Source: server agent  ");
  EXPECT_EQ(data[Agent::kEntryPoint], "later.pl");
  EXPECT_EQ(data[Agent::kDocumentType], "dump.dtd");
  EXPECT_EQ(data[Agent::kStylesheet], "agent.xsl");
  EXPECT_EQ(data[Agent::kInterpreter], "/usr/bin/perl -w");
}

TEST_F(AgentParseTest, CarriageReturnsStayInTheValues) {
  Agent::Data data =
      Agent::parse(spec("Description: x\r\nEntryPoint: agent.pl\r\n"));
  EXPECT_EQ(data[Agent::kDescription], "x\r");
  EXPECT_EQ(data[Agent::kEntryPoint], "agent.pl\r");
}

TEST_F(AgentParseTest, AbsentKeysAndUnreadableFilesGiveEmptyValues) {
  Agent::Data data = Agent::parse(spec("EntryPoint: a.pl\n"));
  EXPECT_EQ(data[Agent::kInterpreter], "");
  EXPECT_EQ(data[Agent::kDocumentType], "");
  data = Agent::parse(dir_.path() + "/missing");
  for (const std::string& value : data) EXPECT_EQ(value, "");
}

TEST_F(AgentParseTest, RejectsLinesThatAreNotKnownKeys) {
  const std::string name = dir_.path() + "/spec";
  // Line numbers count the empty lines too.
  EXPECT_EQ(failure("Description: d\n\nno colon here\n"),
            "Unable to parse spec file: " + name +
                ":3: Expected '<token>: <value>', got 'no colon here'");
  EXPECT_EQ(failure("Entrypoint: x\n"),
            "Unable to parse spec file: Illegal parameter found in " + name +
                ": Entrypoint");
  EXPECT_EQ(failure("EntryPoint : x\n"),
            "Unable to parse spec file: Illegal parameter found in " + name +
                ": EntryPoint ");
  EXPECT_EQ(failure(" EntryPoint: x\n"),
            "Unable to parse spec file: Illegal parameter found in " + name +
                ":  EntryPoint");
  EXPECT_EQ(failure("EntryPointX: x\n"),
            "Unable to parse spec file: Illegal parameter found in " + name +
                ": EntryPointX");
}

// --- the factory
// ---------------------------------------------------------------

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
  // The message of the AgentNotFound that getAgent(name) raises.
  std::string notFound(const std::string& name) {
    try {
      factory_.getAgent(name);
    } catch (const Exc<&AgentNotFound>& e) {
      return e.what();
    }
    ADD_FAILURE() << name << " was found";
    return "";
  }

  ferrow_test::TempDir dir_;
  std::string catalogue_;
  AgentsFactory factory_;
};

TEST_F(AgentsFactoryTest, FindsAnAgentAndLogsItsSpec) {
  addAgent("sample",
           "Description: Source agent\nEntryPoint: agent.pl\n"
           "DocumentType: dump.dtd\nStylesheet: s.xsl\n");
  LogCapture agentLog("p.Agent");
  LogCapture factoryLog("p.AgentsFactory");
  std::shared_ptr<Agent> agent = factory_.getAgent("sample");
  ASSERT_TRUE(agent);
  EXPECT_EQ(agent->getName(), "sample");
  EXPECT_EQ(agent->getEntryPoint(), "agent.pl");
  EXPECT_EQ(agent->getStylesheet(), "s.xsl");
  EXPECT_EQ(agent->getInterpreter(), "");
  EXPECT_EQ(agent->getInterpreterOrDefault(), "perl");
  EXPECT_EQ(agent->getDocumentTypePath(),
            catalogue_ + "/sample/control/dump.dtd");
  EXPECT_THAT(
      factoryLog.lines(),
      ElementsAre("Parsing sample", "Parsing " + catalogue_ + "/sample"));
  EXPECT_THAT(
      agentLog.lines(),
      ElementsAre("Description: Source agent", "EntryPoint: agent.pl",
                  "DocumentType: " + catalogue_ + "/sample/control/dump.dtd",
                  "Interpreter: perl"));
}

TEST_F(AgentsFactoryTest, NamedInterpreterAndNoDocumentType) {
  addAgent("sh-agent", "EntryPoint: run.sh\nInterpreter: /bin/sh\n");
  std::shared_ptr<Agent> agent = factory_.getAgent("sh-agent");
  EXPECT_EQ(agent->getInterpreterOrDefault(), "/bin/sh");
  EXPECT_EQ(agent->getDocumentTypePath(), "");
}

TEST_F(AgentsFactoryTest, AnAgentIsParsedOnce) {
  addAgent("a", "EntryPoint: first.pl\n");
  std::shared_ptr<Agent> first = factory_.getAgent("a");
  writeFile(specOf("a"), "EntryPoint: second.pl\n");
  LogCapture log("p.AgentsFactory");
  EXPECT_EQ(factory_.getAgent("a"), first);
  EXPECT_EQ(first->getEntryPoint(), "first.pl");
  EXPECT_THAT(log.lines(), IsEmpty());
  // Parsing again under a cached name keeps the cached agent.
  EXPECT_TRUE(factory_.parseAgent("a", catalogue_ + "/a"));
  EXPECT_EQ(factory_.getAgent("a"), first);
  // Another factory reads the catalogue afresh.
  AgentsFactory other;
  EXPECT_EQ(other.getAgent("a")->getEntryPoint(), "second.pl");
}

TEST_F(AgentsFactoryTest, InvalidSpecIsRetriedUntilItParses) {
  addAgent("a", "Entrypoint: wrong.pl\n");
  LogCapture log("p.AgentsFactory");
  EXPECT_EQ(notFound("a"),
            "Agent a was not found or does not contain proper spec file");
  // The placeholder is written out as it stands, the path right after it.
  EXPECT_THAT(log.lines(),
              Contains("%1% is not a valid agent spec file" + specOf("a")));
  writeFile(specOf("a"), "EntryPoint: right.pl\n");
  EXPECT_EQ(factory_.getAgent("a")->getEntryPoint(), "right.pl");
}

TEST_F(AgentsFactoryTest, SpecMustBeAFile) {
  boost::filesystem::create_directories(specOf("dir-spec"));
  boost::filesystem::create_directories(catalogue_ + "/no-spec/control");
  LogCapture log("p.AgentsFactory");
  notFound("dir-spec");
  notFound("no-spec");
  notFound("absent");
  EXPECT_THAT(log.lines(),
              Contains(specOf("dir-spec") + " is not a regular file"));
  EXPECT_THAT(log.lines(),
              Contains(specOf("no-spec") + " is not a regular file"));
  EXPECT_THAT(log.lines(),
              Contains(specOf("absent") + " is not a regular file"));
}

TEST_F(AgentsFactoryTest, GetAllAgentsCachesEveryValidOne) {
  addAgent("good", "EntryPoint: g.pl\n");
  addAgent("bad", "garbage\n");
  writeFile(catalogue_ + "/loose-file", "not an agent");
  LogCapture log("p.AgentsFactory");
  factory_.getAllAgents();
  EXPECT_THAT(log.lines(), Contains("Parsing available agents info"));
  EXPECT_THAT(log.lines(), Contains("Parsing shared"));
  EXPECT_THAT(log.lines(), Contains("Parsing good"));
  EXPECT_THAT(log.lines(), Contains("Parsing bad"));
  EXPECT_THAT(log.lines(), ::testing::Not(Contains("Parsing loose-file")));
  // Once the catalogue is gone only what was cached is left.
  boost::filesystem::rename(catalogue_, catalogue_ + ".gone");
  EXPECT_EQ(factory_.getAgent("good")->getEntryPoint(), "g.pl");
  notFound("bad");
}

TEST_F(AgentsFactoryTest, MissingCatalogueFindsNothing) {
  boost::filesystem::remove_all(catalogue_);
  LogCapture log("p.AgentsFactory");
  factory_.getAllAgents();
  EXPECT_THAT(log.lines(), ElementsAre("Parsing available agents info"));
  EXPECT_EQ(notFound("shared"),
            "Agent shared was not found or does not contain proper spec file");
  // No warning either: a missing catalogue is not a broken agent.
  EXPECT_EQ(log.lines().back(), "Parsing shared");
}

}  // namespace
}  // namespace tovel
