// The real binary, run the way the panel runs it, against a private product
// installation (see support/ferrow_runner.h).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

// Kept apart from the program's own copy so that a slip in either shows.
const char* const kUsageLines[] = {
    "Usage: [DYR_PASSWORD=<password> | DYR_SUDO_PASSWORD = <sudo_password>] "
    "ferrow ",
    "          --host=<hostname or IP address> (obsolete alias is --ip)",
    "          [--port=<port>] (defaults to 22)",
    "          --login=<username>",
    "          [--sudo-password]",
    "          --agent-dir=<dir> (relative path on the remote side)",
    "          ( --send-scout",
    "          | --deploy-agent --session-path <dir> --agent-name <agent>",
    "          | --get-dumping-status --session-path <dir>",
    "          | ( --dump-selected [--selected-objects-file=<file-path>]",
    "                [--resellers=-|<reseller1>[,<reseller2>...]] "
    "[--clients=-|<client1>[,<client2>...]] "
    "[--domains=-|<domain1>[,<domain2>...]]",
    "             | --dump-all ) ",
    "                [--server] [--admin-info] [--no-license]",
    "                 --session-path <dir> --agent-name <agent>",
    "                [--no-content] [--no-compress]",
    "                [--only-mail]",
    "                [--only-hosting]",
    "          | --get-content --session-path <dir> --agent-name <agent>",
    "                [--no-check-space] [--no-encryption (not implemented)] "
    "[--dumps-dir=<dir-on-destination-host>]",
    "          | --remove-agent --session-path <dir> --agent-name <agent>",
    "          | --remove-dumping-status --session-path <dir>",
    "          | --help | -h)",
};

std::string expectedUsage() {
  std::string text;
  for (const char* line : kUsageLines) text += std::string(line) + "\n";
  return text;
}

class DriverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensurePanelAccount(); }

  std::string session() const { return install_.sessionPath(); }
  std::string debugLog() const {
    return readFile(session() + "/migration.log");
  }
  RunResult removeDumpingStatus(
      const std::map<std::string, std::string>& env = {}) const {
    return install_.run(
        {"--remove-dumping-status", "--session-path", session()}, env);
  }

  FerrowInstallation install_;
};

TEST_F(DriverTest, HelpPrintsTheUsageTextAndWinsOverEverything) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{
           {"--help"},
           {"-h"},
           {"--help", "--send-scout"},
           {"--dump-all", "--dump-selected", "--port=0", "-h"}}) {
    RunResult r = install_.run(args);
    EXPECT_EQ(0, r.exitCode) << args[0];
    EXPECT_EQ(expectedUsage(), r.out);
    EXPECT_EQ("", r.err);
  }
  EXPECT_FALSE(fileExists(session()));
}

TEST_F(DriverTest, RefusalsBeforeTheSessionExists) {
  RunResult none = install_.run({});
  EXPECT_EQ(1, none.exitCode);
  EXPECT_EQ("Action required. See --help\n", none.err);
  EXPECT_EQ("", none.out);

  RunResult noSession =
      install_.run({"--send-scout", "--host", "h", "--login", "l"});
  EXPECT_EQ(1, noSession.exitCode);
  EXPECT_EQ("--session-path is required.\n", noSession.err);
  EXPECT_FALSE(fileExists(session()));

  RunResult unknown = install_.run({"--bogus", "--session-path", session()});
  EXPECT_EQ(1, unknown.exitCode);
  EXPECT_THAT(unknown.err, HasSubstr("unrecognized option '--bogus'"));
  EXPECT_FALSE(fileExists(session()));

  RunResult missingValue = install_.run({"--send-scout", "--host"});
  EXPECT_EQ(1, missingValue.exitCode);
  EXPECT_THAT(missingValue.err, HasSubstr("requires an argument"));
}

// A refused option combination is told only in the debug log.
struct Refusal {
  std::vector<std::string> args;
  std::map<std::string, std::string> env;
  std::string text;
};

TEST_F(DriverTest, OptionRefusalsGoToTheDebugLogWithExitCode1) {
  const std::vector<Refusal> refusals = {
      {{"--dump-all", "--dump-selected"}, {}, "More than one action is given"},
      {{"--deploy-agent", "--no-check-space"},
       {},
       "'--no-check-space' only may be specified when '--get-content' is "
       "requested"},
      {{"--remove-dumping-status"},
       {{"DYR_PASSWORD", "secret"}},
       "password is not allowed with --help or -h\n"},
      {{"--send-scout", "--host=h", "--login=l", "--agent-name=a"},
       {{"DYR_PASSWORD", "secret"}},
       "agent name is not allowed with --help or -h\n"},
      {{"--get-content", "--host=h", "--login=l", "--port=65536"},
       {{"DYR_PASSWORD", "secret"}},
       "port should be a number in [1, 65535] range"},
      {{"--get-content", "--host=h", "--login=l", "--sudo-password"},
       {{"DYR_PASSWORD", "secret"}},
       "DYR_SUDO_PASSWORD environment variable is not provided with "
       "--sudo-password\n"},
  };
  for (const Refusal& refusal : refusals) {
    FerrowInstallation install;
    std::vector<std::string> args = refusal.args;
    args.push_back("--session-path=" + install.sessionPath());
    RunResult r = install.run(args, refusal.env);
    EXPECT_EQ(1, r.exitCode) << refusal.text;
    EXPECT_EQ("", r.err);
    EXPECT_EQ("", r.out);
    std::string log = readFile(install.sessionPath() + "/migration.log");
    EXPECT_THAT(log, HasSubstr("OptParsingError["));
    EXPECT_THAT(log, HasSubstr("]: Unable to parse command line: " +
                               refusal.text + " [./ferrow/options.cpp:"));
    EXPECT_THAT(log, HasSubstr("Ferrow finished. Exit code: 1"));
    EXPECT_FALSE(fileExists(install.sessionPath() + "/migration.result"))
        << "no run record for a refused command line";
  }
}

TEST_F(DriverTest, SessionDirectoryBelongsToRootWithThePanelUidAsGroup) {
  ASSERT_EQ(0, removeDumpingStatus().exitCode);
  const struct passwd* panel = getpwnam("dyradm");
  ASSERT_NE(nullptr, panel);
  for (const std::string& dir : {session(), session() + "/archives"}) {
    struct stat st;
    ASSERT_EQ(0, stat(dir.c_str(), &st)) << dir;
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0u, st.st_uid);
    EXPECT_EQ(panel->pw_uid, st.st_gid) << "the uid stands as the group";
    EXPECT_EQ(0750u, st.st_mode & 07777) << dir;
  }
}

TEST_F(DriverTest, ExistingSessionDirectoryIsKeptAsItIs) {
  ASSERT_EQ(0, mkdir(session().c_str(), 0711));
  ASSERT_EQ(0, chmod(session().c_str(), 0711));
  ASSERT_EQ(0, removeDumpingStatus().exitCode);
  struct stat st;
  ASSERT_EQ(0, stat(session().c_str(), &st));
  EXPECT_EQ(0711u, st.st_mode & 07777);
  EXPECT_TRUE(fileExists(session() + "/archives"));
}

TEST_F(DriverTest, SuccessfulRunLeavesStatusRecordAndLogLines) {
  RunResult r = removeDumpingStatus();
  EXPECT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ("", r.out);
  EXPECT_EQ("", r.err);
  EXPECT_THAT(compactXml(readFile(session() + "/migration.status")),
              HasSubstr("<migration-status><idle/></migration-status>"));
  EXPECT_THAT(compactXml(readFile(session() + "/migration.result")),
              HasSubstr("<execution-result status=\"success\"/>"));
  std::string log = debugLog();
  EXPECT_THAT(log, HasSubstr("Ferrow started : " + std::string(FERROW_BINARY) +
                             " --remove-dumping-status --session-path " +
                             session() + "\n"));
  EXPECT_THAT(log, HasSubstr("Ferrow finished. Exit code: 0\n"));
  EXPECT_LT(log.find("started"), log.find("finished"));
}

TEST_F(DriverTest, EarlierRunRecordsAreRenamedNotLost) {
  for (int run = 0; run < 3; ++run) {
    ASSERT_EQ(0, removeDumpingStatus().exitCode);
  }
  EXPECT_TRUE(fileExists(session() + "/migration.result"));
  EXPECT_TRUE(fileExists(session() + "/migration.result.1"));
  EXPECT_TRUE(fileExists(session() + "/migration.result.2"));
  EXPECT_FALSE(fileExists(session() + "/migration.result.3"));
  // The debug log grows over the runs of one session.
  std::string log = debugLog();
  size_t starts = 0;
  for (size_t at = log.find(" started : "); at != std::string::npos;
       at = log.find(" started : ", at + 1)) {
    ++starts;
  }
  EXPECT_EQ(3u, starts);
}

TEST_F(DriverTest, FailingActionGivesExit2ErrorRecordAndStandardError) {
  // A directory where the status document must go: the action cannot save.
  ASSERT_EQ(0, removeDumpingStatus().exitCode);
  ASSERT_EQ(0, unlink((session() + "/migration.status").c_str()));
  ASSERT_EQ(0, mkdir((session() + "/migration.status").c_str(), 0700));
  RunResult r = removeDumpingStatus();
  EXPECT_EQ(2, r.exitCode);
  EXPECT_THAT(r.err,
              StartsWith("Cannot rename " + session() + "/migration.status"));
  EXPECT_THAT(r.err, Not(HasSubstr("\n")));
  std::string record = compactXml(readFile(session() + "/migration.result"));
  EXPECT_THAT(record, HasSubstr("<execution-result status=\"error\">"));
  EXPECT_THAT(record, MatchesRegex("(.|\n)*<message code=\"CantRenameFile\" "
                                   "id=\"[0-9a-f-]{36}\" severity=\"error\">"
                                   "<description>Cannot rename (.|\n)*"));
  std::string log = debugLog();
  EXPECT_THAT(log, HasSubstr("CantRenameFile["));
  EXPECT_THAT(log, HasSubstr("Ferrow finished. Exit code: 2"));
}

TEST_F(DriverTest, UncaughtFailuresOfTheSetUpExitWith1) {
  RunResult noParent =
      install_.run({"--remove-dumping-status", "--session-path",
                    install_.root() + "/missing/session"});
  EXPECT_EQ(1, noParent.exitCode);
  EXPECT_THAT(noParent.err, StartsWith("Uncaught ExTraceableException: "
                                       "UnableToCreateSession["));
  EXPECT_THAT(noParent.err,
              HasSubstr("]: Unable to create session: Unable to create "
                        "session directory [./commons/session_files.cpp:"));

  unlink((install_.productRoot() + "/QVT/log4cpp.properties").c_str());
  RunResult noProperties = removeDumpingStatus();
  EXPECT_EQ(1, noProperties.exitCode);
  EXPECT_THAT(noProperties.err, StartsWith("Uncaught std::exception: "));
  EXPECT_THAT(noProperties.err,
              HasSubstr(install_.productRoot() + "/QVT/log4cpp.properties"));
}

TEST_F(DriverTest, VerboseKeepsTheConsoleAppender) {
  RunResult quiet = removeDumpingStatus();
  EXPECT_EQ("", quiet.out);
  RunResult verbose = install_.run(
      {"--remove-dumping-status", "--verbose", "--session-path", session()});
  EXPECT_EQ(0, verbose.exitCode);
  EXPECT_THAT(verbose.out, HasSubstr("INFO p.log: Ferrow started : "));
}

// The product root comes from dyr.conf; its odd syntax rules decide which
// root the program uses, visible in where it looks for its properties.
struct ConfCase {
  std::string line;  // %ROOT% stands for the fixture's product root
  bool usesFixture;
};

TEST_F(DriverTest, ConfigurationFileDecidesTheProductRoot) {
  const std::vector<ConfCase> cases = {
      {"PRODUCT_ROOT_D %ROOT%\n", true},
      {"  PRODUCT_ROOT_D\t%ROOT%", true},             // no final newline
      {"PRODUCT_ROOT_D %ROOT% # comment\n", true},    // odd run: one removed
      {"PRODUCT_ROOT_D %ROOT%  # comment\n", false},  // even run: kept
      {"PRODUCT_ROOT_D %ROOT% \n", false},  // keeps the blank and newline
      {"PRODUCT_ROOT_D=%ROOT%\n", false},   // no blank after the name
      {"# PRODUCT_ROOT_D %ROOT%\n", false},
      {"PRODUCT_ROOT_D /nowhere\nPRODUCT_ROOT_D %ROOT%\n", true},
  };
  for (const ConfCase& c : cases) {
    FerrowInstallation install;
    std::string line =
        std::regex_replace(c.line, std::regex("%ROOT%"), install.productRoot());
    install.writeDyrConf(line);
    RunResult r = install.run(
        {"--remove-dumping-status", "--session-path", install.sessionPath()});
    if (c.usesFixture) {
      EXPECT_EQ(0, r.exitCode) << c.line << r.err;
    } else {
      EXPECT_EQ(1, r.exitCode) << c.line;
      EXPECT_THAT(r.err, HasSubstr("Uncaught std::exception: ")) << c.line;
    }
  }
}

TEST_F(DriverTest, WithoutConfigurationTheDefaultRootIsUsed) {
  unlink((install_.etcDyr() + "/dyr.conf").c_str());
  RunResult r = removeDumpingStatus();
  EXPECT_EQ(1, r.exitCode);
  EXPECT_THAT(r.err, HasSubstr("/usr/local/dyr/QVT/log4cpp.properties"));
}

TEST_F(DriverTest, ConfigurationComplaintsReachTheDebugLog) {
  install_.writeDyrConf("BROKEN=1\nEMPTY_VALUE   \nPRODUCT_ROOT_D " +
                        install_.productRoot() + "\n");
  ASSERT_EQ(0, removeDumpingStatus().exitCode);
  std::string log = debugLog();
  EXPECT_THAT(log, HasSubstr("Invalid variable definition BROKEN=1"));
  EXPECT_THAT(log, HasSubstr("Expected a space after variable name"));
  EXPECT_THAT(log, HasSubstr("Expected a value"));
}

}  // namespace
}  // namespace ferrow_test
