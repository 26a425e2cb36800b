// The reference agent and scout of share/ as ferrow runs them on a source
// host; the rest of their work runs end to end in tests/cli.
#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <boost/algorithm/string.hpp>
#include <set>
#include <string>

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

TEST(ReferenceAgentTest, DumpsWhatTheArgumentsAndInputSelect) {
  // Laid out as --deploy-agent lays it out, agent.conf naming sample data.
  TempDir dir;
  auto file = [&](const std::string& name) { return dir.path() + "/" + name; };
  ReferenceSource::copyTree(kShare + "/agents/shared", dir.path());
  ReferenceSource::copyTree(kShare + "/agents/reference", dir.path());
  boost::filesystem::remove_all(file("control"));
  writeFile(file("agent.conf"), "source-root: " + kShare + "/sample-source\n");
  auto agent = [&](const std::string& args, const std::string& in) {
    return runInNamespace("cd " + dir.path() + " && perl agent.pl " + args, {},
                          in);
  };
  // Archives without ".tar.gz"; input lines in the order of the options.
  // clang-format off
  const struct { std::string args, input, objects, archives; } cases[] = {
      {"--migration-mode --dump-domains=- --include-app-distrib", "carol.test\n", "carol.test", "carol.test_mail,carol.test_web"},
      {"--dump-resellers=- --only-mail", "acme\n", "acme,bob,dave,dave.test,example.test,shop.example.test", "dave.test_mail,example.test_mail"},
      {"--dump-domains=- --dump-clients=- --no-compress", "dave.test\r\ncarol\n", "carol,carol.test,dave.test",
       "carol.test_mail.tar,carol.test_web.tar,dave.test_mail.tar"},
      {"--content-transport=rsync --migration-mode --dump-domains=- --no-content", "dest\nadmin\nrsync secret\n22\ndave.test\n", "dave.test", ""},
      {"--migration-mode --dump-all", "", "acme,bob,carol,carol.test,dave,dave.test,example.test,shop.example.test",
       "carol.test_mail,carol.test_web,dave.test_mail,example.test_mail,example.test_web,shop.example.test_web"},
  };
  // clang-format on
  const tovel::tExternalDtdDoc dtd(kShare +
                                   "/agents/reference/control/dump.dtd");
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
    EXPECT_EQ(texts(dump, "//archive"),
              texts(tovel::tXmlDocument(agent("--get-content-list", "").out),
                    "//file"));
  }
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
