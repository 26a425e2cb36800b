// The reference agent's content: the archives it packs and the content
// list ferrow reads, with true sizes and MD5 sums.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agent/agent_fixture.h"
#include "xml/agent_file_list.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;

typedef std::set<std::string> Names;

// The content list as ferrow parses it.
std::unique_ptr<tovel::AgentFileList> contentList(const DeployedAgent& agent) {
  RunResult r = agent.run({"--get-content-list"});
  if (r.exitCode != 0) throw std::runtime_error("no content list: " + r.err);
  return tovel::getFileList(r.out);
}

Names listedNames(const DeployedAgent& agent) {
  Names names;
  for (const tovel::DumpFile& file : contentList(agent)->getFileList())
    names.insert(file.name);
  return names;
}

const Names kAllArchives = {
    "carol.test_mail.tar.gz",  "carol.test_web.tar.gz",
    "dave.test_mail.tar.gz",   "example.test_mail.tar.gz",
    "example.test_web.tar.gz", "shop.example.test_web.tar.gz"};

TEST(AgentContentTest, ListGivesTrueSizesAndSums) {
  DeployedAgent agent;
  ASSERT_EQ(agent.run({"--migration-mode", "--dump-all"}).exitCode, 0);
  std::unique_ptr<tovel::AgentFileList> list = contentList(agent);
  uint64_t total = 0;
  Names names;
  for (const tovel::DumpFile& file : list->getFileList()) {
    SCOPED_TRACE(file.name);
    // A bare name: ferrow looks for an earlier copy by base name.
    EXPECT_EQ(file.name.find('/'), std::string::npos);
    struct stat st;
    ASSERT_EQ(stat(agent.file(file.name).c_str(), &st), 0);
    EXPECT_EQ(file.size, static_cast<uint64_t>(st.st_size));
    EXPECT_EQ(file.md5sum, md5OfFile(agent.file(file.name)));
    total += file.size;
    names.insert(file.name);
  }
  EXPECT_EQ(names, kAllArchives);
  EXPECT_EQ(list->getTotalSize(), static_cast<int64_t>(total));
  uint64_t unpacked = 0;
  for (const char* domain :
       {"carol.test", "dave.test", "example.test", "shop.example.test"})
    for (const char* part : {"/site", "/mail"})
      if (fileExists(sampleSource() + "/domains/" + domain + part))
        unpacked += treeSize(sampleSource() + "/domains/" + domain + part);
  EXPECT_EQ(list->getUnpackedSize(), static_cast<int64_t>(unpacked));

  // The description names the same archives.
  tovel::tXmlDocument dump(agent.file("dump.xml").c_str());
  EXPECT_EQ(asSet(xpathStrings(dump, "//archive")), kAllArchives);
}

TEST(AgentContentTest, ArchivesHoldTheDomainsFiles) {
  DeployedAgent agent;
  ASSERT_EQ(agent.run({"--dump-domains=example.test,dave.test"}).exitCode, 0);
  for (const std::string& name : listedNames(agent)) {
    SCOPED_TRACE(name);
    std::string domain = name.substr(0, name.rfind('_'));
    std::string part =
        name.find("_web.") != std::string::npos ? "site" : "mail";
    TempDir unpacked;
    mustRun("tar", {"-xf", agent.file(name), "-C", unpacked.path()});
    RunResult diff = runProgram(
        "diff", {"-r", sampleSource() + "/domains/" + domain + "/" + part,
                 unpacked.path() + "/" + part});
    EXPECT_EQ(diff.exitCode, 0) << diff.out << diff.err;
    // Only the part, not the domain's own settings.
    std::istringstream listing(
        runProgram("tar", {"-tf", agent.file(name)}).out);
    for (std::string line; std::getline(listing, line);)
      EXPECT_TRUE(line == part ||
                  line.compare(0, part.size() + 1, part + "/") == 0)
          << line;
  }
}

TEST(AgentContentTest, OptionsChooseWhatIsPacked) {
  struct Case {
    std::vector<std::string> args;
    Names archives;
  };
  const Case cases[] = {
      {{"--dump-all", "--only-mail"},
       {"carol.test_mail.tar.gz", "dave.test_mail.tar.gz",
        "example.test_mail.tar.gz"}},
      {{"--dump-clients=bob", "--only-mail", "--only-hosting"},
       {"example.test_web.tar.gz", "shop.example.test_web.tar.gz"}},
      {{"--dump-domains=example.test", "--no-compress"},
       {"example.test_mail.tar", "example.test_web.tar"}},
      {{"--dump-all", "--no-content"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    DeployedAgent agent;
    ASSERT_EQ(agent.run(c.args).exitCode, 0);
    EXPECT_EQ(listedNames(agent), c.archives);
    for (const std::string& name : c.archives) {
      // Plain tar when not compressed: "ustar" at offset 257, no gzip magic.
      std::string head = readFile(agent.file(name)).substr(0, 263);
      bool gzip = head.compare(0, 2, "\x1f\x8b") == 0;
      EXPECT_EQ(gzip, name.size() > 3 && name.substr(name.size() - 3) == ".gz");
      if (!gzip) {
        EXPECT_EQ(head.substr(257, 5), "ustar");
      }
    }
  }
  // Without content the description keeps the figures but no archives.
  DeployedAgent agent;
  ASSERT_EQ(agent.run({"--dump-domains=example.test", "--no-content"}).exitCode,
            0);
  tovel::tXmlDocument dump(agent.file("dump.xml").c_str());
  EXPECT_EQ(xpathString(dump, "//hosting/@files"), "4");
  EXPECT_TRUE(xpathStrings(dump, "//archive").empty());
  EXPECT_EQ(contentList(agent)->getTotalSize(), 0);
}

TEST(AgentContentTest, SameDataGivesSameArchives) {
  DeployedAgent first, second;
  ASSERT_EQ(first.run({"--dump-all"}).exitCode, 0);
  ASSERT_EQ(second.run({"--dump-all"}).exitCode, 0);
  EXPECT_EQ(first.run({"--get-content-list"}).out,
            second.run({"--get-content-list"}).out);
  // Dumps a second apart too: no time in the gzip header (bytes 4 to 7).
  for (const std::string& name : kAllArchives)
    EXPECT_EQ(readFile(first.file(name)).substr(4, 4), std::string(4, '\0'))
        << name;
  // A later dump of one domain of the same data: same sums, so ferrow's
  // copies from the first dump need not be fetched again.
  ASSERT_EQ(second.run({"--dump-domains=carol.test"}).exitCode, 0);
  std::map<std::string, std::string> sums;
  for (const tovel::DumpFile& file : contentList(first)->getFileList())
    sums[file.name] = file.md5sum;
  for (const tovel::DumpFile& file : contentList(second)->getFileList())
    EXPECT_EQ(file.md5sum, sums[file.name]) << file.name;
}

TEST(AgentContentTest, NewDumpReplacesTheLastOnesContent) {
  DeployedAgent agent;
  ASSERT_EQ(agent.run({"--dump-all"}).exitCode, 0);
  ASSERT_EQ(agent.run({"--dump-domains=-"}, "carol.test\n").exitCode, 0);
  EXPECT_EQ(listedNames(agent),
            Names({"carol.test_mail.tar.gz", "carol.test_web.tar.gz"}));
  for (const std::string& name : kAllArchives)
    EXPECT_EQ(fileExists(agent.file(name)), name.rfind("carol.test_", 0) == 0)
        << name;
}

TEST(AgentContentTest, ListStillNamesArchivesFerrowHasRemoved) {
  DeployedAgent agent;
  ASSERT_EQ(agent.run({"--dump-all"}).exitCode, 0);
  std::string before = agent.run({"--get-content-list"}).out;
  for (const std::string& name : kAllArchives)
    ASSERT_EQ(unlink(agent.file(name).c_str()), 0);
  EXPECT_EQ(agent.run({"--get-content-list"}).out, before);
  // And a new dump does not trip over the missing files.
  EXPECT_EQ(agent.run({"--dump-domains=dave.test"}).exitCode, 0);
}

TEST(AgentContentTest, NoListBeforeTheFirstDump) {
  DeployedAgent agent;
  RunResult r = agent.run({"--get-content-list"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, HasSubstr("No dump has been made in " + agent.dir()));
}

TEST(AgentContentTest, ResultsAreReadableByTheLoginUser) {
  // Under sudo the agent runs as root, perhaps with a strict umask, while
  // ferrow fetches its files as the login user.
  DeployedAgent agent;
  RunResult r = runProgram(
      "sh",
      {"-c", "umask 077; exec perl \"$0\" --dump-all", agent.file("agent.pl")});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  Names files = kAllArchives;
  files.insert({"dump.xml", "dumping-status.xml", "content-list.xml"});
  for (const std::string& name : files) {
    struct stat st;
    ASSERT_EQ(stat(agent.file(name).c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 07777, 0644u) << name;
  }
}

}  // namespace
}  // namespace ferrow_test
