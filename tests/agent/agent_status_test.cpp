// The reference agent's spec, its deployment status answer and the
// command lines it refuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <string>

#include "agent/agent_fixture.h"
#include "xml/agent_deployment_status.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsSubsetOf;
using ::testing::StartsWith;

TEST(AgentSpecTest, NamesFilesThatExist) {
  const std::string agent = agentCatalogue() + "/reference";
  std::ifstream spec(agent + "/control/spec");
  ASSERT_TRUE(spec) << "no spec file";
  std::map<std::string, std::string> values;
  std::string line;
  while (std::getline(spec, line)) {
    if (line.empty()) continue;
    size_t colon = line.find(':');
    ASSERT_NE(colon, std::string::npos) << line;
    size_t value = line.find_first_not_of(" \t", colon + 1);
    values[line.substr(0, colon)] =
        value == std::string::npos ? "" : line.substr(value);
  }
  std::set<std::string> keys;
  for (const auto& entry : values) keys.insert(entry.first);
  EXPECT_THAT(keys, IsSubsetOf({"Description", "EntryPoint", "DocumentType",
                                "Stylesheet", "Interpreter"}));
  EXPECT_TRUE(fileExists(agent + "/" + values["EntryPoint"]));
  EXPECT_TRUE(fileExists(agent + "/control/" + values["DocumentType"]));
  EXPECT_EQ(values["Interpreter"], "perl");
}

TEST(AgentStatusTest, AnswersWithItsStatusDocument) {
  DeployedAgent agent;
  RunResult r = agent.run({"--get-status"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  // Read back the way ferrow reads the copy it keeps in the session.
  std::string copy = agent.file("agent-deployment.status");
  writeFile(copy, r.out);
  tovel::XmlAgentDeploymentStatusDocument status(copy);
  EXPECT_EQ(status.getAgentDeploymentStatusFileName(), "dumping-status.xml");

  tovel::tXmlDocument doc(r.out);
  EXPECT_EQ(xpathString(doc, "/agentstatus/directory"), agent.dir());
  EXPECT_EQ(xpathString(doc, "/agentstatus/source-root"), sampleSource());
  EXPECT_EQ(xpathString(doc, "/agentstatus/objects/@resellers"), "1");
  EXPECT_EQ(xpathString(doc, "/agentstatus/objects/@clients"), "3");
  EXPECT_EQ(xpathString(doc, "/agentstatus/objects/@domains"), "4");
}

TEST(AgentStatusTest, FindsSampleDataBesideItselfWithoutSettings) {
  DeployedAgent agent("");
  ASSERT_EQ(
      symlink(sampleSource().c_str(), agent.file("sample-source").c_str()), 0);
  RunResult r = agent.run({"--get-status"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  tovel::tXmlDocument doc(r.out);
  EXPECT_EQ(xpathString(doc, "/agentstatus/source-root"),
            agent.file("sample-source"));
}

TEST(AgentStatusTest, FailsWhenItCannotReadItsData) {
  struct Case {
    std::string settings;
    std::string error;
  };
  const Case cases[] = {
      {"", "Source data directory "},  // no sample-source beside it
      {"source-root: /nonexistent/data\n",
       "Source data directory /nonexistent/data does not exist"},
      {"source-root: " + sampleSource() + "\nspeed: 3\n",
       "bad setting 'speed: 3'"},
      {"object-delay: soon\n", "bad setting 'object-delay: soon'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.settings);
    DeployedAgent agent(c.settings);
    RunResult r = agent.run({"--get-status"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_THAT(r.err, HasSubstr(c.error));
    EXPECT_EQ(r.out, "");
  }
}

TEST(AgentStatusTest, InconsistentDataIsAnError) {
  TempDir data;
  mustRun("cp", {"-a", sampleSource() + "/.", data.path()});
  writeFile(data.path() + "/domains/carol.test/info", "owner: nobody\n");
  DeployedAgent agent("source-root: " + data.path() + "\n");
  RunResult r = agent.run({"--get-status"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "domain carol.test: owner nobody is not a known client\n");

  writeFile(data.path() + "/domains/carol.test/info",
            "owner: carol\ncolour: blue\n");
  r = agent.run({"--migration-mode", "--dump-all"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, HasSubstr("unknown domain setting 'colour'"));
}

TEST(AgentCommandLineTest, RefusesWhatItDoesNotKnow) {
  struct Case {
    std::vector<std::string> args;
    std::string input;
    std::string error;
  };
  const Case cases[] = {
      {{}, "", "No options given"},
      {{"--dump-all", "--verbose"}, "", "Unknown option: verbose"},
      {{"--dump-all", "stray"}, "", "Unexpected argument 'stray'"},
      {{"--get-status", "--dump-all"}, "", "Give one of"},
      {{"--get-status", "--get-content-list"}, "", "Give one of"},
      {{"--content-transport=ftp"}, "", "Unknown content transport 'ftp'"},
      {{"--dump-domains=-"}, "", "Expected the domains list on standard input"},
      {{"--dump-domains=-", "--dump-clients=-"},
       "example.test\n",
       "Expected the clients list on standard input"},
      {{"--content-transport=rsync", "--dump-all"},
       "host\nlogin\n",
       "Expected the rsync password on standard input"},
  };
  DeployedAgent agent;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    RunResult r = agent.run(c.args, c.input);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_THAT(r.err, StartsWith(agent.file("agent.pl") + ": "));
    EXPECT_THAT(r.err, HasSubstr(c.error));
    // Nothing was started.
    EXPECT_FALSE(fileExists(agent.file("dumping-status.xml")));
  }
}

}  // namespace
}  // namespace ferrow_test
