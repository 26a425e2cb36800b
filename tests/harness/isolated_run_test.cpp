// Programs run in private namespaces: fixture files bound over the machine's
// own, and a network of loopback only whose routes make connect() fail in
// each way a host can be out of reach.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "support/ferrow_runner.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

typedef std::chrono::steady_clock Clock;

RunOptions isolated(const std::string& setup) {
  RunOptions options;
  options.isolateNetwork = true;
  options.networkSetup = setup;
  return options;
}

// A script that connects to port 22 of address with bash and prints the
// error.
std::string connectScript(const std::string& address) {
  return "bash -c 'exec 3<>/dev/tcp/" + address + "/22' 2>&1";
}

TEST(IsolatedRunTest, EachRouteFailsConnectItsOwnWay) {
  RunOptions options = isolated(kFailingNetworkSetup);
  RunResult links = runInNamespace("ip -o link", options);
  EXPECT_EQ(0, links.exitCode) << links.err;
  EXPECT_THAT(links.out, ::testing::MatchesRegex("1: lo: <[^\n]*UP[^\n]*\n"));

  const std::pair<const char*, const char*> cases[] = {
      {kNoRouteToHostAddress, "No route to host"},
      {kPermissionDeniedAddress, "Permission denied"},
      {kNetworkUnreachableAddress, "Network is unreachable"},
      {"127.0.0.1", "Connection refused"},
  };
  for (const auto& c : cases) {
    RunResult r = runInNamespace(connectScript(c.first), options);
    EXPECT_NE(0, r.exitCode) << c.first;
    EXPECT_THAT(r.out, HasSubstr(c.second)) << c.first;
  }
}

TEST(IsolatedRunTest, TimeoutSetUpTimesOutWithinSeconds) {
  Clock::time_point start = Clock::now();
  RunResult r = runInNamespace("timeout 30 " + connectScript(kTimeoutAddress),
                               isolated(kTimeoutNetworkSetup));
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_THAT(r.out, HasSubstr("Connection timed out"));
  EXPECT_GT(seconds, 1.5);
  EXPECT_LT(seconds, 10.0);
  // Without the set-up the same address has no route at all.
  RunResult plain =
      runInNamespace(connectScript(kTimeoutAddress), isolated(""));
  EXPECT_THAT(plain.out, HasSubstr("Network is unreachable"));
}

TEST(IsolatedRunTest, BindsShowFixturesInsideOnly) {
  TempDir fixtures;
  writeFile(fixtures.path() + "/hosts", "127.0.0.1 srchost\n");
  writeFile(fixtures.path() + "/nsswitch.conf", "hosts: files\n");
  writeFile(fixtures.path() + "/dyr.conf", "PRODUCT_ROOT_D /nowhere\n");
  RunOptions options = isolated("");
  options.binds = {
      {fixtures.path(), "/etc/ferrow-test-absent"},  // made in an overlay
      {fixtures.path() + "/hosts", "/etc/hosts"},
      {fixtures.path() + "/nsswitch.conf", "/etc/nsswitch.conf"},
  };
  Clock::time_point start = Clock::now();
  RunResult r = runInNamespace(
      "getent hosts srchost; cat /etc/ferrow-test-absent/dyr.conf;"
      "getent hosts localhost || echo no-localhost;"
      "getent hosts nosuch.example.com || echo unknown",
      options);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 5.0);
  EXPECT_EQ(0, r.exitCode) << r.err;
  EXPECT_THAT(r.out, ::testing::MatchesRegex("127.0.0.1 +srchost\n"
                                             "PRODUCT_ROOT_D /nowhere\n"
                                             "no-localhost\n"
                                             "unknown\n"));
  EXPECT_FALSE(fileExists("/etc/ferrow-test-absent"));
  EXPECT_THAT(readFile("/etc/hosts"), Not(HasSubstr("srchost")));

  options.binds = {{fixtures.path() + "/hosts", "/var/ferrow-absent"}};
  EXPECT_THROW(runInNamespace("true", options), std::invalid_argument);
}

// The product's fixture /etc/dyr is still bound when more binds and a
// network of its own come with it: the run finds its product root.
TEST(IsolatedRunTest, FerrowRunsInsideWithItsInstallation) {
  if (!fileExists(FERROW_BINARY)) GTEST_SKIP() << "ferrow is not built";
  FerrowInstallation install;
  writeFile(install.root() + "/hosts", "127.0.0.1 srchost\n");
  RunOptions options = isolated(kFailingNetworkSetup);
  options.binds = {{install.root() + "/hosts", "/etc/hosts"}};
  RunResult r = install.run(options, {"--remove-dumping-status",
                                      "--session-path", install.sessionPath()});
  EXPECT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(fileExists(install.sessionPath() + "/migration.log"));
}

}  // namespace
}  // namespace ferrow_test
