// The real binary without a source host: help, refusals, the session
// directory, run records, the debug log and the start-up failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/ferrow_runner.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class DriverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensurePanelAccount(); }

  std::string session() const { return install_.sessionPath(); }
  std::string file(const std::string& name) const {
    return readFile(session() + "/" + name);
  }
  RunResult removeDumpingStatus(std::vector<std::string> more = {}) {
    more.insert(more.begin(),
                {"--remove-dumping-status", "--session-path", session()});
    return install_.run(more);
  }

  FerrowInstallation install_;
};

// Help wins over everything; a refusal exits 1 with its reason. Neither
// creates the session directory.
TEST_F(DriverTest, HelpAndRefusalsTouchNothing) {
  const struct {
    std::vector<std::string> args;
    int exitCode;
    std::string out, err;
  } cases[] = {
      // clang-format off
      {{"--help"}, 0, "Usage: [DYR_PASSWORD=<password> | ", ""},
      {{"--dump-all", "--port=0", "-h"}, 0, "Usage: ", ""},
      {{}, 1, "", "Action required. See --help\n"},
      {{"--send-scout", "--host", "h", "--login", "l"}, 1, "", "--session-path is required.\n"},
      {{"--bogus", "--session-path", session()}, 1, "", "unrecognized option '--bogus'"},
      // clang-format on
  };
  for (const auto& c : cases) {
    RunResult r = install_.run(c.args);
    EXPECT_EQ(c.exitCode, r.exitCode) << c.out << c.err;
    EXPECT_THAT(r.out, HasSubstr(c.out));
    EXPECT_THAT(r.err, HasSubstr(c.err));
    EXPECT_EQ(c.out.empty(), r.out.empty());
    EXPECT_EQ(c.err.empty(), r.err.empty());
  }
  EXPECT_FALSE(fileExists(session()));

  // A refused combination is told in the debug log only, with no record.
  RunResult r = install_.run(
      {"--dump-all", "--dump-selected", "--session-path=" + session()});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_EQ("", r.err + r.out);
  EXPECT_THAT(file("migration.log"),
              HasSubstr("]: Unable to parse command line: More than one "
                        "action is given [./ferrow/options.cpp:"));
  EXPECT_THAT(file("migration.log"),
              HasSubstr("Ferrow finished. Exit code: 1"));
  EXPECT_FALSE(fileExists(session() + "/migration.result"));
}

// The session directory belongs to root with the panel's uid as its group.
TEST_F(DriverTest, SessionDirectoryBelongsToRootWithThePanelUidAsGroup) {
  ASSERT_EQ(0, removeDumpingStatus().exitCode);
  const passwd* panel = getpwnam("dyradm");
  ASSERT_NE(nullptr, panel);
  for (const std::string& dir : {session(), session() + "/archives"}) {
    struct stat st = {};
    ASSERT_EQ(0, stat(dir.c_str(), &st)) << dir;
    EXPECT_EQ(std::make_pair(0u, panel->pw_uid),
              std::make_pair(st.st_uid, st.st_gid));
    EXPECT_EQ(040750u, st.st_mode) << dir;
  }
}

TEST_F(DriverTest, RunsKeepEarlierRecordsAndOneGrowingLog) {
  install_.writeDyrConf("BROKEN=1\nPRODUCT_ROOT_D " + install_.productRoot() +
                        "\n");
  for (int run = 0; run < 3; ++run) {
    RunResult r = removeDumpingStatus();
    ASSERT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("", r.out + r.err);
  }
  EXPECT_THAT(compactXml(file("migration.status")),
              HasSubstr("<migration-status><idle/></migration-status>"));
  for (const char* name :
       {"migration.result", "migration.result.1", "migration.result.2"})
    EXPECT_THAT(compactXml(file(name)),
                HasSubstr("<execution-result status=\"success\"/>"));
  EXPECT_FALSE(fileExists(session() + "/migration.result.3"));
  std::string log = file("migration.log");
  EXPECT_THAT(
      log, MatchesRegex("(([^\n]*\n)*[^\n]*Ferrow started : " +
                        std::string(FERROW_BINARY) +
                        " --remove-dumping-status --session-path " + session() +
                        "\n([^\n]*\n)*[^\n]*Ferrow finished. Exit "
                        "code: 0\n){3}"));
  // Complaints about the configuration reach the debug log.
  EXPECT_THAT(log, HasSubstr("Invalid variable definition BROKEN=1"));
  // --verbose keeps the console appender.
  RunResult verbose = removeDumpingStatus({"--verbose"});
  EXPECT_EQ(0, verbose.exitCode);
  EXPECT_THAT(verbose.out, HasSubstr("INFO p.log: Ferrow started : "));

  // A catalogue that cannot be read fails the step, saying where and why.
  const std::string shared = install_.productRoot() + "/QVT/agents/shared";
  mkdir((install_.productRoot() + "/QVT/agents").c_str(), 0755);
  ASSERT_EQ(0, symlink(shared.c_str(), shared.c_str()));
  RunResult deploy =
      install_.run({"--deploy-agent", "--host=h", "--login=l", "--agent-dir=/a",
                    "--agent-name=a", "--session-path", session()},
                   {{"DYR_PASSWORD", "p"}});
  EXPECT_EQ(2, deploy.exitCode);
  EXPECT_EQ("Local file system error on " + shared +
                ": Too many levels of symbolic links",
            deploy.err);

  // A directory where the status document must go: the action cannot save.
  ASSERT_EQ(0, unlink((session() + "/migration.status").c_str()));
  ASSERT_EQ(0, mkdir((session() + "/migration.status").c_str(), 0700));
  RunResult r = removeDumpingStatus();
  EXPECT_EQ(2, r.exitCode);
  EXPECT_THAT(r.err, MatchesRegex("Cannot rename " + session() +
                                  "/migration.status[^\n]*"));
  EXPECT_THAT(compactXml(file("migration.result")),
              MatchesRegex(".*<execution-result status=\"error\"><message "
                           "code=\"CantRenameFile\" id=\"[0-9a-f-]{36}\" "
                           "severity=\"error\"><description>Cannot rename .*"));
  EXPECT_THAT(file("migration.log"),
              HasSubstr("Ferrow finished. Exit code: 2"));

  // Failures of the set-up are uncaught and exit 1.
  RunResult noParent =
      install_.run({"--remove-dumping-status", "--session-path",
                    install_.root() + "/missing/session"});
  EXPECT_EQ(1, noParent.exitCode);
  EXPECT_THAT(noParent.err, MatchesRegex("Uncaught ExTraceableException: "
                                         "UnableToCreateSession\\[.*\\]: "
                                         "Unable to create session: Unable to "
                                         "create session directory .*"));
  const std::string properties =
      install_.productRoot() + "/QVT/log4cpp.properties";
  unlink(properties.c_str());
  RunResult noProperties = removeDumpingStatus();
  EXPECT_EQ(1, noProperties.exitCode);
  EXPECT_THAT(noProperties.err, StartsWith("Uncaught std::exception: "));
  EXPECT_THAT(noProperties.err, HasSubstr(properties));
  // Without dyr.conf the default product root is used.
  unlink((install_.etcDyr() + "/dyr.conf").c_str());
  RunResult noConf = removeDumpingStatus();
  EXPECT_EQ(1, noConf.exitCode);
  EXPECT_THAT(noConf.err, HasSubstr("/usr/local/dyr/QVT/log4cpp.properties"));
}

}  // namespace
}  // namespace ferrow_test
