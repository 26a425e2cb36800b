#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include "errors/tags.h"
#include "support/ferrow_runner.h"
#include "xml/xml_document.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using ferrow_test::readFile;
using ferrow_test::TempDir;
using ferrow_test::writeFile;
using xml_test::messageOf;

tXmlQvtDocument statusDoc(const std::string& text, int copies = 1) {
  tXmlQvtDocument doc;
  doc.initNewDoc("migration-status");
  for (int i = 0; i < copies; ++i) {
    doc.newTextChild(doc.getRoot(), "host", text);
  }
  return doc;
}

std::vector<std::string> entriesOf(const std::string& dir) {
  std::vector<std::string> names;
  for (const fs::directory_entry& e : fs::directory_iterator(dir)) {
    names.push_back(e.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(AtomicSaveTest, WritesACompleteFileForThePanel) {
  xml_test::ensurePanelAccount();
  struct passwd* panel = getpwnam("dyradm");
  ASSERT_NE(nullptr, panel);
  TempDir dir;
  std::string target = dir.path() + "/migration.status";
  writeFile(target, "old");

  statusDoc("h1").saveToFileAtomically(target);

  xml_test::DocOwner back = xml_test::parseWithLibxml(target);
  ASSERT_TRUE(back) << readFile(target);
  xmlNodePtr root = xmlDocGetRootElement(back.get());
  EXPECT_EQ("migration-status", xml_test::nodeName(root));
  EXPECT_EQ("h1", xml_test::text(xml_test::elements(root).at(0)));
  struct stat st;
  ASSERT_EQ(0, stat(target.c_str(), &st));
  EXPECT_EQ(panel->pw_uid, st.st_uid);
  EXPECT_EQ(panel->pw_gid, st.st_gid);
  EXPECT_EQ(0640u, st.st_mode & 07777);
  EXPECT_EQ(std::vector<std::string>{"migration.status"}, entriesOf(dir.path()))
      << "no temporary file may be left after a successful save";
}

TEST(AtomicSaveTest, MissingDirectoryFailsWithTheSaveMessage) {
  TempDir dir;
  std::string target = dir.path() + "/gone/migration.status";
  try {
    statusDoc("h").saveToFileAtomically(target);
    FAIL() << "nothing thrown";
  } catch (const Exc<&tError_SaveFile>& e) {
    EXPECT_EQ("Can not save the XML document to file '" + target + "'",
              std::string(e.what()));
    ASSERT_NE(nullptr, e.inner());
    EXPECT_EQ("CantCreateTempFile", e.inner()->code());
  }
  EXPECT_FALSE(fs::exists(dir.path() + "/gone"));
}

TEST(AtomicSaveTest, FailedRenameLeavesTheTemporaryFile) {
  TempDir dir;
  // A non-empty directory cannot be replaced by a file.
  std::string target = dir.path() + "/migration.status";
  fs::create_directories(target + "/inside");

  std::string message = messageOf<&CantRenameFile>(
      [&] { statusDoc("h").saveToFileAtomically(target); });

  std::vector<std::string> names = entriesOf(dir.path());
  ASSERT_EQ(2u, names.size());
  std::string temporary = dir.path() + "/" + names[1];
  EXPECT_EQ(0u, names[1].find("migration.status")) << names[1];
  EXPECT_EQ(
      "Cannot rename " + temporary + " to " + target + ": " + strerror(EISDIR),
      message);
  EXPECT_NE(std::string::npos, readFile(temporary).find("<host>h</host>"));
}

// Runs body in a child process with a private mount namespace; the child's
// exit code is returned, 77 meaning the namespace could not be made.
int inPrivateMountNamespace(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      _exit(77);
    }
    int code = 1;
    try {
      code = body();
    } catch (...) {
    }
    _exit(code);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void fillFileSystem(const std::string& file) {
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char> block(4096, 'x');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  close(fd);
}

TEST(AtomicSaveTest, FullFileSystemFailsWhileSavingAndKeepsTheTarget) {
  TempDir dir;
  std::string mountPoint = dir.path() + "/small";
  std::string resultFile = dir.path() + "/result";
  fs::create_directories(mountPoint);
  int code = inPrivateMountNamespace([&] {
    if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=64k") != 0) {
      return 77;
    }
    std::string target = mountPoint + "/migration.status";
    writeFile(target, "old");
    fillFileSystem(mountPoint + "/filler");
    std::string message;
    try {
      statusDoc(std::string(200, 'h'), 100).saveToFileAtomically(target);
      message = "saved";
    } catch (const Exc<&tError_SaveFile>& e) {
      message = e.what();
    } catch (const ExTraceable& e) {
      message = e.code() + ": " + e.what();
    }
    writeFile(resultFile, message + "\n" + readFile(target));
    return 0;
  });
  if (code == 77) GTEST_SKIP() << "no private mount namespace here";
  ASSERT_EQ(0, code);
  std::string result = readFile(resultFile);
  std::string prefix = "Can not save the XML document to file '" + mountPoint +
                       "/migration.status";
  EXPECT_EQ(0u, result.find(prefix)) << result;
  EXPECT_EQ("'\nold", result.substr(result.find('\'', prefix.size())))
      << "the message names the temporary file and the target is unchanged";
}

}  // namespace
}  // namespace tovel
