// The atomic save as the progress document uses it: many saves over the
// same target during a transfer.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <sstream>
#include <string>

#include "support/ferrow_runner.h"
#include "xml/migration_status.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

namespace fs = boost::filesystem;
using ferrow_test::readFile;
using ferrow_test::TempDir;

size_t entriesIn(const std::string& dir) {
  size_t count = 0;
  for (fs::directory_iterator it(dir), end; it != end; ++it) ++count;
  return count;
}

// The atomic save writes what a plain save writes, byte for byte, whether
// it creates the target or replaces it.
TEST(RepeatedSaveTest, WritesTheSameBytesAsAPlainSave) {
  TempDir dir;
  tXmlQvtDocument doc;
  doc.initNewDoc("migration-status");
  xmlNodePtr transfer = doc.newChild(doc.getRoot(), "transfer");
  doc.addAttribute(transfer, "speed", "42");
  doc.newTextChild(transfer, "host", "h\xC3\xA9<&>");
  doc.saveToFile(dir.path() + "/plain.xml");
  std::string expected = readFile(dir.path() + "/plain.xml");

  std::string target = dir.path() + "/migration.status";
  doc.saveToFileAtomically(target);
  EXPECT_EQ(expected, readFile(target)) << "new target";
  doc.saveToFileAtomically(target);
  EXPECT_EQ(expected, readFile(target)) << "replaced target";
}

// A reader that opened the document before a save keeps reading that
// complete document; the next open sees the new one; nothing is left
// beside the target.
TEST(RepeatedSaveTest, ReadersSeeOneWholeDocumentAndNoLeftovers) {
  xml_test::ScratchSession session;
  XmlMigrationStatus status;
  status.setAgentParams("source");
  status.setTransferTotals("1", "300");
  status.setCurrentFile("a.tar", "300");
  status.saveFile();
  std::ifstream before(session.statusFile());
  ASSERT_TRUE(before.is_open());
  std::string dir = fs::path(session.statusFile()).parent_path().string();
  size_t entries = entriesIn(dir);

  for (int left = 200; left >= 0; left -= 100) {
    status.setTransferSizeLeft(std::to_string(left));
    status.saveFile();
  }

  std::stringstream old;
  old << before.rdbuf();
  EXPECT_NE(std::string::npos, old.str().find("size-left=\"300\""))
      << old.str();
  std::string now = readFile(session.statusFile());
  EXPECT_NE(std::string::npos, now.find("size-left=\"0\"")) << now;
  EXPECT_EQ(entries, entriesIn(dir));
  struct stat st;
  ASSERT_EQ(0, stat(session.statusFile().c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
}

}  // namespace
}  // namespace tovel
