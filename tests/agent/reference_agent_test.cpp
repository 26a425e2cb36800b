// The reference agent and scout of share/, run here as ferrow runs them on a
// source host: what the dump arguments and input select, archives holding
// the domains' files, the dumping status and the scout's report. Deploy,
// fetch (listed sizes and sums) and removal run end to end in tests/cli.
#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <boost/algorithm/string.hpp>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/reference_source.h"
#include "xml/xml_dtd_xslt.h"
#include "xml/xml_xpath.h"

namespace ferrow_test {
namespace {

const std::string kShare = FERROW_SOURCE_DIR "/share";

// The values xpath selects in the document, sorted, joined by ",".
std::string texts(const tovel::tXmlDocument& doc, const std::string& xpath) {
  std::multiset<std::string> values;
  for (xmlNodePtr node : tovel::tXPathExpr(doc, xpath).getNodeSet()) {
    std::unique_ptr<xmlChar, void (*)(void*)> text(xmlNodeGetContent(node),
                                                   xmlFree);
    values.insert(reinterpret_cast<const char*>(text.get()));
  }
  return boost::join(values, ",");
}

// The agent laid out as --deploy-agent lays it out: the shared files, then
// its own without control/, and agent.conf naming the sample data.
class ReferenceAgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ReferenceSource::copyTree(kShare + "/agents/shared", dir_.path());
    ReferenceSource::copyTree(kShare + "/agents/reference", dir_.path());
    boost::filesystem::remove_all(file("control"));
    writeFile(file("agent.conf"),
              "source-root: " + kShare + "/sample-source\n");
  }
  std::string file(const std::string& name) const {
    return dir_.path() + "/" + name;
  }
  RunResult agent(const std::string& args, const std::string& in = "") {
    return runInNamespace("cd " + dir_.path() + " && perl agent.pl " + args, {},
                          in);
  }
  TempDir dir_;
};

TEST_F(ReferenceAgentTest, DumpsAndPacksWhatTheArgumentsAndInputSelect) {
  // Archives without ".tar.gz"; lines come in the order of the options, as
  // ferrow writes them.
  const struct {
    std::string args, input, objects, archives;
  } cases[] = {
      // clang-format off
      {"--migration-mode --dump-domains=- --include-app-distrib", "carol.test\n", "carol.test", "carol.test_mail,carol.test_web"},
      {"--dump-resellers=- --only-mail", "acme\n", "acme,bob,dave,dave.test,example.test,shop.example.test", "dave.test_mail,example.test_mail"},
      {"--dump-domains=- --dump-clients=- --no-compress", "dave.test\r\ncarol\n", "carol,carol.test,dave.test",
       "carol.test_mail.tar,carol.test_web.tar,dave.test_mail.tar"},
      {"--content-transport=rsync --migration-mode --dump-domains=- --no-content", "dest\nadmin\nrsync secret\n22\ndave.test\n", "dave.test", ""},
      {"--migration-mode --dump-all", "", "acme,bob,carol,carol.test,dave,dave.test,example.test,shop.example.test",
       "carol.test_mail,carol.test_web,dave.test_mail,example.test_mail,example.test_web,shop.example.test_web"},
      // clang-format on
  };
  EXPECT_EQ(1, agent("--get-content-list").exitCode);  // no dump yet
  const tovel::tExternalDtdDoc dtd(kShare +
                                   "/agents/reference/control/dump.dtd");
  std::string listed;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    RunResult r = agent(c.args, c.input);
    ASSERT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("", r.out + r.err);
    tovel::tXmlDocument dump(file("dump.xml").c_str());
    tovel::validateWithExternalDtd(dump, dtd);
    EXPECT_EQ(
        c.objects,
        texts(dump, "/*/reseller/@name | /*/client/@name | /*/domain/@name"));
    EXPECT_EQ(c.archives,
              boost::replace_all_copy(texts(dump, "//archive"), ".tar.gz", ""));
    EXPECT_EQ(std::string::npos, readFile(file("dump.xml")).find("secret"));
    listed =
        texts(tovel::tXmlDocument(agent("--get-content-list").out), "//file");
    EXPECT_EQ(texts(dump, "//archive"), listed);
  }
  // Each archive holds its domain's part only; no time in the gzip header,
  // so the same data keeps its sum.
  std::vector<std::string> archives;
  boost::split(archives, listed, boost::is_any_of(","));
  for (const std::string& name : archives) {
    std::string part = name.find("_web.") != name.npos ? "site" : "mail";
    TempDir unpacked;
    EXPECT_EQ(part + "\n 00 00 00 00\n",
              runInNamespace("cd " + unpacked.path() + " && tar -xf " +
                             file(name) + " && ls -A && diff -r " + part + " " +
                             kShare + "/sample-source/domains/" +
                             name.substr(0, name.rfind('_')) + "/" + part +
                             " && od -An -tx1 -j4 -N4 " + file(name))
                  .out)
        << name;
  }
}

TEST_F(ReferenceAgentTest, DumpingStatusFollowsTheDump) {
  writeFile(file("agent.conf"),
            readFile(file("agent.conf")) + "object-delay: 0.15\n");
  RunResult result;
  std::thread dump([&] { result = agent("--dump-all"); });
  // Every status document seen must parse: ferrow copies it at any time.
  std::string last, state;
  int completed = 0, midway = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (state != "finished" && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::string text = fileExists(file("dumping-status.xml"))
                           ? readFile(file("dumping-status.xml"))
                           : last;
    if (text == last) continue;
    tovel::tXmlDocument doc(last = text);
    state = texts(doc, "/dumping-status/@state");
    EXPECT_EQ("8", texts(doc, "//objects/@total"));
    int now = std::stoi(texts(doc, "//objects/@completed"));
    EXPECT_GE(now, completed);  // the count only grows
    completed = now;
    if (state == "dumping" && now > 0 && now < 8) {
      ++midway;
      EXPECT_NE("", texts(doc, "//current-object"));
    }
  }
  dump.join();
  ASSERT_EQ(0, result.exitCode) << result.err;
  EXPECT_EQ("finished|8", state + "|" + std::to_string(completed));
  EXPECT_GT(midway, 0) << "no status seen in the middle of the dump";
}

// The scout as ferrow runs it: "perl" reading the script on its standard
// input. It needs no root and prints not even a warning.
TEST(ScoutScriptTest, ReportsFactsOfThisHost) {
  RunResult r = runInNamespace("runuser -u nobody perl", {},
                               readFile(kShare + "/scout.pl"));
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(runInNamespace("printf '%s|nobody|Linux|' $(uname -n); perl -e "
                           "'printf q(%vd|3), $^V'")
                .out,
            tovel::tXPathExpr(
                tovel::tXmlDocument(r.out),
                "concat(/*/host/@name, '|', /*/user/@name, '|', /*/os/@name, "
                "'|', /*/perl/@version, '|', "
                "count(//module[@present='yes'][@name='Archive::Tar' or "
                "@name='Digest::MD5' or @name='IO::Compress::Gzip']))")
                .str());
}

}  // namespace
}  // namespace ferrow_test
