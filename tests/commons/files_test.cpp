#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
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
using testing::StartsWith;
using testing_util::describe;
using testing_util::messageOf;
using testing_util::ScopedUmask;
using testing_util::ScratchConf;

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

TEST_F(MakeDirTest, CreatesOnlyMissingLevelsOwned) {
  ASSERT_EQ(0, mkdir("a", 0700));
  char path[] = "a/b/c";
  make_dir(path, 65534, 65533, 0777);
  EXPECT_STREQ("a/b/c", path) << "the buffer is restored";
  EXPECT_EQ("d 0:0 0700", describe("a"));
  EXPECT_EQ("d 65534:65533 0755", describe("a/b"));  // 0777 & ~022
  EXPECT_EQ("d 65534:65533 0755", describe("a/b/c"));
  make_dir(std::string("a/b/c"), 0, 0, 0700);  // exists: unchanged
  EXPECT_EQ("d 65534:65533 0755", describe("a/b/c"));

  make_dir(fs::path(dir_.path() + "/x/y/"), 0, 0, 0700);
  EXPECT_EQ("d 0:0 0700", describe(dir_.path() + "/x/y"));
}

TEST_F(MakeDirTest, CheckInputFileWantsARegularFile) {
  ferrow_test::writeFile("file", "x");
  ASSERT_EQ(0, symlink("file", "link"));
  ASSERT_EQ(0, symlink("missing", "dangling"));
  ASSERT_EQ(0, mkdir("dir", 0700));
  EXPECT_TRUE(check_input_file("file", false));
  EXPECT_TRUE(check_input_file("link", true));
  for (const char* bad : {"dangling", "dir", "missing", ""}) {
    EXPECT_FALSE(check_input_file(bad, false)) << bad;
  }
  EXPECT_FALSE(check_input_file(nullptr, false));
}

TEST(TempNameTest, TemplatesFollowDirectoryAndConfiguration) {
  const struct {
    const char* conf;  // null: no configuration file
    const char* dir;
    const char* prefix;
    const char* expected;
  } cases[] = {
      {nullptr, "/tmp", "x", "/tmp/xXXXXXX"},
      {nullptr, "/tmp/", "x", "/tmp/xXXXXXX"},
      {nullptr, "rel", "", "rel/XXXXXX"},
      {nullptr, "", "dump.", "/usr/local/dyr/QVT/tmp/dump.XXXXXX"},
      {"PRODUCT_ROOT_D /opt/p\n", "", "p", "/opt/p/QVT/tmp/pXXXXXX"},
      {"DUMP_TMP_D /var/spool/dumps/\nPRODUCT_ROOT_D /opt/p\n", "", "p",
       "/var/spool/dumps/pXXXXXX"},
      {"DUMP_TMP_D /var/spool/dumps/\n", "/tmp", "p", "/tmp/pXXXXXX"},
  };
  for (const auto& c : cases) {
    ScratchConf conf;
    if (c.conf) conf.write(c.conf);
    std::vector<char> buf;
    initTempName(buf, c.dir, c.prefix);
    EXPECT_GE(buf.capacity(), 4096u);
    ASSERT_EQ('\0', buf.back());
    EXPECT_EQ(c.expected, std::string(buf.data())) << c.dir << c.prefix;
  }
}

TEST(TempFilesTest, CreatesUniqueNamesOrFails) {
  ferrow_test::TempDir dir;
  std::string file = QVT_getTempFileName(dir.path(), "st.");
  EXPECT_NE(file, QVT_getTempFileName(dir.path() + "/", "st."));
  EXPECT_THAT(file, StartsWith(dir.path() + "/st."));
  EXPECT_EQ(dir.path().size() + 10, file.size());
  EXPECT_EQ('f', describe(file)[0]);
  std::string sub = QVT_makeTempFileDirectory(dir.path(), "d");
  EXPECT_THAT(sub, StartsWith(dir.path() + "/d"));
  EXPECT_EQ('d', describe(sub)[0]);

  EXPECT_EQ(
      "Can not create temporary file with the template "
      "'/nonexistent/ferrow/xXXXXXX': No such file or directory.",
      messageOf<&CantCreateTempFile>(
          [] { QVT_getTempFileName("/nonexistent/ferrow", "x"); }));
  EXPECT_EQ(
      "Can not create temporary dir with the template "
      "'/nonexistent/ferrow/yXXXXXX': No such file or directory.",
      messageOf<&CantCreateTempDir>(
          [] { QVT_makeTempFileDirectory("/nonexistent/ferrow", "y"); }));
}

uint64_t statfsFree(const std::string& path) {
  struct statfs info;
  if (statfs(path.c_str(), &info) != 0) return 0;
  return uint64_t(info.f_bavail) * uint64_t(info.f_bsize);
}

// Other processes write to the disk meanwhile: the answer must lie between
// what statfs says just before and just after.
TEST(DiskSpaceTest, FreeSpaceMatchesStatfsOrFailsWithAMessage) {
  uint64_t before = statfsFree("/tmp");
  uint64_t free = getFreeSpace("/tmp");
  uint64_t after = statfsFree("/tmp");
  EXPECT_GE(free, std::min(before, after));
  EXPECT_LE(free, std::max(before, after));
  EXPECT_EQ(
      "Cannot stat filesystem containing /nonexistent/ferrow: No such file "
      "or directory",
      messageOf<&CantStatFS>([] { getFreeSpace("/nonexistent/ferrow"); }));
}

TEST(DiskSpaceTest, CheckPassesOnEqualityAndFailsAbove) {
  // /proc never has space to offer: its free count is a steady 0.
  ASSERT_EQ(0u, getFreeSpace("/proc"));
  EXPECT_NO_THROW(DiskSpaceReserver::checkDiskSpace("/proc", 0));
  EXPECT_EQ(
      "Selected filesystem at /proc has only 0 bytes free, but 1 bytes are "
      "needed for operation",
      messageOf<&DiskSpaceReserver::NotEnoughDiskSpace>(
          [] { DiskSpaceReserver::checkDiskSpace("/proc", 1); }));
  EXPECT_NO_THROW(DiskSpaceReserver::checkDiskSpace("/tmp", -1));
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
  EXPECT_TRUE(fs::is_empty(dir.path()));
  EXPECT_THROW(DiskSpaceReserver(dir.path(), INT64_MAX),
               DiskSpaceReserver::ExNotEnoughDiskSpace);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

}  // namespace
}  // namespace tovel
