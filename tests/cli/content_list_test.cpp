// "--get-content" takes the content list at its word, end to end against
// the test sshd: a sum in capital hex digits is the same sum, an archive
// listed without a size is fetched whole, and "migration.status" keeps up
// with the bytes received while the source stalls.
#include <gmock/gmock.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <map>
#include <string>
#include <thread>

#include "commons/checksum.h"
#include "support/ferrow_runner.h"
#include "support/scripted_agent.h"
#include "support/source_login.h"
#include "support/test_bytes.h"

namespace ferrow_test {
namespace {

using Clock = std::chrono::steady_clock;
const size_t kSize = 300000;

class ContentListBase : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  // Puts kSize bytes on the source as `name`; returns their MD5 sum.
  std::string put(const std::string& name) {
    bytes_[name] = archiveBytes(kSize, static_cast<unsigned>(name[0]));
    writeFile(agent_.file(name), bytes_[name]);
    return tovel::countMd5Sum(bytes_[name]);
  }
  static std::string entry(const std::string& name, bool sized,
                           const std::string& sum) {
    std::string size = " size=\"" + std::to_string(kSize) + "\"";
    return "<file" + (sized ? size : "") + " md5sum=\"" + sum + "\">" + name +
           "</file>";
  }

  RunResult getContent(const std::string& files) {
    writeFile(agent_.file("contentlist.xml"),
              "<contentlist size=\"" + std::to_string(kSize * bytes_.size()) +
                  "\" unpacked=\"1\">" + files + "</contentlist>");
    SourceLogin login = sourceLogin(rootAccount(), false);
    std::vector<std::string> args = withLogin(login, agent_.args());
    args.insert(args.end(), {"--get-content", "--session-path=" + session()});
    return install_.run(args, login.env);
  }

  // Each archive is here whole and gone from the source.
  void expectFetched(const RunResult& r) {
    const std::string record = session() + "/transfer.result";
    EXPECT_EQ(0, r.exitCode) << (fileExists(record) ? readFile(record) : r.err);
    for (const auto& archive : bytes_) {
      const std::string& name = archive.first, local = session() + "/" + name;
      EXPECT_TRUE(fileExists(local) && readFile(local) == archive.second)
          << name;
      EXPECT_FALSE(fileExists(agent_.file(name))) << name;
    }
  }

  std::string session() const { return install_.sessionPath(); }

  FerrowInstallation install_;
  ScriptedAgent agent_{install_, "cat contentlist.xml\n"};
  std::map<std::string, std::string> bytes_;  // by name, as put
};

struct Listing {
  const char* label;
  bool upperSum;
  bool sized;
};

void PrintTo(const Listing& listing, std::ostream* os) { *os << listing.label; }

class ListedContentTest : public ContentListBase,
                          public ::testing::WithParamInterface<Listing> {};

TEST_P(ListedContentTest, ArchiveListedAsTheDescriptionAllowsIsFetched) {
  std::string sum = put("a.tgz");
  if (GetParam().upperSum) {
    std::transform(sum.begin(), sum.end(), sum.begin(), ::toupper);
  }
  std::string files = entry("a.tgz", GetParam().sized, sum);
  expectFetched(getContent(files + entry("b.tgz", true, put("b.tgz"))));
}

INSTANTIATE_TEST_SUITE_P(Lists, ListedContentTest,
                         ::testing::Values(Listing{"UppercaseSum", true, true},
                                           Listing{"NoSize", false, false}),
                         [](const ::testing::TestParamInfo<Listing>& info) {
                           return std::string(info.param.label);
                         });

using StalledSourceTest = ContentListBase;

// The archive is a FIFO that the test feeds: 200000 bytes, a pause of a
// second, the rest. Closing it ends the fetch whatever happened.
TEST_F(StalledSourceTest, StatusShowsTheBytesReceivedWhileTheSourceStalls) {
  const std::string bytes = bytes_["stall.tgz"] = archiveBytes(kSize, 's');
  ASSERT_EQ(0, mkfifo(agent_.file("stall.tgz").c_str(), 0644));
  RunResult r;
  std::thread run([&] {
    r = getContent(entry("stall.tgz", true, tovel::countMd5Sum(bytes)));
  });
  int fd = -1;
  for (int round = 0; fd < 0 && round < 3000; ++round, usleep(10000)) {
    fd = open(agent_.file("stall.tgz").c_str(), O_WRONLY | O_NONBLOCK);
  }
  if (fd >= 0) fcntl(fd, F_SETFL, 0);
  bool fed = fd >= 0 && write(fd, bytes.data(), 200000) == 200000;
  // From the moment the 200000 bytes are on the disk until the status
  // shows them (100000 left of the file and of the whole list).
  struct stat local;
  const std::string path = session() + "/stall.tgz";
  for (int round = 0; fed && round < 3000; ++round, usleep(1000)) {
    if (stat(path.c_str(), &local) == 0 && local.st_size == 200000) break;
  }
  Clock::time_point stalled = Clock::now();
  const std::string status = session() + "/migration.status";
  bool shown = false;
  while (fed && !shown && Clock::now() < stalled + std::chrono::seconds(1)) {
    usleep(5000);
    shown = readFile(status).find("size-left=\"100000\"") != std::string::npos;
  }
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                Clock::now() - stalled).count();
  usleep(static_cast<useconds_t>(std::max<long>(0, 1000 - ms)) * 1000);
  fed = fed && write(fd, bytes.data() + 200000, 100000) == 100000;
  if (fd >= 0) close(fd);
  run.join();
  EXPECT_TRUE(fed);
  EXPECT_TRUE(shown) << "not saved within " << ms << " ms of the stall";
  EXPECT_LT(ms, 400) << "figures saved " << ms << " ms after the stall";
  RecordProperty("stale_ms", static_cast<int>(ms));
  expectFetched(r);
}

}  // namespace
}  // namespace ferrow_test
