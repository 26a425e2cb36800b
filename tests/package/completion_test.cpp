// Bash completion of ferrow's options, run the way bash runs it: the
// completion function over the words of a half-typed command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <set>
#include <sstream>
#include <string>

#include "commons/sh_quote.h"
#include "package/package_support.h"

namespace ferrow_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

const std::string kCompletion =
    std::string(FERROW_SOURCE_DIR) + "/share/completion/ferrow";

// $1: the completion file, $2: the command line up to the cursor. The line
// is cut into words as bash does with its default COMP_WORDBREAKS for these
// cases (blanks, and "=" as a word of its own); the function then runs as
// bash would call it. compopt only works inside a real completion, so it
// is recorded instead.
const char kCompleteScript[] = R"(
source /usr/share/bash-completion/bash_completion || exit 1
source "$1" || exit 1
compopt() { printf 'compopt %s\n' "$*" >&2; }
COMP_LINE=$2
COMP_POINT=${#COMP_LINE}
words=$(printf '%s' "$COMP_LINE" | sed 's/=/\n=\n/g; s/ \{1,\}/\n/g')
mapfile -t COMP_WORDS <<<"$words"
[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
complete -p ferrow >/dev/null || exit 1
COMPREPLY=()
_ferrow ferrow "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
printf '%s\n' "${COMPREPLY[@]}"
)";

struct Completion {
  std::set<std::string> candidates;
  std::string options;  // what compopt was asked for
};

Completion complete(const std::string& line, const RunOptions& options = {}) {
  RunResult r;
  if (options.binds.empty()) {
    r = runBash(kCompleteScript, {kCompletion, line});
  } else {
    // In a private namespace, where /etc/dyr can be a fixture.
    r = runInNamespace("exec bash -c " + tovel::sh_quote(kCompleteScript) +
                           " bash " + tovel::sh_quote(kCompletion) + " " +
                           tovel::sh_quote(line),
                       options);
  }
  EXPECT_EQ(r.exitCode, 0) << line << ": " << r.err;
  Completion c;
  std::istringstream out(r.out);
  for (std::string word; std::getline(out, word);) {
    if (!word.empty()) c.candidates.insert(word);
  }
  c.options = r.err;
  return c;
}

TEST(CompletionTest, OffersEveryOptionOfTheHelpText) {
  Completion all = complete("ferrow --");
  for (const std::string& option : helpOptions(FERROW_BINARY)) {
    if (option == "-h") continue;  // not a "--" word
    EXPECT_TRUE(all.candidates.count(option) ||
                all.candidates.count(option + "="))
        << option;
  }
}

TEST(CompletionTest, AValueIsAskedForExactlyWhereTheScannerWantsOne) {
  Completion all = complete("ferrow --");
  std::map<std::string, bool> scanner = scannerOptions();
  EXPECT_EQ(all.candidates.size(), scanner.size());
  for (const auto& option : scanner) {
    std::string word = "--" + option.first + (option.second ? "=" : "");
    EXPECT_EQ(all.candidates.count(word), 1u) << word;
  }
}

TEST(CompletionTest, CompletesAPrefix) {
  EXPECT_THAT(complete("ferrow --get-c").candidates,
              ElementsAre("--get-content"));
  EXPECT_THAT(
      complete("ferrow --dump").candidates,
      UnorderedElementsAre("--dump-all", "--dump-selected", "--dumps-dir="));
  // A word that needs a value does not get a blank after it.
  Completion host = complete("ferrow --hos");
  EXPECT_THAT(host.candidates, ElementsAre("--host="));
  EXPECT_THAT(host.options, ::testing::HasSubstr("nospace"));
  EXPECT_THAT(complete("ferrow --no-check").candidates,
              ElementsAre("--no-check-space"));
}

TEST(CompletionTest, OneActionPerRun) {
  Completion after = complete("ferrow --get-content --session-path=/tmp --d");
  EXPECT_THAT(after.candidates,
              UnorderedElementsAre("--dumps-dir=", "--domains="));
  EXPECT_THAT(complete("ferrow -h --re").candidates,
              UnorderedElementsAre("--resellers="));
}

TEST(CompletionTest, ValuesOfOptions) {
  TempDir dir;
  boost::filesystem::create_directories(dir.path() + "/sessions/42");
  writeFile(dir.path() + "/setup.txt", "");
  // Only directories for the session path, after "=" or a blank.
  EXPECT_THAT(
      complete("ferrow --session-path=" + dir.path() + "/se").candidates,
      ElementsAre(dir.path() + "/sessions"));
  EXPECT_THAT(complete("ferrow --dumps-dir " + dir.path() + "/se").candidates,
              ElementsAre(dir.path() + "/sessions"));
  EXPECT_THAT(complete("ferrow --selected-objects-file " + dir.path() + "/se")
                  .candidates,
              UnorderedElementsAre(dir.path() + "/sessions",
                                   dir.path() + "/setup.txt"));
  EXPECT_THAT(complete("ferrow --content-transport=").candidates,
              ElementsAre("rsync"));
  // Nothing sensible to offer for a password-free port or a remote login.
  EXPECT_THAT(complete("ferrow --port ").candidates, IsEmpty());
  EXPECT_THAT(complete("ferrow --login=").candidates, IsEmpty());
}

TEST(CompletionTest, AgentNamesFromTheCatalogue) {
  ensurePanelAccount();
  FerrowInstallation install;  // dyr.conf names its own product root
  const std::string agents = install.productRoot() + "/QVT/agents";
  for (const char* agent : {"reference", "other"}) {
    boost::filesystem::create_directories(agents + "/" + agent + "/control");
    writeFile(agents + "/" + agent + "/control/spec", "EntryPoint: a.pl\n");
  }
  // Not agents: the shared modules, a directory without a spec.
  boost::filesystem::create_directories(agents + "/shared/lib");
  boost::filesystem::create_directories(agents + "/broken");
  RunOptions options;
  options.binds = {{install.etcDyr(), "/etc/dyr"}};
  EXPECT_THAT(complete("ferrow --agent-name ", options).candidates,
              UnorderedElementsAre("other", "reference"));
  EXPECT_THAT(complete("ferrow --agent-name=r", options).candidates,
              ElementsAre("reference"));
}

}  // namespace
}  // namespace ferrow_test
