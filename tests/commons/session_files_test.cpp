#include "commons/session_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "commons/accounts.h"
#include "commons_test_util.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using testing_util::describe;
using testing_util::HostLogCapture;
using testing_util::messageOf;
using testing_util::ScopedUmask;

class SessionFilesTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { ferrow_test::ensurePanelAccount(); }
  ferrow_test::TempDir dir_;
};

TEST_F(SessionFilesTest, CreatesDirectoryAndArchivesOwnedByPanel) {
  const std::string owned =
      "d 0:" + std::to_string(lookupAccount(kPanelAccount).uid) + " 0750";
  ASSERT_NE("d 0:0 0750", owned);

  // Existing directories are kept as they are; only archives is added.
  std::string kept = dir_.path() + "/kept";
  ASSERT_EQ(0, mkdir(kept.c_str(), 0700));
  ASSERT_EQ(0, chown(kept.c_str(), 65534, 65534));
  ASSERT_EQ(0, mkdir((kept + "/archives").c_str(), 0711));
  SessionFiles keptSession(kept);
  EXPECT_EQ("d 65534:65534 0700", describe(kept));
  EXPECT_EQ("d 0:0 0711", describe(kept + "/archives"));
  std::string old = dir_.path() + "/old";
  ASSERT_EQ(0, mkdir(old.c_str(), 0755));
  SessionFiles oldSession(old);
  EXPECT_EQ("d 0:0 0755", describe(old));
  EXPECT_EQ(owned, describe(old + "/archives"));

  ScopedUmask mask(077);  // the mode is set explicitly, not left to umask
  std::string path = dir_.path() + "/session";
  SessionFiles session(path);
  EXPECT_EQ(owned, describe(path));
  EXPECT_EQ(owned, describe(path + "/archives"));
  ferrow_test::writeFile(path + "/archives/a.tgz", "data");
  session.remove();
  EXPECT_EQ("missing", describe(path));
}

// The controller installs theSession for its lifetime, and only when the
// directory could be made: not over a regular file nor without a parent.
TEST_F(SessionFilesTest, ControllerInstallsOnlyACreatedSession) {
  {
    SessionLifetimeController controller(dir_.path() + "/run");
    ASSERT_NE(nullptr, theSession);
    EXPECT_EQ(dir_.path() + "/run/migration.status",
              theSession->getStatusFileName());
  }
  EXPECT_EQ(nullptr, theSession);

  std::string file = dir_.path() + "/file";
  ferrow_test::writeFile(file, "x");
  HostLogCapture log;
  for (const std::string& path : {file, dir_.path() + "/no/parent"}) {
    EXPECT_EQ("Unable to create session: Unable to create session directory",
              messageOf<&UnableToCreateSession>(
                  [&] { SessionLifetimeController controller(path); }));
    EXPECT_EQ(nullptr, theSession);
  }
  EXPECT_EQ("missing", describe(dir_.path() + "/no"));
  EXPECT_THAT(log.lines(), testing::Contains(
                               testing::HasSubstr(dir_.path() + "/no/parent")));
}

TEST(AccountsTest, LookupByName) {
  EXPECT_EQ(0u, lookupAccount("root").uid);
  HostLogCapture log;
  AccountIds ids = lookupAccount("no_such_account_ferrow");
  EXPECT_EQ(0u, ids.uid);
  EXPECT_EQ(0u, ids.gid);
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_THAT(log.lines()[0],
              testing::StartsWith(
                  "Unable to find uid for user no_such_account_ferrow: "));
}

}  // namespace
}  // namespace tovel
