#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "commons/disk_space.h"
#include "commons/make_dir.h"
#include "commons/temp_files.h"
#include "commons_test_util.h"
#include "errors/tags.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using testing::MatchesRegex;
using testing::StartsWith;
using testing_util::ScopedUmask;
using testing_util::ScratchConf;
using testing_util::statOf;

// Runs the test body with the scratch directory as working directory, so
// that relative names stay inside it.
class MakeDirTest : public testing::Test {
 protected:
  MakeDirTest() : saved_(fs::current_path()) { fs::current_path(dir_.path()); }
  ~MakeDirTest() override { fs::current_path(saved_); }

  ferrow_test::TempDir dir_;
  fs::path saved_;
  ScopedUmask mask_{022};
};

TEST_F(MakeDirTest, CreatesEveryMissingLevelOwned) {
  char path[] = "one/two/three";
  make_dir(path, 65534, 65533, 0751);
  EXPECT_STREQ("one/two/three", path);
  for (const char* level : {"one", "one/two", "one/two/three"}) {
    struct stat st = statOf(level);
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << level;
    EXPECT_EQ(65534u, st.st_uid) << level;
    EXPECT_EQ(65533u, st.st_gid) << level;
    EXPECT_EQ(0751u, st.st_mode & 07777) << level;  // 0751 & ~022
  }
}

TEST_F(MakeDirTest, ExistingLevelsAreLeftAlone) {
  ASSERT_EQ(0, mkdir("a", 0700));
  ASSERT_EQ(0, mkdir("a/b", 0700));
  make_dir(std::string("a/b/c"), 65534, 65534, 0777);
  EXPECT_EQ(0u, statOf("a").st_uid);
  EXPECT_EQ(0700u, statOf("a/b").st_mode & 07777);
  EXPECT_EQ(0u, statOf("a/b").st_uid);
  EXPECT_EQ(65534u, statOf("a/b/c").st_uid);
  EXPECT_EQ(0755u, statOf("a/b/c").st_mode & 07777);

  make_dir(fs::path("a/b/c"), 0, 0, 0700);  // exists: unchanged
  EXPECT_EQ(65534u, statOf("a/b/c").st_uid);
  EXPECT_EQ(0755u, statOf("a/b/c").st_mode & 07777);
}

TEST_F(MakeDirTest, AbsolutePathAndTrailingSlash) {
  std::string path = dir_.path() + "/x/y/";
  make_dir(fs::path(path), 0, 0, 0700);
  EXPECT_TRUE(S_ISDIR(statOf(dir_.path() + "/x/y").st_mode));
  EXPECT_EQ(0700u, statOf(dir_.path() + "/x").st_mode & 07777);
}

TEST_F(MakeDirTest, CheckInputFile) {
  ferrow_test::writeFile("file", "x");
  ASSERT_EQ(0, symlink("file", "link"));
  ASSERT_EQ(0, symlink("missing", "dangling"));
  ASSERT_EQ(0, mkdir("dir", 0700));
  EXPECT_TRUE(check_input_file("file", false));
  EXPECT_TRUE(check_input_file("link", true));
  EXPECT_FALSE(check_input_file("dangling", false));
  EXPECT_FALSE(check_input_file("dir", false));
  EXPECT_FALSE(check_input_file("missing", false));
  EXPECT_FALSE(check_input_file("", false));
  EXPECT_FALSE(check_input_file(nullptr, false));
}

std::string templateOf(const std::string& dir, const std::string& prefix) {
  std::vector<char> buf;
  initTempName(buf, dir, prefix);
  EXPECT_GE(buf.capacity(), 4096u);
  EXPECT_EQ('\0', buf.back());
  return std::string(buf.data(), buf.size() - 1);
}

TEST(TempNameTest, Templates) {
  ScratchConf conf;
  EXPECT_EQ("/tmp/xXXXXXX", templateOf("/tmp", "x"));
  EXPECT_EQ("/tmp/xXXXXXX", templateOf("/tmp/", "x"));
  EXPECT_EQ("rel/XXXXXX", templateOf("rel", ""));
  // Without a DUMP_TMP_D setting the product's directory is used.
  EXPECT_EQ("/usr/local/dyr/QVT/tmp/dump.XXXXXX", templateOf("", "dump."));
}

TEST(TempNameTest, EmptyDirectoryUsesConfiguredDumpTmp) {
  ScratchConf conf;
  conf.write("DUMP_TMP_D /var/spool/dumps/\nPRODUCT_ROOT_D /opt/p\n");
  EXPECT_EQ("/var/spool/dumps/pXXXXXX", templateOf("", "p"));
  EXPECT_EQ("/tmp/pXXXXXX", templateOf("/tmp", "p"));
}

TEST(TempNameTest, EmptyDirectoryUsesConfiguredProductRoot) {
  ScratchConf conf;
  conf.write("PRODUCT_ROOT_D /opt/p\n");
  EXPECT_EQ("/opt/p/QVT/tmp/pXXXXXX", templateOf("", "p"));
}

TEST(TempFilesTest, CreatesUniqueFileAndDirectory) {
  ferrow_test::TempDir dir;
  std::string file = QVT_getTempFileName(dir.path(), "st.");
  std::string other = QVT_getTempFileName(dir.path() + "/", "st.");
  EXPECT_NE(file, other);
  EXPECT_THAT(file, StartsWith(dir.path() + "/st."));
  EXPECT_EQ(dir.path().size() + 10, file.size());
  struct stat st = statOf(file);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(0, st.st_size);

  std::string sub = QVT_makeTempFileDirectory(dir.path(), "d");
  EXPECT_THAT(sub, StartsWith(dir.path() + "/d"));
  EXPECT_TRUE(S_ISDIR(statOf(sub).st_mode));
}

TEST(TempFilesTest, MissingDirectoryFails) {
  ferrow_test::TempDir dir;
  std::string missing = dir.path() + "/missing";
  try {
    QVT_getTempFileName(missing, "x");
    ADD_FAILURE() << "no exception";
  } catch (const Exc<&CantCreateTempFile>& e) {
    EXPECT_EQ("Can not create temporary file with the template '" + missing +
                  "/xXXXXXX': No such file or directory.",
              std::string(e.what()));
  }
  try {
    QVT_makeTempFileDirectory(missing, "y");
    ADD_FAILURE() << "no exception";
  } catch (const Exc<&CantCreateTempDir>& e) {
    EXPECT_EQ("Can not create temporary dir with the template '" + missing +
                  "/yXXXXXX': No such file or directory.",
              std::string(e.what()));
  }
}

uint64_t statfsFree(const std::string& path) {
  struct statfs info;
  if (statfs(path.c_str(), &info) != 0) return 0;
  return uint64_t(info.f_bavail) * uint64_t(info.f_bsize);
}

// Other processes write to the disk meanwhile: compare only when nothing
// changed around the call.
TEST(DiskSpaceTest, FreeSpaceMatchesStatfs) {
  ferrow_test::TempDir dir;
  bool compared = false;
  for (int attempt = 0; attempt < 50 && !compared; ++attempt) {
    uint64_t before = statfsFree(dir.path());
    uint64_t free = getFreeSpace(dir.path());
    if (before != statfsFree(dir.path())) continue;
    EXPECT_EQ(before, free);
    compared = true;
  }
  EXPECT_TRUE(compared) << "free space never settled";
  EXPECT_EQ(statfsFree("/proc"), getFreeSpace("/proc"));
}

TEST(DiskSpaceTest, StatFailure) {
  try {
    getFreeSpace("/nonexistent/ferrow");
    ADD_FAILURE() << "no exception";
  } catch (const Exc<&CantStatFS>& e) {
    EXPECT_EQ(
        "Cannot stat filesystem containing /nonexistent/ferrow: No such file "
        "or directory",
        std::string(e.what()));
  }
}

TEST(DiskSpaceTest, CheckPassesOnEqualityAndFailsAbove) {
  // /proc never has space to offer: its free count is a steady 0.
  ASSERT_EQ(0u, getFreeSpace("/proc"));
  EXPECT_NO_THROW(DiskSpaceReserver::checkDiskSpace("/proc", 0));
  try {
    DiskSpaceReserver::checkDiskSpace("/proc", 1);
    ADD_FAILURE() << "no exception";
  } catch (const DiskSpaceReserver::ExNotEnoughDiskSpace& e) {
    EXPECT_EQ("NotEnoughDiskSpace", e.code());
    EXPECT_EQ(
        "Selected filesystem at /proc has only 0 bytes free, but 1 bytes are "
        "needed for operation",
        std::string(e.what()));
  }
  EXPECT_NO_THROW(DiskSpaceReserver::checkDiskSpace("/tmp", -1));
  EXPECT_THROW(DiskSpaceReserver::checkDiskSpace("/tmp", INT64_MAX),
               DiskSpaceReserver::ExNotEnoughDiskSpace);
}

TEST(DiskSpaceTest, ReserverHoldsExactSizeUntilDestroyed) {
  ferrow_test::TempDir dir;
  std::string name;
  {
    DiskSpaceReserver reserver(dir.path(), 12345);
    name = reserver.getFileName();
    EXPECT_THAT(name, StartsWith(dir.path() + "/.fs_"));
    EXPECT_EQ(std::string(12345, '\0'), ferrow_test::readFile(name));
  }
  EXPECT_FALSE(ferrow_test::fileExists(name));
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(DiskSpaceTest, ReserverRefusesMoreThanFree) {
  ferrow_test::TempDir dir;
  EXPECT_THROW(DiskSpaceReserver(dir.path(), INT64_MAX),
               DiskSpaceReserver::ExNotEnoughDiskSpace);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

}  // namespace
}  // namespace tovel
