// The agent's dump arguments and standard input for "--dump-selected" and
// "--dump-all": the selection rules, the selected-objects file, and one
// dump run end to end through a fake agent on the real sshd.
#include "ferrow/dump_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "actions/retrieve_dump_action.h"
#include "commons/dyr_conf.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/sshd_server.h"

namespace tovel {
namespace {

using ferrow_test::readFile;
using ferrow_test::writeFile;
using ::testing::ElementsAre;
using Words = std::vector<std::string>;

struct Built {
  Words arguments;
  std::string input;
};

Built build(const config& cfg) {
  Built built;
  buildDumpArguments(cfg, built.arguments, built.input);
  return built;
}

config selected() {
  config cfg;
  cfg.action = kDumpSelected;
  return cfg;
}

class DumpOptionsTest : public ::testing::Test {
 protected:
  // A selected-objects file with `body` under a root of any name.
  std::string objectsFile(const std::string& body) {
    std::string name =
        dir_.path() + "/objects" + std::to_string(++files_) + ".xml";
    writeFile(name,
              "<?xml version=\"1.0\"?>\n<selection>" + body + "</selection>\n");
    return name;
  }

  ferrow_test::TempDir dir_;
  int files_ = 0;
};

TEST_F(DumpOptionsTest, NoSelectionGivesTheFixedArgumentsAndNoInput) {
  Built built = build(selected());
  EXPECT_THAT(built.arguments,
              ElementsAre("--migration-mode", "--include-app-distrib"));
  EXPECT_EQ(built.input, "");
}

TEST_F(DumpOptionsTest, EveryOptionInItsPlaceAndNamesOnlyInTheInput) {
  config cfg = selected();
  cfg.domains = "a.example,b.example";
  cfg.clients = "-";  // a second "-" stays as it is
  cfg.resellers = "r1";
  cfg.only = 1;
  cfg.compression = 2;
  cfg.server = cfg.adminInfo = cfg.noLicense = true;
  cfg.noContent = 1;  // the action adds it, not the option builder
  Built built = build(cfg);
  EXPECT_THAT(
      built.arguments,
      ElementsAre("--migration-mode", "--dump-domains=-", "--dump-clients=-",
                  "--dump-resellers=-", "--only-mail", "--no-compress",
                  "--include-app-distrib", "--server", "--admin-info",
                  "--no-license"));
  EXPECT_EQ(built.input, "a.example,b.example\n-\nr1\n");
}

TEST_F(DumpOptionsTest, EachListAloneAndEachOnlyValue) {
  config cfg = selected();
  cfg.clients = "c1,c2";
  cfg.only = 2;
  cfg.compression = 1;  // standard compression needs no argument
  Built built = build(cfg);
  EXPECT_THAT(built.arguments,
              ElementsAre("--migration-mode", "--dump-clients=-",
                          "--only-hosting", "--include-app-distrib"));
  EXPECT_EQ(built.input, "c1,c2\n");
}

TEST_F(DumpOptionsTest, RsyncPutsTheConnectionIntoTheInputOnly) {
  config cfg = selected();
  cfg.contentTransport = "rsync";
  cfg.host = "src.example";
  cfg.login = "admin";
  cfg.password = "s3cret word";
  cfg.domains = "d.example";
  Built built = build(cfg);
  EXPECT_THAT(built.arguments,
              ElementsAre("--content-transport=rsync", "--migration-mode",
                          "--dump-domains=-", "--include-app-distrib"));
  EXPECT_EQ(built.input, "src.example\nadmin\ns3cret word\n0\nd.example\n");

  cfg.port = 2222;
  EXPECT_EQ(build(cfg).input,
            "src.example\nadmin\ns3cret word\n2222\nd.example\n");
  cfg.port = -1;
  EXPECT_EQ(build(cfg).input, "src.example\nadmin\ns3cret word\n\nd.example\n");
  cfg.contentTransport = "cat";
  EXPECT_EQ(build(cfg).input, "d.example\n");
}

TEST_F(DumpOptionsTest, DumpAllIgnoresEverySelectionOption) {
  config cfg;
  cfg.action = kDumpAll;
  cfg.domains = cfg.clients = cfg.resellers = "x";
  cfg.only = 1;
  cfg.compression = 2;
  cfg.server = cfg.adminInfo = cfg.noLicense = true;
  // Not even read: a missing file would throw.
  cfg.selectedObjectsFile = dir_.path() + "/missing.xml";
  Built built = build(cfg);
  EXPECT_THAT(built.arguments, ElementsAre("--migration-mode", "--dump-all"));
  EXPECT_EQ(built.input, "");

  cfg.contentTransport = "rsync";
  cfg.host = "h";
  cfg.login = "l";
  cfg.password = "p";
  built = build(cfg);
  EXPECT_THAT(built.arguments, ElementsAre("--content-transport=rsync",
                                           "--migration-mode", "--dump-all"));
  EXPECT_EQ(built.input, "h\nl\np\n0\n");
}

TEST_F(DumpOptionsTest, FileNamesComeBeforeTheOptionsNames) {
  config cfg = selected();
  cfg.selectedObjectsFile = objectsFile(
      "<domain><name>a</name></domain><x><domain><name>b</name></domain></x>"
      "<client><name>c1</name></client><client><name>c2</name></client>");
  cfg.domains = "c";
  cfg.resellers = "r";
  Built built = build(cfg);
  EXPECT_THAT(
      built.arguments,
      ElementsAre("--migration-mode", "--dump-domains=-", "--dump-clients=-",
                  "--dump-resellers=-", "--include-app-distrib"));
  EXPECT_EQ(built.input, "a,b,c\nc1,c2\nr\n");
}

TEST_F(DumpOptionsTest, TheCommandLineDecidesServerAdminInfoAndLicence) {
  config cfg = selected();
  cfg.selectedObjectsFile =
      objectsFile("<server><license/></server><admin-info/>");
  EXPECT_THAT(build(cfg).arguments,
              ElementsAre("--migration-mode", "--include-app-distrib"));

  DumpSelection fromFile;
  parseSelectedObjectsFile(cfg.selectedObjectsFile, fromFile);
  EXPECT_TRUE(fromFile.server);
  EXPECT_TRUE(fromFile.noLicense);
  EXPECT_TRUE(fromFile.adminInfo);

  DumpSelection serverOnly;
  parseSelectedObjectsFile(objectsFile("<server/>"), serverOnly);
  EXPECT_TRUE(serverOnly.server);
  EXPECT_FALSE(serverOnly.noLicense);
  EXPECT_FALSE(serverOnly.adminInfo);
}

TEST_F(DumpOptionsTest, FilterAndCompressionAttributes) {
  struct Case {
    std::string parameters;
    int only, compression;  // from the command line
    Words expected;         // between "--migration-mode" and the rest
  };
  const Case cases[] = {
      {"filter='only-mail'", 0, 0, {"--only-mail"}},
      {"filter='only-phosting'", 0, 0, {"--only-hosting"}},
      {"filter='only-hosting'",
       0,
       0,
       {}},  // the option's spelling is wrong here
      {"filter='only-phosting'", 1, 0, {"--only-mail"}},
      {"compression-level='do-not-compress'", 0, 0, {"--no-compress"}},
      {"compression-level='standard'", 0, 0, {}},
      {"compression-level='standard'", 0, 2, {"--no-compress"}},
      {"compression-level='fast'", 0, 0, {}},
  };
  for (const Case& c : cases) {
    config cfg = selected();
    cfg.selectedObjectsFile = objectsFile("<parameters " + c.parameters + "/>");
    cfg.only = c.only;
    cfg.compression = c.compression;
    Words expected = {"--migration-mode"};
    expected.insert(expected.end(), c.expected.begin(), c.expected.end());
    expected.push_back("--include-app-distrib");
    EXPECT_EQ(build(cfg).arguments, expected) << c.parameters;
  }
}

TEST_F(DumpOptionsTest, UnreadableFilesRaiseTheXmlErrors) {
  config cfg = selected();
  cfg.selectedObjectsFile = dir_.path() + "/missing.xml";
  Built built;
  EXPECT_THROW(buildDumpArguments(cfg, built.arguments, built.input),
               Exc<&tError_WrongInputFile>);
  cfg.selectedObjectsFile = dir_.path() + "/broken.xml";
  writeFile(cfg.selectedObjectsFile, "<selection><domain>");
  EXPECT_THROW(buildDumpArguments(cfg, built.arguments, built.input),
               Exc<&tError_ParseFile>);
}

// --- end to end -------------------------------------------------------------

class DumpArgumentsEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);
    writeFile(dir_.path() + "/dyr.conf",
              "PRODUCT_ROOT_D " + dir_.path() + "/product\n");
    dyrConfResetForTesting((dir_.path() + "/dyr.conf").c_str());
    session_ = std::make_unique<SessionFiles>(dir_.path() + "/session");
    theSession = session_.get();
  }
  void TearDown() override {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pAction = nullptr;
    theSession = nullptr;
    dyrConfResetForTesting(nullptr);
  }

  ferrow_test::TempDir dir_;
  std::unique_ptr<SessionFiles> session_;
};

TEST_F(DumpArgumentsEndToEndTest, TheAgentReceivesTheBuiltArgumentsAndInput) {
  const std::string agentDir = dir_.path() + "/agent";
  const std::string control =
      dir_.path() + "/product/QVT/agents/dump-e2e/control";
  ASSERT_EQ(system(("mkdir -p '" + control + "' '" + agentDir + "'").c_str()),
            0);
  writeFile(control + "/spec", "EntryPoint: dump.sh\nInterpreter: sh\n");
  writeFile(agentDir + "/dump.sh",
            "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > argv.txt\n"
            "cat > stdin.txt\n"
            "printf '<dump/>' > dump.xml\n");

  const ferrow_test::TestAccount& root = ferrow_test::rootAccount();
  config cfg = selected();
  cfg.host = "127.0.0.1";
  cfg.port = ferrow_test::SshdServer::shared().port();
  cfg.login = root.name;
  cfg.password = root.password;
  cfg.agentDir = agentDir;
  cfg.agentName = "dump-e2e";
  cfg.sessionPath = session_->getDir();
  cfg.contentTransport = "rsync";
  cfg.domains = "a.example,b.example";
  cfg.server = true;
  cfg.noContent = 1;

  Built built = build(cfg);
  {
    RetrieveDumpAction action(built.arguments, built.input);
    action.setConfig(&cfg);
    action.execute();
  }
  EXPECT_EQ(readFile(agentDir + "/argv.txt"),
            "--content-transport=rsync\n--migration-mode\n--dump-domains=-\n"
            "--include-app-distrib\n--server\n--no-content\n");
  EXPECT_EQ(readFile(agentDir + "/stdin.txt"),
            "127.0.0.1\n" + root.name + "\n" + root.password + "\n" +
                std::to_string(cfg.port) + "\na.example,b.example\n");
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump/>");
  EXPECT_EQ(readFile(session_->getDir() + "/dump-name"),
            session_->getDumpFileName());
}

}  // namespace
}  // namespace tovel
