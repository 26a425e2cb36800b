// The reference agent and scout of share/, run here as ferrow runs them on a
// source host: what the dump arguments and input select, the content list
// with true sizes and sums, archives holding the domains' files, the
// dumping status and the scout's report.
#include <gtest/gtest.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "commons/checksum.h"
#include "commons/exec_cmd.h"
#include "support/ferrow_runner.h"
#include "support/reference_source.h"
#include "xml/agent_file_list.h"
#include "xml/xml_dtd_xslt.h"
#include "xml/xml_xpath.h"

namespace ferrow_test {
namespace {

const std::string kShare = FERROW_SOURCE_DIR "/share";

RunResult run(const std::vector<std::string>& args,
              const std::string& input = "", const std::string& user = "") {
  tovel::ExecCmd cmd(args[0]);
  for (size_t i = 1; i < args.size(); ++i) cmd << args[i];
  cmd.setInput(input);
  cmd.setUser(user);
  RunResult result;
  result.exitCode = cmd.execCmdLine();
  result.out = cmd.getOutput();
  result.err = cmd.getErrors();
  return result;
}

std::string joined(const std::multiset<std::string>& values) {
  std::string text;
  for (const std::string& v : values) text += (text.empty() ? "" : ",") + v;
  return text;
}

// The values xpath selects in the document, sorted, joined by ",".
std::string texts(const tovel::tXmlDocument& doc, const std::string& xpath) {
  std::multiset<std::string> values;
  for (xmlNodePtr node : tovel::tXPathExpr(doc, xpath).getNodeSet()) {
    std::unique_ptr<xmlChar, void (*)(void*)> text(xmlNodeGetContent(node),
                                                   xmlFree);
    values.insert(reinterpret_cast<const char*>(text.get()));
  }
  return joined(values);
}

// The agent laid out as --deploy-agent lays it out: the shared files, then
// its own without control/, and agent.conf naming the sample data.
class DeployedAgent {
 public:
  explicit DeployedAgent(const std::string& settings = "") {
    ReferenceSource::copyTree(kShare + "/agents/shared", dir());
    ReferenceSource::copyTree(kShare + "/agents/reference", dir());
    boost::filesystem::remove_all(file("control"));
    writeFile(file("agent.conf"),
              "source-root: " + kShare + "/sample-source\n" + settings);
  }
  const std::string& dir() const { return dir_.path(); }
  std::string file(const std::string& name) const { return dir() + "/" + name; }
  RunResult agent(std::vector<std::string> args,
                  const std::string& input = "") const {
    args.insert(args.begin(), {"perl", file("agent.pl")});
    return run(args, input);
  }

 private:
  TempDir dir_;
};

TEST(ReferenceAgentTest, DumpsAndPacksWhatTheArgumentsAndInputSelect) {
  const struct {
    std::vector<std::string> args;
    std::string input, objects, archives;
  } cases[] = {
      {{"--migration-mode", "--dump-domains=-", "--include-app-distrib"},
       "carol.test\n",
       "carol.test",
       "carol.test_mail.tar.gz,carol.test_web.tar.gz"},
      {{"--dump-clients=-"},
       "bob\n",
       "bob,example.test,shop.example.test",
       "example.test_mail.tar.gz,example.test_web.tar.gz,"
       "shop.example.test_web.tar.gz"},
      {{"--dump-resellers=-", "--only-mail"},
       "acme\n",
       "acme,bob,dave,dave.test,example.test,shop.example.test",
       "dave.test_mail.tar.gz,example.test_mail.tar.gz"},
      // Lines come in the order of the options, as ferrow writes them.
      {{"--dump-domains=-", "--dump-clients=-", "--no-compress"},
       "dave.test\r\ncarol\n",
       "carol,carol.test,dave.test",
       "carol.test_mail.tar,carol.test_web.tar,dave.test_mail.tar"},
      {{"--content-transport=rsync", "--migration-mode", "--dump-domains=-",
        "--no-content"},
       "dest\nadmin\nrsync secret\n22\ndave.test\n",
       "dave.test",
       ""},
      {{"--migration-mode", "--dump-all"},
       "",
       "acme,bob,carol,carol.test,dave,dave.test,example.test,"
       "shop.example.test",
       "carol.test_mail.tar.gz,carol.test_web.tar.gz,dave.test_mail.tar.gz,"
       "example.test_mail.tar.gz,example.test_web.tar.gz,"
       "shop.example.test_web.tar.gz"},
  };
  DeployedAgent agent;
  EXPECT_EQ(1, agent.agent({"--get-content-list"}).exitCode);  // no dump yet
  std::unique_ptr<tovel::AgentFileList> list;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.front());
    RunResult r = agent.agent(c.args, c.input);
    ASSERT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("", r.out + r.err);
    tovel::tXmlDocument dump(agent.file("dump.xml").c_str());
    tovel::validateWithExternalDtd(
        dump,
        tovel::tExternalDtdDoc(kShare + "/agents/reference/control/dump.dtd"));
    EXPECT_EQ(
        c.objects,
        texts(dump, "/*/reseller/@name | /*/client/@name | /*/domain/@name"));
    EXPECT_EQ(c.archives, texts(dump, "//archive"));
    EXPECT_EQ(std::string::npos,
              readFile(agent.file("dump.xml")).find("secret"));
    list = tovel::getFileList(agent.agent({"--get-content-list"}).out);
    std::multiset<std::string> listed;
    for (const tovel::DumpFile& f : list->getFileList()) listed.insert(f.name);
    EXPECT_EQ(c.archives, joined(listed));
  }
  // True sizes and sums, each archive holding its domain's part only.
  int64_t total = 0;
  for (const tovel::DumpFile& file : list->getFileList()) {
    SCOPED_TRACE(file.name);
    struct stat st;
    ASSERT_EQ(0, stat(agent.file(file.name).c_str(), &st));  // a bare name
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), file.size);
    std::ifstream in(agent.file(file.name), std::ios::binary);
    EXPECT_EQ(tovel::countMd5Sum(in), file.md5sum);
    total += st.st_size;
    std::string domain = file.name.substr(0, file.name.rfind('_'));
    std::string part =
        file.name.find("_web.") != file.name.npos ? "site" : "mail";
    TempDir unpacked;
    run({"tar", "-xf", agent.file(file.name), "-C", unpacked.path()});
    EXPECT_EQ(part + "\n", run({"ls", "-A", unpacked.path()}).out);
    EXPECT_EQ(0, run({"diff", "-r", unpacked.path() + "/" + part,
                      kShare + "/sample-source/domains/" + domain + "/" + part})
                     .exitCode);
    // No time in the gzip header: the same data keeps its sum.
    EXPECT_EQ(std::string(4, '\0'),
              readFile(agent.file(file.name)).substr(4, 4));
  }
  EXPECT_EQ(total, list->getTotalSize());
}

TEST(ReferenceAgentTest, DumpingStatusFollowsTheDump) {
  DeployedAgent agent("object-delay: 0.15\n");
  RunResult result;
  std::thread dump([&] { result = agent.agent({"--dump-all"}); });
  // Every status document seen must parse: ferrow copies it at any time.
  std::string last, state;
  int completed = 0, midway = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (state != "finished" && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::string text = fileExists(agent.file("dumping-status.xml"))
                           ? readFile(agent.file("dumping-status.xml"))
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
  EXPECT_EQ("finished", state);
  EXPECT_EQ(8, completed);
  EXPECT_GT(midway, 0) << "no status seen in the middle of the dump";
  // An unknown name fails the dump, and the status says why.
  EXPECT_EQ(1, agent.agent({"--dump-domains=-"}, "nope.test\n").exitCode);
  tovel::tXmlDocument failed(agent.file("dumping-status.xml").c_str());
  EXPECT_EQ("failed|Unknown domain 'nope.test'",
            texts(failed, "/dumping-status/@state") + "|" +
                texts(failed, "/dumping-status/error"));
}

// The scout as ferrow runs it: "perl" reading the script on its standard
// input. It needs no root.
TEST(ScoutScriptTest, ReportsFactsOfThisHost) {
  RunResult r = run({"perl"}, readFile(kShare + "/scout.pl"), "nobody");
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ("", r.err);  // not even a warning
  tovel::tXmlDocument report(r.out);
  char host[256] = {};
  ASSERT_EQ(0, gethostname(host, sizeof host - 1));
  EXPECT_EQ(std::string(host) + "|nobody|Linux|" +
                run({"perl", "-e", "printf '%vd', $^V"}).out + "|yes,yes,yes",
            texts(report, "/scout-result/host/@name") + "|" +
                texts(report, "/scout-result/user/@name") + "|" +
                texts(report, "/scout-result/os/@name") + "|" +
                texts(report, "/scout-result/perl/@version") + "|" +
                texts(report,
                      "//module[@name='Archive::Tar' or "
                      "@name='Digest::MD5' or "
                      "@name='IO::Compress::Gzip']/@present"));
}

}  // namespace
}  // namespace ferrow_test
