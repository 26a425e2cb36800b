// The Debian package built by cpack, installed by apt-get: ferrow, its
// manual page and completion work from their places; purged at the end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "support/ferrow_runner.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// apt and dpkg wait for each other's lock instead of failing at once.
const std::map<std::string, std::string> kAptEnv = {
    {"DEBIAN_FRONTEND", "noninteractive"}};
const char kLockWait[] = "DPkg::Lock::Timeout=300";

TEST(DebPackageTest, BuildInstallRunAndPurge) {
  ensurePanelAccount();
  TempDir out;
  RunResult cpack =
      runCommand({"sh", "-c", "cd \"$1\" && exec cpack -G DEB -B \"$2\"", "sh",
                  FERROW_BUILD_DIR, out.path()});
  ASSERT_EQ(cpack.exitCode, 0) << cpack.out << cpack.err;
  RunResult found =
      runCommand({"sh", "-c", "echo \"$1\"/*.deb", "sh", out.path()});
  std::string deb = found.out.substr(0, found.out.size() - 1);
  ASSERT_TRUE(fileExists(deb)) << cpack.out;  // exactly one package
  RunResult version = runCommand({"dpkg-deb", "-f", deb, "Version"});
  EXPECT_THAT(version.out, StartsWith(FERROW_VERSION));

  // --reinstall: a run stopped before its clean-up may have left the same
  // version installed.
  RunResult apt = runCommand({"apt-get", "install", "-y", "-q", "--reinstall",
                              "--allow-downgrades", "-o", kLockWait, deb},
                             "", kAptEnv);
  ASSERT_EQ(apt.exitCode, 0) << apt.out << apt.err;

  EXPECT_EQ(runCommand({"sh", "-c", "command -v ferrow"}).out,
            "/usr/bin/ferrow\n");
  EXPECT_EQ(runCommand({"man", "-w", "ferrow"}).out,
            "/usr/share/man/man1/ferrow.1.gz\n");
  // bash-completion loads the completion on demand from its directory.
  RunResult loaded =
      runCommand({"bash", "-c",
                  "source /usr/share/bash-completion/bash_completion && "
                  "_completion_loader ferrow; complete -p ferrow"});
  EXPECT_EQ(loaded.out, "complete -F _ferrow ferrow\n") << loaded.err;

  // The installed binary runs with the installed example configuration.
  const std::string examples = "/usr/share/doc/ferrow/examples";
  FerrowInstallation fixture;
  fixture.writeLogProperties(readFile(examples + "/log4cpp.properties"));
  RunOptions options;
  options.binds = {{fixture.etcDyr(), "/etc/dyr"}};
  RunResult run =
      runInNamespace("/usr/bin/ferrow --remove-dumping-status --session-path " +
                         fixture.sessionPath(),
                     options);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out + run.err, "");
  EXPECT_THAT(readFile(fixture.sessionPath() + "/migration.log"),
              HasSubstr("Ferrow started : /usr/bin/ferrow"));

  RunResult purge = runCommand(
      {"apt-get", "purge", "-y", "-q", "-o", kLockWait, "ferrow"}, "", kAptEnv);
  EXPECT_EQ(purge.exitCode, 0) << purge.out << purge.err;
  EXPECT_FALSE(fileExists("/usr/bin/ferrow"));
  EXPECT_FALSE(fileExists(examples));
}

}  // namespace
}  // namespace ferrow_test
