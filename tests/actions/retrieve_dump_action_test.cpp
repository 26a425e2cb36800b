// The dump and dumping-status actions against the real sshd, with fake
// agents in a temporary agent directory that record what they were given.
#include "actions/retrieve_dump_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "actions/get_dumping_status_action.h"
#include "commons/args_builder.h"
#include "commons/dyr_conf.h"
#include "commons/session_files.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "support/log_capture.h"
#include "support/source_login.h"
#include "support/sshd_server.h"

namespace tovel {
namespace {

using ferrow_test::compactXml;
using ferrow_test::fileExists;
using ferrow_test::readFile;
using ferrow_test::SshdServer;
using ferrow_test::TestAccount;
using ferrow_test::writeFile;
using ::testing::HasSubstr;

// Records its arguments (one a line) and its standard input next to
// itself, leaves a dump description and succeeds. Runs only under perl.
const char kPerlAgent[] =
    "open(my $a, '>', 'argv.txt'); print $a \"$_\\n\" for @ARGV; close $a;\n"
    "local $/; my $in = <STDIN>; $in = '' unless defined $in;\n"
    "open(my $s, '>', 'stdin.txt'); print $s $in; close $s;\n"
    "open(my $d, '>', 'dump.xml'); print $d '<dump by=\"perl\"/>'; close $d;\n";

// The same in sh, plus whatever `extra` adds at the end.
std::string shAgent(const std::string& extra = "") {
  return "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > argv.txt\n"
         "cat > stdin.txt\n"
         "printf '<dump by=\"sh\"/>' > dump.xml\n" +
         extra;
}

class DumpActionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { SshdServer::shared(); }

  void SetUp() override {
    ferrow_test::ensurePanelAccount();
    chmod(dir_.path().c_str(), 0755);
    agentDir_ = dir_.path() + "/agent";
    mkdir(agentDir_.c_str(), 0755);
    writeFile(product_.path() + "/dyr.conf",
              "PRODUCT_ROOT_D " + product_.path() + "\n");
    dyrConfResetForTesting((product_.path() + "/dyr.conf").c_str());
    session_ = std::make_unique<SessionFiles>(product_.path() + "/session");
    theSession = session_.get();
    login(ferrow_test::rootAccount(), false);
    cfg_.agentDir = agentDir_;
    cfg_.sessionPath = session_->getDir();
  }

  void TearDown() override {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pAction = nullptr;
    theSession = nullptr;
    dyrConfResetForTesting(nullptr);
  }

  void login(const TestAccount& account, bool sudo) {
    ferrow_test::loginAs(&cfg_, account, sudo);
  }

  // Puts an agent into the catalogue (names are cached per process, so each
  // spec needs its own name) and its entry point into the agent directory.
  void installAgent(const std::string& name, const std::string& interpreter,
                    const std::string& script) {
    std::string control = product_.path() + "/QVT/agents/" + name + "/control";
    ASSERT_EQ(system(("mkdir -p '" + control + "'").c_str()), 0);
    writeFile(control + "/spec",
              "Description: fake\nEntryPoint: bin/run\n"
              "Interpreter: " +
                  interpreter + "\n");
    mkdir((agentDir_ + "/bin").c_str(), 0755);
    writeFile(agentDir_ + "/bin/run", script);
    cfg_.agentName = name;
  }

  void runDump(const std::vector<std::string>& arguments,
               const std::string& input) {
    RetrieveDumpAction action(arguments, input);
    action.setConfig(&cfg_);
    action.execute();
  }

  std::string remote(const std::string& name) const {
    return readFile(agentDir_ + "/" + name);
  }
  std::string migrationStatus() const {
    return compactXml(readFile(session_->getStatusFileName()));
  }

  ferrow_test::TempDir dir_;
  ferrow_test::TempDir product_;
  std::string agentDir_;
  std::unique_ptr<SessionFiles> session_;
  config cfg_;
};

// --- dump retrieval ---------------------------------------------------------

TEST_F(DumpActionTest, DumpAllRunsTheAgentWithPerlAndFetchesTheDump) {
  installAgent("dump-perl", "", kPerlAgent);
  writeFile(session_->getDumpFileName(), "an older and longer dump file");
  writeFile(cfg_.sessionPath + "/dump-name", "an older and longer name...");
  ferrow_test::LogCapture log("p.Ssh");
  runDump({"--migration-mode", "--dump-all"}, "");

  EXPECT_EQ(remote("argv.txt"), "--migration-mode\n--dump-all\n");
  EXPECT_EQ(remote("stdin.txt"), "");
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump by=\"perl\"/>");
  EXPECT_EQ(readFile(cfg_.sessionPath + "/dump-name"),
            session_->getDumpFileName());
  ArgsBuilder agent;
  agent << "perl" << agentDir_ + "/bin/run"
        << "--migration-mode"
        << "--dump-all";
  ArgsBuilder line;
  line << "sh"
       << "-c"
       << "cd " + agentDir_ + "; " + agent.str();
  EXPECT_EQ(log.lines().at(0),
            "Executing " + line.str() + " on the remote host");
}

TEST_F(DumpActionTest, InputArgumentsAndNoContentReachTheAgentExactly) {
  installAgent("dump-sh", "/bin/sh", shAgent());
  cfg_.noContent = 1;
  const std::vector<std::string> arguments = {
      "--migration-mode", "--dump-domains=-", "--odd word; $(x) 'q'"};
  const std::string input = "a.example,b.example\nsecond line\n";
  runDump(arguments, input);

  EXPECT_EQ(remote("argv.txt"),
            "--migration-mode\n--dump-domains=-\n--odd word; $(x) 'q'\n"
            "--no-content\n");
  EXPECT_EQ(remote("stdin.txt"), input);
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump by=\"sh\"/>");
}

TEST_F(DumpActionTest, ThroughSudoTheAgentRunsAsRootAndGetsOnlyTheInput) {
  login(ferrow_test::sudoAccount(), true);
  installAgent("dump-sh-sudo", "/bin/sh", shAgent("id -u > uid.txt\n"));
  runDump({"--migration-mode", "--server"}, "client1\n");

  EXPECT_EQ(remote("uid.txt"), "0\n");
  EXPECT_EQ(remote("argv.txt"), "--migration-mode\n--server\n");
  EXPECT_EQ(remote("stdin.txt"), "client1\n");
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump by=\"sh\"/>");
  EXPECT_EQ(readFile(cfg_.sessionPath + "/dump-name"),
            session_->getDumpFileName());
}

TEST_F(DumpActionTest, FailingAgentGivesItsStandardErrorInsideTheDumpError) {
  installAgent("dump-failing", "/bin/sh",
               "echo 'out is ignored'; echo 'no space left' >&2; exit 3\n");
  RetrieveDumpAction action({"--migration-mode", "--dump-all"}, "");
  action.setConfig(&cfg_);
  try {
    action.execute();
    FAIL() << "a failing agent was taken for a dump";
  } catch (const Exc<&CantRetrieveDump>& e) {
    EXPECT_STREQ(e.what(), "Error during dump retrieval");
    const ExTraceable* inner = e.inner();
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->code(), "CantRetrieveDumpFile");
    EXPECT_STREQ(inner->what(),
                 "Error during dump file retrieving. \nRemote agent failed "
                 "with the following stderr messages: no space left\n");
  }
  // The run stopped while waiting for the agent, before any fetch.
  EXPECT_THAT(migrationStatus(),
              HasSubstr("<agent action=\"wait\"><host>127.0.0.1</host>"));
  EXPECT_FALSE(fileExists(session_->getDumpFileName()));
  EXPECT_FALSE(fileExists(cfg_.sessionPath + "/dump-name"));
}

TEST_F(DumpActionTest, UnwritableDumpNameIsAFileWriteErrorAfterTheFetch) {
  installAgent("dump-sh-2", "/bin/sh", shAgent());
  mkdir((cfg_.sessionPath + "/dump-name").c_str(), 0755);
  try {
    runDump({"--dump-all"}, "");
    FAIL() << "dump-name was written over a directory";
  } catch (const Exc<&CantRetrieveDump>& e) {
    ASSERT_NE(e.inner(), nullptr);
    EXPECT_EQ(e.inner()->code(), "FileWrite");
    EXPECT_THAT(
        e.inner()->what(),
        HasSubstr("Error during " + cfg_.sessionPath + "/dump-name write: "));
  }
  EXPECT_EQ(readFile(session_->getDumpFileName()), "<dump by=\"sh\"/>");
}

TEST_F(DumpActionTest, UnknownAgentIsADumpError) {
  cfg_.agentName = "no-such-agent";
  try {
    runDump({"--dump-all"}, "");
    FAIL() << "an agent missing from the catalogue was run";
  } catch (const Exc<&CantRetrieveDump>& e) {
    ASSERT_NE(e.inner(), nullptr);
    EXPECT_EQ(e.inner()->code(), "AgentNotFound");
  }
}

TEST_F(DumpActionTest, LongDumpRefreshesTheSessionDumpingStatus) {
  // The status written last, after the pulls, must not be what the session
  // shows: only a pull during the run can have copied the first one.
  installAgent("dump-slow", "/bin/sh",
               "printf '<dumping-status done=\"1\"/>' > dumping-status.xml\n"
               "sleep 7\n"
               "printf '<dumping-status done=\"2\"/>' > dumping-status.xml\n"
               "printf '<dump/>' > dump.xml\n");
  runDump({"--dump-all"}, "");
  EXPECT_EQ(readFile(session_->getDumpingStatusFileName()),
            "<dumping-status done=\"1\"/>");
  EXPECT_EQ(pAction, nullptr);
  EXPECT_EQ(alarm(0), 0u);  // no tick left to hit a later command
}

// --- dumping status ---------------------------------------------------------

class DumpingStatusTest : public DumpActionTest {
 protected:
  std::string getStatus() {
    GetDumpingStatusAction action;
    action.setConfig(&cfg_);
    ::testing::internal::CaptureStdout();
    try {
      action.execute();
    } catch (...) {
      ::testing::internal::GetCapturedStdout();
      throw;
    }
    return ::testing::internal::GetCapturedStdout();
  }

  // Bytes a text-mode copy or a line-based reader would alter.
  const std::string kStatus = std::string("<s>\r\n\0\xff ", 9) + "end";
};

TEST_F(DumpingStatusTest, CopiesTheRemoteFileByteForByte) {
  writeFile(agentDir_ + "/dumping-status.xml", kStatus);
  EXPECT_EQ(getStatus(), kStatus);
}

TEST_F(DumpingStatusTest, ThroughSudoReadsAFileOnlyRootCouldRead) {
  std::string path = agentDir_ + "/dumping-status.xml";
  writeFile(path, kStatus);
  chmod(path.c_str(), 0600);
  login(ferrow_test::sudoAccount(), true);
  EXPECT_EQ(getStatus(), kStatus);
}

TEST_F(DumpingStatusTest, ConnectionFailureIsADumpStatusError) {
  cfg_.port = 1;  // nothing listens there
  try {
    getStatus();
    FAIL() << "no connection, yet a status";
  } catch (const Exc<&DumpStatusError>& e) {
    EXPECT_STREQ(e.what(), "Error during getting dumping status");
    ASSERT_NE(e.inner(), nullptr);
    EXPECT_EQ(e.inner()->code(), "ConnectionRefused");
  }
}

}  // namespace
}  // namespace tovel
