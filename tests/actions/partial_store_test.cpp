// The store of interrupted copies, on its own: what it keeps, what it
// gives back, and what the next list makes it drop.
#include "actions/partial_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using ferrow_test::fileExists;
using ferrow_test::readFile;
using ferrow_test::TempDir;
using ferrow_test::writeFile;

const uint64_t kBig = PartialStore::kMinBytes;

std::vector<std::string> filesUnder(const std::string& dir) {
  std::vector<std::string> found;
  if (!boost::filesystem::exists(dir)) return found;
  for (boost::filesystem::recursive_directory_iterator it(dir), end; it != end;
       ++it)
    if (boost::filesystem::is_regular_file(it->path()))
      found.push_back(it->path().filename().string());
  return found;
}

// keep() takes only a copy worth resuming: of a big enough archive, 1 byte
// to its listed size long; restore() gives it back once.
TEST(PartialStoreTest, KeepsOnlyWhatCanBeResumed) {
  const struct {
    const char* what;
    uint64_t listed;
    std::size_t length;
    bool kept;
  } rows[] = {
      {"a byte of a big archive", kBig, 1, true},
      {"all of it", kBig, kBig, true},
      {"empty", kBig, 0, false},
      {"longer than listed", kBig, kBig + 1, false},
      {"a small archive", kBig - 1, 10, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TempDir root, dest;
    PartialStore store(root.path() + "/partial", dest.path());
    const DumpFile f{"d/a.tgz", row.listed, "0123"};
    const std::string local = dest.path() + "/a.tgz";
    writeFile(local, std::string(row.length, 'x'));
    store.keep(f, local);
    EXPECT_FALSE(fileExists(local));
    EXPECT_EQ(store.restore(f, local), row.kept ? row.length : 0);
    EXPECT_EQ(fileExists(local), row.kept);
    EXPECT_EQ(store.restore(f, local), 0u);
    EXPECT_THAT(filesUnder(root.path()), ::testing::IsEmpty());
  }
}

// prune() keeps a copy only for the very archive it came from.
TEST(PartialStoreTest, PruneDropsWhatTheListNoLongerNames) {
  TempDir root, dest;
  PartialStore store(root.path(), dest.path());
  const DumpFile a{"a.tgz", kBig, "aa"}, b{"b.tgz", kBig, "bb"},
      c{"c.tgz", kBig, "cc"};
  for (const DumpFile* f : {&a, &b, &c}) {
    writeFile(dest.path() + "/x", "partial");
    store.keep(*f, dest.path() + "/x");
  }
  writeFile(store.dir() + "/stray.list.new", "");
  // b listed with another sum, c no longer listed.
  store.prune({a, DumpFile{"b.tgz", kBig, "b2"}});
  EXPECT_EQ(filesUnder(root.path()).size(), 2u);
  EXPECT_EQ(store.restore(a, dest.path() + "/a"), 7u);
  EXPECT_EQ(readFile(dest.path() + "/a"), "partial");
  EXPECT_EQ(store.restore(b, dest.path() + "/b"), 0u);
  EXPECT_EQ(store.restore(c, dest.path() + "/c"), 0u);
  // Once empty, the destination's directory goes too.
  store.prune({});
  EXPECT_FALSE(boost::filesystem::exists(store.dir()));
}

}  // namespace
}  // namespace tovel
