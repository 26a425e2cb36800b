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

using testing_util::HostLogCapture;
using testing_util::ScopedUmask;
using testing_util::statOf;

class SessionFilesTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { ferrow_test::ensurePanelAccount(); }

  // The message of the UnableToCreateSession that path raises, or "".
  static std::string creationError(const std::string& path) {
    try {
      SessionFiles session(path);
    } catch (const Exc<&UnableToCreateSession>& e) {
      return e.what();
    }
    return "";
  }

  ferrow_test::TempDir dir_;
};

TEST_F(SessionFilesTest, CreatesDirectoryAndArchivesOwnedByPanel) {
  uid_t panelUid = lookupAccount(kPanelAccount).uid;
  ASSERT_NE(0u, panelUid);
  ScopedUmask mask(077);  // the mode is set explicitly, not left to umask
  std::string path = dir_.path() + "/session";

  SessionFiles session(path);

  for (const std::string& created : {path, path + "/archives"}) {
    struct stat st = statOf(created);
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << created;
    EXPECT_EQ(0u, st.st_uid) << created;
    EXPECT_EQ(panelUid, st.st_gid) << created;
    EXPECT_EQ(0750u, st.st_mode & 07777) << created;
  }
}

TEST_F(SessionFilesTest, ExistingDirectoryIsKeptAsItIs) {
  std::string path = dir_.path() + "/kept";
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));
  ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
  ASSERT_EQ(0, mkdir((path + "/archives").c_str(), 0711));

  SessionFiles session(path);

  struct stat st = statOf(path);
  EXPECT_EQ(65534u, st.st_uid);
  EXPECT_EQ(65534u, st.st_gid);
  EXPECT_EQ(0700u, st.st_mode & 07777);
  EXPECT_EQ(0711u, statOf(path + "/archives").st_mode & 07777);
}

TEST_F(SessionFilesTest, ArchivesAddedToExistingDirectory) {
  std::string path = dir_.path() + "/old";
  ASSERT_EQ(0, mkdir(path.c_str(), 0755));
  SessionFiles session(path);
  EXPECT_EQ(0755u, statOf(path).st_mode & 07777);
  EXPECT_EQ(0750u, statOf(path + "/archives").st_mode & 07777);
}

TEST_F(SessionFilesTest, RegularFileOrMissingParentIsRefused) {
  std::string file = dir_.path() + "/file";
  ferrow_test::writeFile(file, "x");
  HostLogCapture log;
  EXPECT_EQ("Unable to create session: Unable to create session directory",
            creationError(file));
  EXPECT_EQ("Unable to create session: Unable to create session directory",
            creationError(dir_.path() + "/no/parent"));
  EXPECT_FALSE(ferrow_test::fileExists(dir_.path() + "/no"));
  EXPECT_THAT(log.lines(), testing::Contains(
                               testing::HasSubstr(dir_.path() + "/no/parent")));
}

TEST_F(SessionFilesTest, FileNamesAreConcatenatedAsGiven) {
  std::string d = dir_.path() + "/";
  SessionFiles session(d);
  EXPECT_EQ(d, session.getDir());
  EXPECT_EQ(d + "/migration.status", session.getStatusFileName());
  EXPECT_EQ(d + "/agent-deployment.status",
            session.getDeploymentStatusFileName());
  EXPECT_EQ(d + "/scout-result.xml", session.getScoutResultFileName());
  EXPECT_EQ(d + "/dump.xml", session.getDumpFileName());
  EXPECT_EQ(d + "/migration.log", session.getLogFileName());
  EXPECT_EQ(d + "/migration.result", session.getResultFileName());
  EXPECT_EQ(d + "/dumping-status.xml", session.getDumpingStatusFileName());
  EXPECT_EQ(d, session.getCidFilesDir());
  EXPECT_EQ(d + "/a.tgz", session.getCidFile("a.tgz"));
  EXPECT_EQ(d + "/restore.xml", session.getTovelDumpFileName());
}

TEST_F(SessionFilesTest, RemoveDeletesTree) {
  std::string path = dir_.path() + "/gone";
  SessionFiles session(path);
  ferrow_test::writeFile(path + "/archives/a.tgz", "data");
  session.remove();
  EXPECT_FALSE(ferrow_test::fileExists(path));
}

TEST_F(SessionFilesTest, ControllerOwnsTheSession) {
  ASSERT_EQ(nullptr, theSession);
  {
    SessionLifetimeController controller(dir_.path() + "/run");
    ASSERT_NE(nullptr, theSession);
    EXPECT_EQ(dir_.path() + "/run/migration.status",
              theSession->getStatusFileName());
  }
  EXPECT_EQ(nullptr, theSession);

  std::string file = dir_.path() + "/file";
  ferrow_test::writeFile(file, "x");
  EXPECT_THROW(SessionLifetimeController controller(file),
               Exc<&UnableToCreateSession>);
  EXPECT_EQ(nullptr, theSession);
}

TEST(AccountsTest, MissingAccountGivesZeroAndIsLogged) {
  HostLogCapture log;
  AccountIds ids = lookupAccount("no_such_account_ferrow");
  EXPECT_EQ(0u, ids.uid);
  EXPECT_EQ(0u, ids.gid);
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(0u, log.lines()[0].find(
                    "Unable to find uid for user no_such_account_ferrow: "));
}

TEST(AccountsTest, RootIsFound) {
  AccountIds ids = lookupAccount("root");
  EXPECT_EQ(0u, ids.uid);
  EXPECT_EQ(0u, ids.gid);
  ferrow_test::ensurePanelAccount();
  EXPECT_NE(0u, lookupAccount(kPanelAccount).uid);
}

}  // namespace
}  // namespace tovel
