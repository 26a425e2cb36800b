// What the reference agent dumps: the objects a selection names, the
// server settings the options ask for, and the dumping status it keeps
// while it works.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/agent_fixture.h"
#include "xml/xml_dtd_xslt.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

typedef std::set<std::string> Names;

// The dump description, checked against the agent's document type.
tovel::tXmlDocument readDump(const DeployedAgent& agent) {
  tovel::tXmlDocument dump(agent.file("dump.xml").c_str());
  tovel::tExternalDtdDoc dtd(agentCatalogue() + "/reference/control/dump.dtd");
  tovel::validateWithExternalDtd(dump, dtd);
  return dump;
}

Names namesOf(const tovel::tXmlDocument& dump, const std::string& kind) {
  return asSet(xpathStrings(dump, "/migration-dump/" + kind + "/@name"));
}

TEST(AgentDumpTest, DumpAllDescribesEveryObject) {
  DeployedAgent agent;
  RunResult r = agent.run({"--migration-mode", "--dump-all"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  tovel::tXmlDocument dump = readDump(agent);
  EXPECT_EQ(namesOf(dump, "reseller"), Names({"acme"}));
  EXPECT_EQ(namesOf(dump, "client"), Names({"bob", "carol", "dave"}));
  EXPECT_EQ(
      namesOf(dump, "domain"),
      Names({"carol.test", "dave.test", "example.test", "shop.example.test"}));
  EXPECT_EQ(xpathString(dump, "/migration-dump/@selection"), "all");
  EXPECT_EQ(xpathString(dump, "/migration-dump/@migration-mode"), "yes");
  EXPECT_EQ(xpathString(dump, "//client[@name='bob']/@owner"), "acme");
  EXPECT_EQ(xpathString(dump, "//client[@name='carol']/@owner"), "");
  EXPECT_EQ(xpathString(dump, "//client[@name='dave']/@contact"),
            "Dave \"Mail Only\" Dent");
  EXPECT_EQ(xpathStrings(dump, "//server/ip"),
            std::vector<std::string>({"192.0.2.10", "192.0.2.11"}));
  EXPECT_EQ(xpathString(dump, "//server/license/@key"),
            "SAMPLE-0000-1111-2222");
  EXPECT_EQ(xpathString(dump, "//admin-info/@email"),
            "admin@source.example.test");

  // Parts and their figures follow the sample tree.
  const std::string domain = "//domain[@name='example.test']";
  EXPECT_EQ(xpathString(dump, domain + "/hosting/@files"), "4");
  EXPECT_EQ(xpathString(dump, domain + "/hosting/@size"),
            std::to_string(
                treeSize(sampleSource() + "/domains/example.test/site")));
  EXPECT_EQ(xpathStrings(dump, domain + "/mail/mailbox/@messages"),
            std::vector<std::string>({"2", "1"}));
  EXPECT_TRUE(
      xpathStrings(dump, "//domain[@name='dave.test']/hosting").empty());
  EXPECT_EQ(xpathString(dump, "//domain[@name='dave.test']/mail/archive"),
            "dave.test_mail.tar.gz");
}

TEST(AgentDumpTest, DumpsWhatTheSelectionNames) {
  struct Case {
    std::string name;
    std::vector<std::string> args;
    std::string input;
    Names resellers, clients, domains;
  };
  const Case cases[] = {
      {"a domain list on standard input",
       {"--migration-mode", "--dump-domains=-", "--include-app-distrib"},
       "carol.test\n",
       {},
       {},
       {"carol.test"}},
      {"a client brings its domains",
       {"--dump-clients=-"},
       "bob\n",
       {},
       {"bob"},
       {"example.test", "shop.example.test"}},
      {"a reseller brings its clients and their domains",
       {"--dump-resellers=-"},
       "acme\n",
       {"acme"},
       {"bob", "dave"},
       {"dave.test", "example.test", "shop.example.test"}},
      {"lines are read in the order of the options",
       {"--dump-domains=-", "--dump-clients=-"},
       "dave.test\r\ncarol\n",
       {},
       {"carol"},
       {"carol.test", "dave.test"}},
      {"three lists, as ferrow orders them",
       {"--dump-domains=-", "--dump-clients=-", "--dump-resellers=-"},
       "example.test\ncarol\nacme\n",
       {"acme"},
       {"bob", "carol", "dave"},
       {"carol.test", "dave.test", "example.test", "shop.example.test"}},
      {"rsync connection lines come first",
       {"--content-transport=rsync", "--migration-mode", "--dump-domains=-"},
       "dest.example.test\nadmin\nrsync secret\n22\ncarol.test,dave.test\n",
       {},
       {},
       {"carol.test", "dave.test"}},
      {"names on the command line",
       {"--dump-domains=example.test, dave.test", "--dump-clients=carol"},
       "",
       {},
       {"carol"},
       {"carol.test", "dave.test", "example.test"}},
      {"nothing selected",
       {"--migration-mode", "--include-app-distrib"},
       "",
       {},
       {},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    DeployedAgent agent;
    RunResult r = agent.run(c.args, c.input);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    tovel::tXmlDocument dump = readDump(agent);
    EXPECT_EQ(namesOf(dump, "reseller"), c.resellers);
    EXPECT_EQ(namesOf(dump, "client"), c.clients);
    EXPECT_EQ(namesOf(dump, "domain"), c.domains);
    EXPECT_EQ(xpathString(dump, "/migration-dump/@selection"), "selected");
    EXPECT_TRUE(xpathStrings(dump, "//server | //admin-info").empty());
  }
}

TEST(AgentDumpTest, RecordsTheDumpOptions) {
  DeployedAgent agent;
  RunResult r =
      agent.run({"--content-transport=rsync", "--migration-mode",
                 "--dump-domains=-", "--only-hosting", "--no-compress",
                 "--include-app-distrib", "--no-content"},
                "dest\nadmin\nrsync secret\n22\ncarol.test\n");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  tovel::tXmlDocument dump = readDump(agent);
  const std::string root = "/migration-dump/@";
  EXPECT_EQ(xpathString(dump, root + "content-transport"), "rsync");
  EXPECT_EQ(xpathString(dump, root + "filter"), "hosting");
  EXPECT_EQ(xpathString(dump, root + "compression"), "none");
  EXPECT_EQ(xpathString(dump, root + "content"), "none");
  EXPECT_EQ(xpathString(dump, root + "app-distrib"), "yes");
  EXPECT_THAT(readFile(agent.file("dump.xml")), Not(HasSubstr("secret")));
}

TEST(AgentDumpTest, ServerSettingsFollowTheOptions) {
  struct Case {
    std::vector<std::string> args;
    bool server, license, admin;
  };
  const Case cases[] = {
      {{"--migration-mode", "--server"}, true, true, false},
      {{"--server", "--no-license"}, true, false, false},
      {{"--admin-info", "--dump-domains=carol.test"}, false, false, true},
      {{"--server", "--admin-info", "--no-license"}, true, false, true},
  };
  DeployedAgent agent;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    RunResult r = agent.run(c.args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    tovel::tXmlDocument dump = readDump(agent);
    EXPECT_EQ(xpathString(dump, "//server/@hostname"),
              c.server ? "source.example.test" : "");
    EXPECT_EQ(xpathStrings(dump, "//server/license").size(),
              c.license ? 1u : 0u);
    EXPECT_EQ(xpathStrings(dump, "//admin-info").size(), c.admin ? 1u : 0u);
  }
}

TEST(AgentDumpTest, UnknownNameFailsTheDumpAndKeepsTheLastOne) {
  DeployedAgent agent;
  ASSERT_EQ(agent.run({"--dump-domains=carol.test"}).exitCode, 0);
  std::string lastList = agent.run({"--get-content-list"}).out;

  RunResult r = agent.run({"--dump-domains=-"}, "example.test,nope.test\n");
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "Unknown domain 'nope.test'\n");
  tovel::tXmlDocument status(agent.file("dumping-status.xml").c_str());
  EXPECT_EQ(xpathString(status, "/dumping-status/@state"), "failed");
  EXPECT_EQ(xpathString(status, "/dumping-status/error"),
            "Unknown domain 'nope.test'");
  EXPECT_EQ(agent.run({"--get-content-list"}).out, lastList);
  EXPECT_EQ(namesOf(readDump(agent), "domain"), Names({"carol.test"}));
}

struct StatusSnapshot {
  std::string state, total, completed, current;
};

// Every distinct dumping status document seen while the agent dumps with a
// pause after each object; each one must parse, as ferrow may copy the
// file at any moment.
std::vector<StatusSnapshot> watchDump(const DeployedAgent& agent,
                                      RunResult& result) {
  std::thread dump([&] {
    result = agent.run({"--migration-mode", "--dump-all"});
  });
  std::vector<StatusSnapshot> seen;
  std::string last;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    std::string text = fileExists(agent.file("dumping-status.xml"))
                           ? readFile(agent.file("dumping-status.xml"))
                           : "";
    if (!text.empty() && text != last) {
      last = text;
      tovel::tXmlDocument doc(text);
      seen.push_back({xpathString(doc, "/dumping-status/@state"),
                      xpathString(doc, "//objects/@total"),
                      xpathString(doc, "//objects/@completed"),
                      xpathString(doc, "//current-object")});
      if (seen.back().state == "finished" || seen.back().state == "failed")
        break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  dump.join();
  return seen;
}

TEST(AgentDumpTest, DumpingStatusFollowsTheDump) {
  DeployedAgent agent("source-root: " + sampleSource() +
                      "\nobject-delay: 0.15\n");
  RunResult result;
  std::vector<StatusSnapshot> seen = watchDump(agent, result);
  ASSERT_EQ(result.exitCode, 0) << result.err;
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back().state, "finished");
  EXPECT_EQ(seen.back().total, "8");
  EXPECT_EQ(seen.back().completed, "8");
  EXPECT_EQ(seen.back().current, "");
  // In between, the count only grows and names the object at work.
  int completed = 0;
  bool midway = false;
  for (const StatusSnapshot& s : seen) {
    if (s.state != "dumping") continue;
    EXPECT_EQ(s.total, "8");
    EXPECT_GE(std::stoi(s.completed), completed);
    completed = std::stoi(s.completed);
    if (completed > 0 && completed < 8) {
      midway = true;
      EXPECT_NE(s.current, "");
    }
  }
  EXPECT_TRUE(midway) << "no status seen in the middle of the dump";
}

}  // namespace
}  // namespace ferrow_test
