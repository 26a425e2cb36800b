// A remote program that floods ferrow with output: megabytes on standard
// error and on an output nobody reads. The run keeps draining both streams
// (no deadlock), its memory stays bounded, and the error it reports keeps
// the beginning and the end of what the program said.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/ferrow_runner.h"
#include "support/scripted_agent.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;

// 64 MiB on each stream at once, then a failure.
const char kFloodingAgent[] =
    "echo FIRST-ERROR-LINE >&2\n"
    "head -c 67108864 /dev/zero | tr '\\0' e >&2 &\n"
    "head -c 67108864 /dev/zero | tr '\\0' o &\n"
    "wait\n"
    "echo LAST-ERROR-LINE >&2\n"
    "exit 3\n";

// Well above what a run needs (about 14 MiB; more in a sanitizer build),
// below the 128 MiB it is sent.
const long kPeakMemoryLimitKiB = 96 * 1024;

TEST(OutputBoundsTest, FloodedDumpFailsWithBothEndsOfItsErrorsInBoundedMemory) {
  ensurePanelAccount();
  FerrowInstallation install;
  ScriptedAgent agent(install, kFloodingAgent);
  std::string peak = install.root() + "/peak-rss";
  install.setWrapper({"/usr/bin/time", "-f", "%M", "-o", peak});
  SourceLogin login = sourceLogin(rootAccount(), false);
  std::vector<std::string> args = withLogin(login, agent.args());
  args.insert(args.end(),
              {"--dump-all", "--session-path=" + install.sessionPath()});

  // A sanitizer build would otherwise hold freed memory back by the
  // hundred megabytes.
  std::map<std::string, std::string> env = login.env;
  env["ASAN_OPTIONS"] = "quarantine_size_mb=16";
  RunResult r = install.run(args, env);

  std::string record = readFile(install.sessionPath() + "/migration.result");
  EXPECT_EQ(2, r.exitCode) << r.err;
  EXPECT_EQ("Error during dump retrieval", r.err);
  // The record names the agent's failure with both ends of its errors.
  EXPECT_THAT(record, HasSubstr("FIRST-ERROR-LINE"));
  EXPECT_THAT(record, HasSubstr("LAST-ERROR-LINE"));
  EXPECT_THAT(record, HasSubstr(" bytes left out ...]"));
  EXPECT_LT(record.size(), 512u * 1024);
  // time(1) puts "Command exited with non-zero status 2" first.
  std::string times = readFile(peak);
  long peakKiB =
      std::stol(times.substr(times.rfind('\n', times.size() - 2) + 1));
  EXPECT_LT(peakKiB, kPeakMemoryLimitKiB);
  std::printf("peak resident memory of ferrow: %ld KiB\n", peakKiB);
}

}  // namespace
}  // namespace ferrow_test
