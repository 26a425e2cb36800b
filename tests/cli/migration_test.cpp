// A whole migration step sequence with the real binary, the test sshd and
// the reference agent and scout shipped in share/, as a root login and
// through sudo.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <map>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/reference_source.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

namespace fs = boost::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

// Modification times of the archives in a session directory.
std::map<std::string, time_t> archives(const std::string& session) {
  std::map<std::string, time_t> found;
  for (fs::directory_iterator it(session), end; it != end; ++it) {
    std::string name = it->path().filename().string();
    if (name.find(".tar") != std::string::npos) {
      found[name] = fs::last_write_time(it->path());
    }
  }
  return found;
}

class MigrationTest : public ::testing::TestWithParam<bool> {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  void SetUp() override {
    login_ = GetParam() ? sourceLogin(sudoAccount(), true)
                        : sourceLogin(rootAccount(), false);
  }

  // Runs one step; every step of a healthy migration exits 0 silently.
  RunResult step(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.end(), {"--session-path", session()});
    if (args[0] != "--send-scout") {
      args.insert(args.end(),
                  {"--agent-dir", agentDir(), "--agent-name", "reference"});
    }
    RunResult r = install_.run(withLogin(login_, args), login_.env, input);
    EXPECT_EQ(r.exitCode, 0) << login_.name << " " << args[0] << ": " << r.err;
    EXPECT_EQ(r.err, "") << args[0];
    return r;
  }

  std::string session() const { return install_.sessionPath(); }
  std::string agentDir() const { return source_.agentDir(); }

  FerrowInstallation install_;
  ReferenceSource source_{install_};
  SourceLogin login_;
};

TEST_P(MigrationTest, WholeSequence) {
  step({"--send-scout"});
  EXPECT_THAT(readFile(session() + "/scout-result.xml"),
              HasSubstr("<scout-result"));

  step({"--deploy-agent"});
  EXPECT_TRUE(fileExists(agentDir() + "/agent.pl"));
  EXPECT_FALSE(fileExists(agentDir() + "/control"));
  EXPECT_THAT(readFile(session() + "/agent-deployment.status"),
              HasSubstr("<agentstatus"));

  step({"--dump-all"});
  std::string dump = readFile(session() + "/dump.xml");
  EXPECT_THAT(dump, HasSubstr("carol.test"));
  EXPECT_TRUE(fileExists(session() + "/dump-name"));

  RunResult status = step({"--get-dumping-status"});
  EXPECT_EQ(status.out, readFile(agentDir() + "/dumping-status.xml"));

  step({"--get-content"});
  std::map<std::string, time_t> fetched = archives(session());
  EXPECT_GE(fetched.size(), 4u);
  for (const auto& archive : fetched) {
    EXPECT_FALSE(fileExists(agentDir() + "/" + archive.first)) << archive.first;
  }
  EXPECT_THAT(readFile(session() + "/transfer.result"),
              HasSubstr("status=\"success\""));
  EXPECT_THAT(readFile(session() + "/migration.status"), HasSubstr("<idle/>"));

  // Every local copy matches its listed sum: nothing is fetched again.
  sleep(1);
  step({"--get-content"});
  EXPECT_EQ(archives(session()), fetched);

  step({"--dump-selected", "--domains=-"}, "example.test\n");
  dump = readFile(session() + "/dump.xml");
  EXPECT_THAT(dump, HasSubstr("example.test"));
  EXPECT_THAT(dump, Not(HasSubstr("carol.test")));

  step({"--remove-agent"});
  EXPECT_FALSE(fileExists(agentDir()));
  step({"--remove-agent"});
}

INSTANTIATE_TEST_SUITE_P(Logins, MigrationTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "ThroughSudo" : "AsRoot";
                         });

}  // namespace
}  // namespace ferrow_test
