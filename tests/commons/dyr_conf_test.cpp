#include "commons/dyr_conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

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
    ferrow_test::writeFile(dir_.path() + "/dyr.conf", text);
    return conf_read_file_r((dir_.path() + "/dyr.conf").c_str(), &conf_);
  }
  std::string get(const std::string& name) {
    const char* value = conf_get_r(name, &conf_);
    return value ? value : "<null>";
  }

  ferrow_test::TempDir dir_;
  conf_data conf_;
  HostLogCapture log_;
};

// Trailing white space (the newline included) loses its last character
// only when the run is of odd length.
TEST_F(ConfReaderTest, ParityRuleTrimsTrailingWhiteSpace) {
  const struct {
    const char* line;
    const char* name;
    const char* value;
  } cases[] = {
      {"# PRODUCT_ROOT_D /commented\n", "PRODUCT_ROOT_D", "<null>"},
      {"   # INDENTED comment\n\n  \t \n", "INDENTED", "<null>"},
      {"CLEAN /a b\n", "CLEAN", "/a b"},
      {"TWO_BLANKS /a b  \n", "TWO_BLANKS", "/a b  "},
      {"ONE_BLANK /a b \n", "ONE_BLANK", "/a b \n"},
      {"THREE_BLANKS x   \n", "THREE_BLANKS", "x   \n"},
      {"TAB x\t\n", "TAB", "x\t\n"},
      {"INNER   spaced \t value\n", "INNER", "spaced \t value"},
      {"COMMENTED val # note\n", "COMMENTED", "val"},
      {"COMMENTED2 val  # note\n", "COMMENTED2", "val  "},
      {"DUMP_D /first\nDUMP_D /second\n", "DUMP_D", "/second"},
      {"", "dump_d", "<null>"},
      {"  \tLAST value ", "LAST", "value"},  // no newline at the end
  };
  std::string text;
  for (const auto& c : cases) text += c.line;
  ASSERT_EQ(0, read(text));
  for (const auto& c : cases) EXPECT_EQ(c.value, get(c.name)) << c.line;
  EXPECT_EQ(10u, conf_.used);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ConfReaderTest, InvalidLinesAreLoggedAndSkipped) {
  ASSERT_EQ(0, read("PRODUCT_ROOT_D=/opt/x\n"
                    "HASHED   #value\n"
                    "EMPTY\n"
                    "BLANK \t \n"
                    "GOOD v#x\n"
                    "DANGLING"));
  EXPECT_EQ(1u, conf_.used);
  EXPECT_EQ("v", get("GOOD"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre("Invalid variable definition PRODUCT_ROOT_D=/opt/x"
                  "\n\nExpected a space after variable name",
                  "Invalid variable definition HASHED\nExpected a value",
                  "Invalid variable definition EMPTY\nExpected a value",
                  "Invalid variable definition BLANK\nExpected a value",
                  "Invalid variable definition DANGLING\n"
                  "Expected a space after variable name"));
}

TEST_F(ConfReaderTest, GrowsPastTwentyEntriesAndFindsEachSorted) {
  std::string text;
  for (int i = 44; i >= 0; --i) {
    text += "VAR_" + std::to_string(i) + " value" + std::to_string(i) + "\n";
  }
  ASSERT_EQ(0, read(text));
  EXPECT_EQ(45u, conf_.used);
  EXPECT_TRUE(conf_.finalized);
  for (int i = 0; i < 45; ++i) {
    EXPECT_EQ("value" + std::to_string(i), get("VAR_" + std::to_string(i)));
  }
  EXPECT_EQ("<null>", get("VAR_45"));
  conf_set_r("A_NEW", "first", &conf_);  // sorts before every other name
  EXPECT_EQ("first", get("A_NEW"));
  EXPECT_EQ("value0", get("VAR_0"));
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

TEST(DyrConfTest, DefaultsUntilTheFileIsReadThenCached) {
  ScratchConf conf;
  HostLogCapture log;
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kProductRootD));
  EXPECT_STREQ("/usr/local/dyr", dyrConfGetDefaultByIndex(kProductRootD));
  EXPECT_STREQ("/tmp", dyrConfGetDefault("DUMP_TMP_D"));
  ASSERT_EQ(3u, log.lines().size()) << "a missing file is retried";
  EXPECT_EQ("unable to open configuration file " + conf.path() +
                ": No such file or directory",
            log.lines()[0]);

  conf.write("HTTPD_VHOSTS_D /srv/sites\nCUSTOM_KEY custom\n");
  EXPECT_STREQ("/srv/sites", dyrConfGetDefaultByIndex(kHttpdVhostsD));
  EXPECT_STREQ("/usr/bin", dyrConfGetDefault("MYSQL_BIN_D"));
  EXPECT_STREQ("custom", dyrConfGet("CUSTOM_KEY"));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kDyrConfSlots));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(-1));
  conf.write("HTTPD_VHOSTS_D /elsewhere\nMYSQL_BIN_D /opt/mysql\n");
  EXPECT_STREQ("/srv/sites", dyrConfGetByIndex(kHttpdVhostsD));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kMysqlBinD));

  EXPECT_EQ(nullptr, dyrConfGetDefault("CUSTOM_KEY"));
  EXPECT_EQ(nullptr, dyrConfGetDefault("_MAX_POSSIBLE_DYR_CONF_VAR_NAME"));
  ASSERT_EQ(5u, log.lines().size());
  EXPECT_EQ("variable 'CUSTOM_KEY' isn't found neither in " + conf.path() +
                " nor in compile-time defaults",
            log.lines()[3]);
}

}  // namespace
}  // namespace tovel
