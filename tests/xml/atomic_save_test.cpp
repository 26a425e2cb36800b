#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
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
  ferrow_test::ensurePanelAccount();
  struct passwd* panel = getpwnam("dyradm");
  ASSERT_NE(nullptr, panel);
  TempDir dir;
  std::string target = dir.path() + "/migration.status";
  writeFile(target, "old");

  statusDoc("h1").saveToFileAtomically(target);

  EXPECT_EQ("<migration-status><host>h1</host></migration-status>",
            xml_test::savedBody(target));
  EXPECT_EQ("f " + std::to_string(panel->pw_uid) + ":" +
                std::to_string(panel->pw_gid) + " 0640",
            testing_util::describe(target));
  EXPECT_EQ(std::vector<std::string>{"migration.status"}, entriesOf(dir.path()))
      << "no temporary file may be left after a successful save";
}

// No temporary file can be made in a missing directory; a non-empty
// directory cannot be replaced by a file, and the temporary file stays.
TEST(AtomicSaveTest, FailuresNameTheFilesInvolved) {
  TempDir dir;
  std::string target = dir.path() + "/gone/migration.status";
  try {
    statusDoc("h").saveToFileAtomically(target);
    ADD_FAILURE() << "nothing thrown";
  } catch (const Exc<&tError_SaveFile>& e) {
    EXPECT_EQ("Can not save the XML document to file '" + target + "'",
              std::string(e.what()));
    ASSERT_NE(nullptr, e.inner());
    EXPECT_EQ("CantCreateTempFile", e.inner()->code());
  }
  EXPECT_TRUE(entriesOf(dir.path()).empty());

  target = dir.path() + "/migration.status";
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
  EXPECT_EQ("<migration-status><host>h</host></migration-status>",
            xml_test::savedBody(temporary));
}

// The save runs in a child with a private mount namespace, on a small tmpfs
// that a filler file has made full; the child reports what happened.
TEST(AtomicSaveTest, FullFileSystemFailsWhileSavingAndKeepsTheTarget) {
  TempDir dir;
  const std::string small = dir.path() + "/small";
  const std::string target = small + "/migration.status";
  fs::create_directories(small);
  pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", small.c_str(), "tmpfs", 0, "size=64k") != 0) {
      _exit(77);
    }
    std::string message = "saved";
    try {
      writeFile(target, "old");
      std::ofstream filler(small + "/filler");
      while (filler << std::string(4096, 'x')) {
      }
      statusDoc(std::string(200, 'h'), 100).saveToFileAtomically(target);
    } catch (const Exc<&tError_SaveFile>& e) {
      message = e.what();
    } catch (const std::exception& e) {
      message = e.what();
    }
    writeFile(dir.path() + "/result", message + "\n" + readFile(target));
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    GTEST_SKIP() << "no private mount namespace here";
  }
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::string result = readFile(dir.path() + "/result");
  std::string prefix = "Can not save the XML document to file '" + target;
  EXPECT_EQ(0u, result.find(prefix)) << result;
  EXPECT_EQ("'\nold", result.substr(result.find('\'', prefix.size())))
      << "the message names the temporary file and the target is unchanged";
}

}  // namespace
}  // namespace tovel
