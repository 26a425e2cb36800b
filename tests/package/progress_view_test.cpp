// The progress line of "--get-content" on a real terminal: a real transfer
// from the test sshd with the reference agent, ferrow's standard streams on
// a pseudo-terminal made by script(1), and what the terminal received.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <regex>
#include <string>
#include <vector>

#include "commons/sh_quote.h"
#include "package/package_support.h"
#include "support/reference_source.h"
#include "support/source_login.h"

namespace ferrow_test {
namespace {

namespace fs = boost::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

const char kEraseLine[] = "\x1b[K";

// The lines drawn: each is a carriage return, the text and the erase
// sequence. Anything else in between is not part of a line.
std::vector<std::string> drawnLines(const std::string& terminal) {
  std::vector<std::string> drawn;
  std::regex line("\r([^\r\x1b]*)\x1b\\[K");
  for (std::sregex_iterator it(terminal.begin(), terminal.end(), line), end;
       it != end; ++it) {
    drawn.push_back((*it)[1]);
  }
  return drawn;
}

// What the terminal got after the last line drawn.
std::string afterTheLine(const std::string& terminal) {
  std::string::size_type last = terminal.rfind(kEraseLine);
  return last == std::string::npos
             ? terminal
             : terminal.substr(last + sizeof kEraseLine - 1);
}

struct Figures {
  int filesLeft, filesTotal;
  std::string done, total, speed, timeLeft;
  bool percent;
};

bool parse(const std::string& line, Figures* f) {
  static const std::regex form(
      "^([0-9]+) of ([0-9]+) files left, (-?[0-9.]+ [KMGT]?i?B) of "
      "([0-9.]+ [KMGT]?i?B)( \\([0-9]+%\\))?, ([0-9.]+ [KMGT]?i?B)/s, "
      "([0-9:]+|--:--) left$");
  std::smatch m;
  if (!std::regex_match(line, m, form)) return false;
  *f = {std::stoi(m[1]), std::stoi(m[2]), m[3], m[4], m[6], m[7], m[5].matched};
  return true;
}

class ProgressViewTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ensurePanelAccount();
    SshdServer::shared();
  }

  void SetUp() override {
    login_ = sourceLogin(rootAccount(), false);

    ASSERT_EQ(step({"--deploy-agent"}).exitCode, 0);
    ASSERT_EQ(step({"--dump-all"}).exitCode, 0);
    listed_ = listedArchives();
    ASSERT_GE(listed_.size(), 3u);
  }

  std::vector<std::string> withSession(std::vector<std::string> args) const {
    args.insert(args.end(), {"--session-path", session(), "--agent-dir",
                             agentDir(), "--agent-name", "reference"});
    return withLogin(login_, args);
  }

  // One step with ferrow's standard streams on pipes, as the panel runs it.
  RunResult step(const std::vector<std::string>& args) {
    return install_.run(withSession(args), login_.env);
  }

  // The same step with both streams on a terminal; returns what the
  // terminal received (script(1) passes on the exit code).
  RunResult onTerminal(const std::vector<std::string>& args) {
    std::string command = tovel::sh_quote(FERROW_BINARY);
    for (const std::string& arg : withSession(args)) {
      command += " " + tovel::sh_quote(arg);
    }
    RunOptions options;
    options.binds = {{install_.etcDyr(), "/etc/dyr"}};
    return runInNamespace(
        "export DYR_PASSWORD=" + tovel::sh_quote(login_.env["DYR_PASSWORD"]) +
            "\nexec script -qefc " + tovel::sh_quote(command) + " /dev/null",
        options);
  }

  // The archives of the last dump, in the order the agent lists them.
  std::vector<std::string> listedArchives() const {
    std::string list = readFile(agentDir() + "/content-list.xml");
    std::vector<std::string> names;
    std::regex file(">([^<>]+)</file>");
    for (std::sregex_iterator it(list.begin(), list.end(), file), end;
         it != end; ++it) {
      names.push_back((*it)[1]);
    }
    return names;
  }

  std::string session() const { return install_.sessionPath(); }
  std::string agentDir() const { return source_.agentDir(); }

  FerrowInstallation install_;
  ReferenceSource source_{install_};
  SourceLogin login_;
  std::vector<std::string> listed_;
};

TEST_F(ProgressViewTest, OneLineRedrawnInPlaceThenEnded) {
  RunResult r = onTerminal({"--get-content"});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;

  std::vector<std::string> lines = drawnLines(r.out);
  // The totals before any byte, then at least once per file done.
  ASSERT_GE(lines.size(), listed_.size() + 1) << r.out;
  const int files = static_cast<int>(listed_.size());
  int previousLeft = files;
  for (const std::string& line : lines) {
    Figures f;
    ASSERT_TRUE(parse(line, &f)) << "'" << line << "'";
    EXPECT_EQ(f.filesTotal, files) << line;
    EXPECT_LE(f.filesLeft, previousLeft) << line;
    previousLeft = f.filesLeft;
  }
  Figures first, last;
  parse(lines.front(), &first);
  parse(lines.back(), &last);
  EXPECT_EQ(first.filesLeft, files);
  EXPECT_EQ(first.done, "0 B");
  EXPECT_EQ(last.filesLeft, 0);
  EXPECT_EQ(last.done, last.total);
  EXPECT_TRUE(last.percent);
  EXPECT_THAT(lines.back(), HasSubstr("(100%)"));
  EXPECT_EQ(last.timeLeft, "0:00");
  // The line is ended, and nothing else was written: the terminal turns
  // the line break into carriage return and line feed.
  EXPECT_EQ(afterTheLine(r.out), "\r\n");

  for (const std::string& archive : listed_) {
    EXPECT_TRUE(fileExists(session() + "/" + archive)) << archive;
  }
}

TEST_F(ProgressViewTest, NoLineWithVerbose) {
  RunResult r = onTerminal({"--get-content", "--verbose"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_THAT(r.out, Not(HasSubstr("files left")));
  EXPECT_THAT(r.out, Not(HasSubstr(kEraseLine)));
  // The debug log goes to the terminal instead.
  EXPECT_THAT(r.out, HasSubstr("Fetching " + agentDir() + "/" + listed_[0]));
}

TEST_F(ProgressViewTest, NoLineWithoutATerminal) {
  RunResult r = step({"--get-content"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

TEST_F(ProgressViewTest, AFailedFetchEndsTheLineBeforeTheMessage) {
  // The agent still lists the last archive, but it is gone.
  fs::remove(agentDir() + "/" + listed_.back());
  RunResult r = onTerminal({"--get-content"});
  EXPECT_EQ(r.exitCode, 2) << r.out;

  std::vector<std::string> lines = drawnLines(r.out);
  ASSERT_FALSE(lines.empty()) << r.out;
  Figures last;
  ASSERT_TRUE(parse(lines.back(), &last)) << lines.back();
  EXPECT_EQ(last.filesLeft, 1);
  // The message starts on a line of its own and is as without a terminal
  // (the driver writes it without a line break).
  EXPECT_EQ(afterTheLine(r.out), "\r\nError during dump retrieval");
}

}  // namespace
}  // namespace ferrow_test
