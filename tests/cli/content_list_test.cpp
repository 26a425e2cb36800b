// "--get-content" takes the content list at its word (end to end): a sum in
// capital hex is the same sum, an archive without a size is fetched whole,
// and "migration.status" keeps up with a source that stalls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/case_conv.hpp>
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
using namespace std::chrono_literals;
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
    for (const auto& [name, bytes] : bytes_) {
      std::string local = session() + "/" + name;
      EXPECT_TRUE(fileExists(local) && readFile(local) == bytes) << name;
      EXPECT_FALSE(fileExists(agent_.file(name))) << name;
    }
  }

  std::string session() const { return install_.sessionPath(); }

  FerrowInstallation install_;
  ScriptedAgent agent_{install_, "cat contentlist.xml\n"};
  std::map<std::string, std::string> bytes_;  // by name, as put
};

class ListedContentTest : public ContentListBase,
                          public ::testing::WithParamInterface<std::string> {};

// Archive a.tgz listed with its sum in capitals, or without a size; b.tgz
// listed in full beside it.
TEST_P(ListedContentTest, ArchiveListedAsTheDescriptionAllowsIsFetched) {
  std::string sum = put("a.tgz");
  bool upper = GetParam() == "UppercaseSum";
  if (upper) boost::to_upper(sum);
  std::string files = entry("a.tgz", upper, sum);
  expectFetched(getContent(files + entry("b.tgz", true, put("b.tgz"))));
}

INSTANTIATE_TEST_SUITE_P(Lists, ListedContentTest,
                         ::testing::Values("UppercaseSum", "NoSize"),
                         [](const ::testing::TestParamInfo<std::string>& i) {
                           return i.param;
                         });

using StalledSourceTest = ContentListBase;

// The archive is a FIFO that the test feeds: 200000 bytes, a pause of a
// second, the rest. Closing it ends the fetch whatever happened.
TEST_F(StalledSourceTest, StatusShowsTheBytesReceivedWhileTheSourceStalls) {
  const std::string bytes = bytes_["stall.tgz"] = archiveBytes(kSize, 's');
  const std::string fifo = agent_.file("stall.tgz");
  const std::string local = session() + "/stall.tgz";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
  RunResult r;
  std::thread run([&] {
    r = getContent(entry("stall.tgz", true, tovel::countMd5Sum(bytes)));
  });
  int fd = -1;
  for (int i = 0; fd < 0 && i < 3000; ++i, usleep(10000)) {
    fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
  }
  bool fed = fd >= 0 && fcntl(fd, F_SETFL, 0) == 0 &&
             write(fd, bytes.data(), 200000) == 200000;
  // Stalled from the moment the 200000 bytes are on the disk: the status
  // must show them (100000 left) long before the pause ends.
  struct stat st;
  for (int i = 0; fed && i < 3000; ++i, usleep(1000)) {
    if (stat(local.c_str(), &st) == 0 && st.st_size == 200000) break;
  }
  Clock::time_point stalled = Clock::now();
  for (bool shown = !fed; !shown && Clock::now() < stalled + 1s;) {
    usleep(5000);
    shown = readFile(session() + "/migration.status")
                .find("size-left=\"100000\"") != std::string::npos;
  }
  long ms = (Clock::now() - stalled) / 1ms;
  if (ms < 1000) usleep(static_cast<useconds_t>(1000 - ms) * 1000);
  fed = fed && write(fd, bytes.data() + 200000, 100000) == 100000;
  if (fd >= 0) close(fd);
  run.join();
  EXPECT_TRUE(fed);
  EXPECT_LT(ms, 400) << "figures not saved within " << ms << " ms";
  expectFetched(r);
}

}  // namespace
}  // namespace ferrow_test
