// The scout as ferrow runs it: a "perl" reading the script on its standard
// input, printing its report of the host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "agent/agent_fixture.h"

namespace ferrow_test {
namespace {

RunResult runScout(const std::string& user = "") {
  tovel::ExecCmd perl("perl");
  perl.setInput(readFile(shareDir() + "/scout.pl"));
  perl.setUser(user);
  RunResult result;
  result.exitCode = perl.execCmdLine();
  result.out = perl.getOutput();
  result.err = perl.getErrors();
  return result;
}

TEST(ScoutScriptTest, ReportsFactsOfThisHost) {
  RunResult r = runScout();
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");  // not even a warning
  tovel::tXmlDocument report(r.out);
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  EXPECT_EQ(xpathString(report, "/scout-result/host/@name"), host);
  EXPECT_EQ(xpathString(report, "/scout-result/user/@uid"), "0");
  EXPECT_EQ(xpathString(report, "/scout-result/user/@name"), "root");
  EXPECT_EQ(xpathString(report, "/scout-result/os/@name"), "Linux");
  EXPECT_EQ(xpathString(report, "/scout-result/cpus/@count"),
            std::to_string(sysconf(_SC_NPROCESSORS_CONF)));
  EXPECT_GT(std::stoll(xpathString(report, "//memory/@total-kb")), 0);
  EXPECT_EQ(xpathString(report, "//filesystem[@mount='/']/@mount"), "/");
  EXPECT_EQ(xpathString(report, "//addresses/address[.='127.0.0.1']"),
            "127.0.0.1");

  RunResult perl = runProgram("perl", {"-e", "printf '%vd', $^V"});
  EXPECT_EQ(xpathString(report, "/scout-result/perl/@version"), perl.out);
  // What the reference agent needs is reported present.
  for (const char* module :
       {"Archive::Tar", "IO::Compress::Gzip", "Digest::MD5", "Getopt::Long"})
    EXPECT_EQ(xpathString(report, std::string("//module[@name='") + module +
                                      "']/@present"),
              "yes")
        << module;
  EXPECT_EQ(xpathString(report, "//program[@name='sh']/@path").empty(), false);
}

TEST(ScoutScriptTest, NeedsNoRoot) {
  RunResult r = runScout("nobody");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  tovel::tXmlDocument report(r.out);
  EXPECT_EQ(xpathString(report, "/scout-result/user/@name"), "nobody");
  EXPECT_NE(xpathString(report, "/scout-result/user/@uid"), "0");
}

}  // namespace
}  // namespace ferrow_test
