// The manual page ferrow(1): it renders cleanly and tells about everything
// a person can give or get from the binary.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "package/package_support.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;

const std::string kPage = std::string(FERROW_SOURCE_DIR) + "/man/ferrow.1";

// The page as man shows it, in plain ASCII and wide enough that no option
// is broken across lines.
std::string rendered() {
  static const std::string text = [] {
    RunResult r = runProgram({"man", "--warnings", "-l", kPage},
                             {{"LC_ALL", "C"}, {"MANWIDTH", "200"}});
    if (r.exitCode != 0 || !r.err.empty())
      throw std::runtime_error("man failed: " + r.err);
    return r.out;
  }();
  return text;
}

// The text of one section: from the line break after its heading to the
// next heading.
std::string section(const std::string& heading) {
  const std::string& text = rendered();
  std::string::size_type start = text.find("\n" + heading + "\n");
  if (start == std::string::npos) return "";
  std::smatch next;
  std::string rest = text.substr(start + heading.size() + 1);
  if (std::regex_search(rest, next, std::regex("\n[A-Z][A-Z ]+\n"))) {
    return rest.substr(0, next.position(0));
  }
  return rest;
}

TEST(ManPageTest, GroffFindsNothingToWarnAbout) {
  for (const char* device : {"-Tutf8", "-Tascii"}) {
    RunResult r = runProgram({"groff", "-ww", "-man", device, "-z", kPage});
    EXPECT_EQ(r.exitCode, 0) << device;
    EXPECT_EQ(r.err, "") << device;
  }
  // man itself, with its own checks and the preprocessors it picks.
  RunResult r = runProgram({"man", "--warnings=w", "-l", kPage},
                           {{"LC_ALL", "C.UTF-8"}, {"MANWIDTH", "80"}});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_THAT(r.out, HasSubstr("FERROW(1)"));
}

TEST(ManPageTest, HasTheUsualSections) {
  for (const char* heading :
       {"NAME", "SYNOPSIS", "DESCRIPTION", "ACTIONS", "OPTIONS", "ENVIRONMENT",
        "EXIT STATUS", "FILES", "EXAMPLES", "SEE ALSO"}) {
    EXPECT_NE(section(heading), "") << heading;
  }
  EXPECT_THAT(section("NAME"), HasSubstr("ferrow - "));
}

TEST(ManPageTest, NamesEveryOptionOfTheHelpText) {
  std::set<std::string> options = helpOptions(FERROW_BINARY);
  ASSERT_GT(options.size(), 25u);
  for (const std::string& option : options) {
    // As a word of its own: "--dump" inside "--dumps-dir" does not count.
    std::regex word("(^|[^-a-z])" + option + "([^-a-z]|$)");
    EXPECT_TRUE(std::regex_search(rendered(), word)) << option;
  }
}

TEST(ManPageTest, DescribesEveryOptionTheScannerAccepts) {
  // Including those the usage text keeps quiet about (--verbose,
  // --content-transport). An option with a value is shown with it.
  std::string options = section("ACTIONS") + section("OPTIONS");
  for (const auto& option : scannerOptions()) {
    std::string shown =
        "\n       --" + option.first + (option.second ? "=" : "");
    EXPECT_THAT(options, HasSubstr(shown)) << option.first;
  }
}

TEST(ManPageTest, EnvironmentAndExitStatus) {
  std::string environment = section("ENVIRONMENT");
  EXPECT_THAT(environment, HasSubstr("DYR_PASSWORD"));
  EXPECT_THAT(environment, HasSubstr("DYR_SUDO_PASSWORD"));

  std::string status = section("EXIT STATUS");
  std::set<int> codes;
  std::regex code("\n       ([0-9]+) ");
  for (std::sregex_iterator it(status.begin(), status.end(), code), end;
       it != end; ++it) {
    codes.insert(std::stoi((*it)[1]));
  }
  EXPECT_EQ(codes, (std::set<int>{0, 1, 2, 11, 12, 13, 14, 15, 16, 17, 18}));
}

TEST(ManPageTest, FilesOfTheSessionAndTheConfiguration) {
  std::string files = section("FILES");
  for (const char* name :
       {"/etc/dyr/dyr.conf", "PRODUCT_ROOT_D", "log4cpp.properties",
        "LOG_FILE_NAME", "migration.status", "migration.result",
        "transfer.result", "migration.log", "scout-result.xml",
        "agent-deployment.status", "dumping-status.xml", "dump.xml",
        "dump-name", "migration-result-name", "archives/",
        "/usr/share/doc/ferrow/examples/"}) {
    EXPECT_THAT(files, HasSubstr(name)) << name;
  }
}

TEST(ManPageTest, ExamplesRunAWholeSequence) {
  std::string examples = section("EXAMPLES");
  for (const char* step :
       {"--send-scout", "--deploy-agent", "--dump-all", "--get-dumping-status",
        "--get-content", "--dump-selected", "--remove-agent"}) {
    EXPECT_THAT(examples, HasSubstr("ferrow " + std::string(step))) << step;
  }
}

}  // namespace
}  // namespace ferrow_test
