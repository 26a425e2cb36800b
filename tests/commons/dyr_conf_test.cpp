#include "commons/dyr_conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "commons/product_paths.h"
#include "commons_test_util.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using testing::ElementsAre;
using testing_util::HostLogCapture;
using testing_util::ScratchConf;

// Reads text as a configuration file into a fresh record.
class ConfReaderTest : public testing::Test {
 protected:
  ConfReaderTest() { conf_init_r(&conf_); }
  ~ConfReaderTest() override { conf_free_r(&conf_); }

  int read(const std::string& text) {
    std::string path = dir_.path() + "/dyr.conf";
    ferrow_test::writeFile(path, text);
    return conf_read_file_r(path.c_str(), &conf_);
  }
  std::string get(const std::string& name) {
    const char* value = conf_get_r(name, &conf_);
    return value ? value : "<null>";
  }

  ferrow_test::TempDir dir_;
  conf_data conf_;
  HostLogCapture log_;
};

TEST_F(ConfReaderTest, OddTrailingWhiteSpaceLosesOneCharacter) {
  ASSERT_EQ(0, read("CLEAN /a b\n"
                    "TWO_BLANKS /a b  \n"
                    "ONE_BLANK /a b \n"
                    "THREE_BLANKS x   \n"
                    "TAB x\t\n"
                    "INNER   spaced \t value\n"
                    "COMMENTED val # note\n"
                    "COMMENTED2 val  # note\n"
                    "LAST no newline"));
  EXPECT_EQ("/a b", get("CLEAN"));
  EXPECT_EQ("/a b  ", get("TWO_BLANKS"));
  EXPECT_EQ("/a b \n", get("ONE_BLANK"));
  EXPECT_EQ("x   \n", get("THREE_BLANKS"));
  EXPECT_EQ("x\t\n", get("TAB"));
  EXPECT_EQ("spaced \t value", get("INNER"));
  EXPECT_EQ("val", get("COMMENTED"));
  EXPECT_EQ("val  ", get("COMMENTED2"));
  EXPECT_EQ("no newline", get("LAST"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ConfReaderTest, SingleBlankAtEndOfFileIsDropped) {
  ASSERT_EQ(0, read("  \tINDENTED value "));
  EXPECT_EQ("value", get("INDENTED"));
}

TEST_F(ConfReaderTest, CommentsAndBlankLinesAreSkipped) {
  ASSERT_EQ(0, read("# PRODUCT_ROOT_D /commented\n"
                    "   # INDENTED comment\n"
                    "\n"
                    "  \t \n"
                    "KEPT yes\n"));
  EXPECT_EQ(1u, conf_.used);
  EXPECT_EQ("yes", get("KEPT"));
  EXPECT_EQ("<null>", get("PRODUCT_ROOT_D"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ConfReaderTest, NameMustBeFollowedBySpace) {
  ASSERT_EQ(0, read("PRODUCT_ROOT_D=/opt/x\n"
                    "GOOD 1\n"
                    "DANGLING"));
  EXPECT_EQ(1u, conf_.used);
  EXPECT_EQ("1", get("GOOD"));
  EXPECT_THAT(log_.lines(),
              ElementsAre("Invalid variable definition PRODUCT_ROOT_D=/opt/x"
                          "\n\nExpected a space after variable name",
                          "Invalid variable definition DANGLING\n"
                          "Expected a space after variable name"));
}

TEST_F(ConfReaderTest, ValueMustNotBeMissingOrStartWithHash) {
  ASSERT_EQ(0, read("HASHED   #value\n"
                    "EMPTY\n"
                    "BLANK \t \n"
                    "GOOD v#x\n"));
  EXPECT_EQ(1u, conf_.used);
  EXPECT_EQ("v", get("GOOD"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre("Invalid variable definition HASHED\nExpected a value",
                  "Invalid variable definition EMPTY\nExpected a value",
                  "Invalid variable definition BLANK\nExpected a value"));
}

TEST_F(ConfReaderTest, LaterDefinitionWins) {
  ASSERT_EQ(0, read("DUMP_D /first\nOTHER o\nDUMP_D /second\n"));
  EXPECT_EQ(2u, conf_.used);
  EXPECT_EQ("/second", get("DUMP_D"));
  EXPECT_EQ("<null>", get("dump_d"));
}

TEST_F(ConfReaderTest, GrowsPastTwentyEntries) {
  EXPECT_EQ(20u, conf_.capacity);
  std::string text;
  for (int i = 0; i < 45; ++i) {
    text += "VAR_" + std::to_string(i) + " value" + std::to_string(i) + "\n";
  }
  ASSERT_EQ(0, read(text));
  EXPECT_EQ(45u, conf_.used);
  EXPECT_EQ(80u, conf_.capacity);
  EXPECT_TRUE(conf_.finalized);
  for (int i = 0; i < 45; ++i) {
    EXPECT_EQ("value" + std::to_string(i), get("VAR_" + std::to_string(i)));
  }
}

TEST_F(ConfReaderTest, UnreadableFiles) {
  std::string missing = dir_.path() + "/missing.conf";
  EXPECT_EQ(-1, conf_read_file_r(missing.c_str(), &conf_));
  // A directory opens but cannot be read.
  EXPECT_EQ(-1, conf_read_file_r(dir_.path().c_str(), &conf_));
  EXPECT_THAT(log_.lines(),
              ElementsAre("unable to open configuration file " + missing +
                              ": No such file or directory",
                          "Unable to read configuration file: Is a directory"));
}

// Linear search finds entries in any order; once finalized the entries are
// sorted and looked up by bisection, which relies on that order.
TEST(ConfRecordTest, LinearUntilFinalizedThenBinary) {
  conf_data conf;
  ASSERT_EQ(0, conf_init_r(&conf));
  conf_set_r("c", "3", &conf);
  conf_set_r("b", "2", &conf);
  conf_set_r("a", "1", &conf);
  EXPECT_FALSE(conf.finalized);
  EXPECT_STREQ("1", conf_get_r("a", &conf));
  EXPECT_STREQ("3", conf_get_r("c", &conf));

  conf.finalized = true;  // unsorted but claimed sorted: bisection misses
  EXPECT_EQ(nullptr, conf_get_r("a", &conf));

  conf.finalized = false;
  conf_finalize_r(&conf);
  EXPECT_TRUE(conf.finalized);
  EXPECT_EQ("a", conf.entries[0].name);
  EXPECT_EQ("c", conf.entries[2].name);
  EXPECT_STREQ("1", conf_get_r("a", &conf));
  EXPECT_STREQ("2", conf_get_r("b", &conf));
  EXPECT_STREQ("3", conf_get_r("c", &conf));
  EXPECT_EQ(nullptr, conf_get_r("d", &conf));

  conf_set_r("b", "two", &conf);  // replacing keeps the order
  EXPECT_TRUE(conf.finalized);
  EXPECT_STREQ("two", conf_get_r("b", &conf));
  conf_set_r("0", "zero", &conf);  // a new name may break it
  EXPECT_FALSE(conf.finalized);
  EXPECT_STREQ("zero", conf_get_r("0", &conf));

  conf_free_r(&conf);
  EXPECT_EQ(0u, conf.used);
  EXPECT_EQ(nullptr, conf_get_r("a", &conf));
}

TEST(DyrConfTest, TableIsIndexedByName) {
  EXPECT_STREQ("PRODUCT_ROOT_D", theDyrConfNames[kProductRootD]);
  EXPECT_STREQ("/usr/local/dyr", theDyrConfDefauls[kProductRootD]);
  EXPECT_STREQ("DUMP_TMP_D", theDyrConfNames[kDumpTmpD]);
  EXPECT_STREQ("HTTPD_VHOSTS_D", theDyrConfNames[kHttpdVhostsD]);
  EXPECT_STREQ("_MAX_POSSIBLE_DYR_CONF_VAR_VALUE",
               theDyrConfDefauls[kMaxPossibleDyrConfVar]);
}

TEST(DyrConfTest, MissingFileFallsBackToDefaultsAndIsRetried) {
  ScratchConf conf;
  HostLogCapture log;
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kProductRootD));
  EXPECT_STREQ("/usr/local/dyr", dyrConfGetDefaultByIndex(kProductRootD));
  EXPECT_STREQ("/tmp", dyrConfGetDefault("DUMP_TMP_D"));
  EXPECT_EQ(nullptr, dyrConfGet("PRODUCT_ROOT_D"));
  ASSERT_EQ(4u, log.lines().size());
  EXPECT_EQ("unable to open configuration file " + conf.path() +
                ": No such file or directory",
            log.lines()[0]);

  conf.write("PRODUCT_ROOT_D /opt/product\n");
  EXPECT_STREQ("/opt/product", dyrConfGetByIndex(kProductRootD));
  EXPECT_STREQ("/opt/product", dyrConfGet("PRODUCT_ROOT_D"));
  EXPECT_EQ(4u, log.lines().size());
}

TEST(DyrConfTest, FileValueWinsAndIsCached) {
  ScratchConf conf;
  conf.write("HTTPD_VHOSTS_D /home/vhosts\nCUSTOM_KEY custom\n");
  EXPECT_EQ(nullptr, theDyrConfArray[kHttpdVhostsD]);
  EXPECT_STREQ("/home/vhosts", dyrConfGetDefaultByIndex(kHttpdVhostsD));
  EXPECT_STREQ("/home/vhosts", theDyrConfArray[kHttpdVhostsD]);
  EXPECT_STREQ("/home/vhosts", dyrConfGetDefault("HTTPD_VHOSTS_D"));
  EXPECT_STREQ("/usr/bin", dyrConfGetDefault("MYSQL_BIN_D"));
  EXPECT_STREQ("custom", dyrConfGet("CUSTOM_KEY"));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kMysqlBinD));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kDyrConfSlots));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(-1));

  // Loaded once per process: later edits of the file are not seen.
  conf.write("HTTPD_VHOSTS_D /elsewhere\nMYSQL_BIN_D /opt/mysql\n");
  EXPECT_STREQ("/home/vhosts", dyrConfGetByIndex(kHttpdVhostsD));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kMysqlBinD));
}

TEST(DyrConfTest, UnknownNameIsLogged) {
  ScratchConf conf;
  conf.write("CUSTOM_KEY custom\n");
  HostLogCapture log;
  EXPECT_EQ(nullptr, dyrConfGetDefault("CUSTOM_KEY"));
  EXPECT_EQ(nullptr, dyrConfGetDefault("_MAX_POSSIBLE_DYR_CONF_VAR_NAME"));
  EXPECT_THAT(log.lines(),
              ElementsAre("variable 'CUSTOM_KEY' isn't found neither in " +
                              conf.path() + " nor in compile-time defaults",
                          "variable '_MAX_POSSIBLE_DYR_CONF_VAR_NAME' isn't "
                          "found neither in " +
                              conf.path() + " nor in compile-time defaults"));
}

TEST(ProductPathsTest, DefaultsWithoutConfigurationFile) {
  ScratchConf conf;
  EXPECT_EQ("/usr/local/dyr", files::getProductDir());
  EXPECT_EQ("/usr/local/dyr/QVT", files::getQvtDir());
  EXPECT_EQ("/usr/local/dyr/QVT/log4cpp.properties",
            files::getQvtLogConfigFileName());
  EXPECT_EQ("/usr/local/dyr/QVT/scout.pl", files::getScoutFileName());
  EXPECT_EQ("/usr/local/dyr/QVT/agents", files::agents::getDir());
  EXPECT_EQ("/usr/local/dyr/QVT/tmp", files::getTmpDir());
  EXPECT_EQ("/usr/local/dyr/admin/sbin/libxml-proxy",
            files::getLibxmlProxyFileName());
  EXPECT_EQ("dumping-status.xml", files::getRemoteDumpingStatusFileName());
  EXPECT_EQ("/srv/www/vhosts", files::getVhostsDir());
  EXPECT_EQ("/var/qmail/mailnames", files::getMailDir());
  EXPECT_EQ("/usr/bin", files::getMysqlBinDir());
  EXPECT_EQ("/usr/bin", files::getPgsqlBinDir());
  EXPECT_EQ("/var/lib/mailman", files::getMailmanVarDir());
}

TEST(ProductPathsTest, FollowConfiguredProductRoot) {
  ScratchConf conf;
  conf.write("PRODUCT_ROOT_D /opt/dyr\nPGSQL_BIN_D /opt/pg/bin\n");
  EXPECT_EQ("/opt/dyr/QVT/agents", files::agents::getDir());
  EXPECT_EQ("/opt/dyr/QVT/scout.pl", files::getScoutFileName());
  EXPECT_EQ("/opt/dyr/QVT/log4cpp.properties",
            files::getQvtLogConfigFileName());
  EXPECT_EQ("/opt/dyr/admin/sbin/libxml-proxy",
            files::getLibxmlProxyFileName());
  EXPECT_EQ("/opt/pg/bin", files::getPgsqlBinDir());
}

TEST(ProductPathsTest, RejectedLineLeavesDefault) {
  ScratchConf conf;
  conf.write("PRODUCT_ROOT_D=/opt/x\n");
  HostLogCapture log;
  EXPECT_EQ("/usr/local/dyr/QVT/scout.pl", files::getScoutFileName());
  EXPECT_EQ(1u, log.lines().size());
}

}  // namespace
}  // namespace tovel
