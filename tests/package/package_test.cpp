// The Debian package: cpack builds it from this build tree, apt-get
// installs it on this machine, and the installed ferrow, its manual page,
// its completion and its example files work from their installed places.
// The package is purged again at the end, so the machine is left as it was
// (the other tests use the binary of the build tree).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "package/package_support.h"

namespace ferrow_test {
namespace {

namespace fs = boost::filesystem;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const char kExamples[] = "/usr/share/doc/ferrow/examples";

// apt and dpkg wait for each other's lock instead of failing at once.
const std::map<std::string, std::string> kAptEnv = {
    {"DEBIAN_FRONTEND", "noninteractive"}};
const char kLockWait[] = "DPkg::Lock::Timeout=300";

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> found;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) found.push_back(line);
  return found;
}

// The package that owns a library, as dpkg knows it: the path the loader
// found, or the same path with or without the /usr prefix (merged /usr).
std::string owningPackage(const std::string& library) {
  std::vector<std::string> candidates = {library};
  if (library.compare(0, 5, "/usr/") == 0) {
    candidates.push_back(library.substr(4));
  } else {
    candidates.push_back("/usr" + library);
  }
  candidates.push_back(fs::canonical(library).string());
  for (const std::string& path : candidates) {
    RunResult r = runProgram({"dpkg", "-S", path});
    if (r.exitCode == 0) return r.out.substr(0, r.out.find_first_of(":,"));
  }
  return "";
}

// The libraries that the binary names itself (not those of its libraries),
// with the paths the loader resolves them to.
std::map<std::string, std::string> neededLibraries(const std::string& binary) {
  RunResult dynamic = runProgram({"objdump", "-p", binary});
  RunResult resolved = runProgram({"ldd", binary});
  std::map<std::string, std::string> found;
  std::regex needed("^\\s*NEEDED\\s+(\\S+)");
  std::smatch m;
  for (const std::string& line : lines(dynamic.out)) {
    if (std::regex_search(line, m, needed)) found[m[1]] = "";
  }
  std::regex loaded("^\\s*(\\S+) => (\\S+)");
  for (const std::string& line : lines(resolved.out)) {
    if (std::regex_search(line, m, loaded) && found.count(m[1]))
      found[m[1]] = m[2];
  }
  return found;
}

// The installed binary runs with a product installation laid out from the
// example files: the logging set-up writes the session's log, and its
// console appender speaks only with --verbose.
void checkInstalledExamples() {
  FerrowInstallation fixture;
  std::string conf = readFile(std::string(kExamples) + "/dyr.conf");
  conf = std::regex_replace(conf, std::regex("PRODUCT_ROOT_D \\S+"),
                            "PRODUCT_ROOT_D " + fixture.productRoot());
  ASSERT_THAT(conf, HasSubstr(fixture.productRoot()));
  fixture.writeDyrConf(conf);
  fixture.writeLogProperties(
      readFile(std::string(kExamples) + "/log4cpp.properties"));
  RunOptions options;
  options.binds = {{fixture.etcDyr(), "/etc/dyr"}};

  const std::string session = fixture.sessionPath();
  RunResult quiet = runInNamespace(
      "/usr/bin/ferrow --remove-dumping-status --session-path " + session,
      options);
  EXPECT_EQ(quiet.exitCode, 0) << quiet.err;
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(quiet.err, "");
  std::string log = readFile(session + "/migration.log");
  EXPECT_THAT(log, HasSubstr("Ferrow started : /usr/bin/ferrow"));
  EXPECT_THAT(log, HasSubstr("Ferrow finished. Exit code: 0"));

  RunResult verbose = runInNamespace(
      "/usr/bin/ferrow --verbose --remove-dumping-status --session-path " +
          session,
      options);
  EXPECT_EQ(verbose.exitCode, 0) << verbose.err;
  EXPECT_THAT(verbose.out, HasSubstr("Ferrow finished. Exit code: 0"));
}

class DebPackageTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensurePanelAccount(); }

  void TearDown() override {
    RunResult purge = runProgram(
        {"apt-get", "purge", "-y", "-q", "-o", kLockWait, "ferrow"}, kAptEnv);
    EXPECT_EQ(purge.exitCode, 0) << purge.out << purge.err;
    EXPECT_FALSE(fileExists("/usr/bin/ferrow"));
    EXPECT_FALSE(fileExists(kExamples));
  }

  // Builds the package into out_ and returns its path.
  std::string buildPackage() {
    RunResult cpack =
        runProgram({"sh", "-c", "cd \"$1\" && exec cpack -G DEB -B \"$2\"",
                    "sh", FERROW_BUILD_DIR, out_.path()});
    EXPECT_EQ(cpack.exitCode, 0) << cpack.out << cpack.err;
    std::vector<std::string> debs;
    for (fs::directory_iterator it(out_.path()), end; it != end; ++it) {
      std::string name = it->path().filename().string();
      if (name.compare(0, 7, "ferrow_") == 0 &&
          it->path().extension() == ".deb") {
        debs.push_back(it->path().string());
      }
    }
    return debs.size() == 1 ? debs[0] : "";
  }

  std::string field(const std::string& deb, const std::string& name) {
    RunResult r = runProgram({"dpkg-deb", "-f", deb, name});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.out.substr(0, r.out.find_last_not_of('\n') + 1);
  }

  void install(const std::string& deb) {
    // --reinstall: a package of the same version may be installed already
    // (a run stopped before its clean-up); it is replaced all the same.
    RunResult apt = runProgram({"apt-get", "install", "-y", "-q", "--reinstall",
                                "--allow-downgrades", "-o", kLockWait, deb},
                               kAptEnv);
    ASSERT_EQ(apt.exitCode, 0) << apt.out << apt.err;
  }

  TempDir out_;
};

TEST_F(DebPackageTest, BuildInstallAndRunFromTheInstalledPaths) {
  std::string deb = buildPackage();
  ASSERT_NE(deb, "") << "no single ferrow_*.deb in " << out_.path();
  EXPECT_EQ(field(deb, "Package"), "ferrow");
  EXPECT_THAT(field(deb, "Version"), StartsWith(FERROW_VERSION));

  // Every library the binary links comes from a package it depends on.
  std::string depends = field(deb, "Depends");
  std::map<std::string, std::string> libraries = neededLibraries(FERROW_BINARY);
  ASSERT_GE(libraries.size(), 6u);
  for (const auto& library : libraries) {
    ASSERT_NE(library.second, "") << library.first << " not found by ldd";
    std::string package = owningPackage(library.second);
    ASSERT_NE(package, "") << library.second << " belongs to no package";
    // A dependency without a version (libasan8 of a sanitizer build) is
    // followed by "," or ends the field.
    EXPECT_THAT(depends, AnyOf(HasSubstr(package + " "),
                               HasSubstr(package + ","), EndsWith(package)))
        << library.first;
  }

  install(deb);
  RunResult status = runProgram({"dpkg-query", "-W", "-f=${Status}", "ferrow"});
  EXPECT_EQ(status.out, "install ok installed");

  // The installed binary, found through PATH, says what the built one says.
  RunResult installed = runProgram({"sh", "-c", "command -v ferrow"});
  EXPECT_EQ(installed.out, "/usr/bin/ferrow\n");
  RunResult help = runProgram({"/usr/bin/ferrow", "--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.out, runProgram({FERROW_BINARY, "--help"}).out);

  // man finds the page by name, compressed as Debian keeps it.
  RunResult where = runProgram({"man", "-w", "ferrow"});
  EXPECT_EQ(where.out, "/usr/share/man/man1/ferrow.1.gz\n");
  RunResult page = runProgram({"man", "ferrow"}, {{"MANWIDTH", "80"}});
  EXPECT_EQ(page.exitCode, 0) << page.err;
  EXPECT_THAT(page.out, HasSubstr("EXIT STATUS"));

  // bash-completion loads the completion on demand from its directory.
  RunResult loaded = runBash(
      "source /usr/share/bash-completion/bash_completion && "
      "_completion_loader ferrow; complete -p ferrow");
  EXPECT_EQ(loaded.out, "complete -F _ferrow ferrow\n") << loaded.err;

  for (const char* example :
       {"log4cpp.properties", "dyr.conf", "scout.pl",
        "agents/reference/agent.pl", "agents/reference/control/spec",
        "agents/shared/lib/Tovel/Agent/Files.pm"}) {
    EXPECT_TRUE(fileExists(std::string(kExamples) + "/" + example)) << example;
  }
  checkInstalledExamples();
}

}  // namespace
}  // namespace ferrow_test
