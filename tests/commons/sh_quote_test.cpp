#include "commons/sh_quote.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "commons/arg_list.h"
#include "commons/args_builder.h"
#include "commons/exec_cmd.h"

namespace tovel {
namespace {

TEST(ShQuote, ExactlyTheNineteenMetacharactersTakeABackslash) {
  const std::string backslashed = "\t \"#$&'()*;<>?[\\`|~";
  ASSERT_EQ(19u, backslashed.size());
  for (int byte = 0; byte < 256; ++byte) {
    ShQuoteClass expected = ShQuoteClass::kCopy;
    if (byte == '\n') {
      expected = ShQuoteClass::kLineFeed;
    } else if (backslashed.find(static_cast<char>(byte)) != std::string::npos) {
      expected = ShQuoteClass::kBackslash;
    }
    EXPECT_EQ(expected, shQuoteClass(static_cast<unsigned char>(byte)))
        << "byte " << byte;
  }
}

TEST(ShQuote, RewritesWordsByteByByteAndJoinsThem) {
  EXPECT_EQ("", sh_quote(""));
  EXPECT_EQ("it\\'s\\ \\$HOME'\n'{a}\xc3\xa9",
            sh_quote("it's $HOME\n{a}\xc3\xa9"));

  ArgsBuilder line("sh");
  line << "-c"
       << ""
       << "cd /tmp/a b; ls";
  EXPECT_EQ("sh -c  cd\\ /tmp/a\\ b\\;\\ ls", line.str());
  EXPECT_EQ("", ArgsBuilder().str());
}

// Runs "<shell> -c 'printf %s\000 <words>'" and splits what it prints.
std::vector<std::string> printedByShell(const std::string& shell,
                                        const std::vector<std::string>& words) {
  ArgsBuilder line("printf");
  line << "%s\\000";
  for (const std::string& word : words) line << word;
  ArgList args;
  args << shell << "-c" << line.str();
  std::string output, errors;
  EXPECT_EQ(0, forkExecvGetInOutErrSuidEnv("", output, errors, shell, args, "",
                                           {{"LC_ALL", "C"}}))
      << errors;
  std::vector<std::string> printed;
  size_t start = 0;
  for (size_t end; (end = output.find('\0', start)) != std::string::npos;
       start = end + 1) {
    printed.push_back(output.substr(start, end - start));
  }
  EXPECT_EQ(start, output.size()) << "output not ended by a NUL";
  return printed;
}

// Words made of every non-zero byte, alone, among letters and all together,
// then random mixes weighted towards what the shell treats specially. The
// mixes hold no "{": bash would expand "{a,b}", which quoting leaves alone.
std::vector<std::string> hardWords() {
  std::vector<std::string> words;
  std::string all;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string b(1, static_cast<char>(byte));
    for (const std::string& w : {b, b + "x", "a" + b + "z", "x" + b, b + b}) {
      words.push_back(w);
    }
    all += b;
  }
  words.push_back(all);
  words.push_back(std::string(all.rbegin(), all.rend()));
  std::mt19937 random(20240611);
  const std::string special = "\n\t \"#$&'()*;<>?[\\`|~},.=!%^-";
  for (int mixes = 0; mixes < 100; ++mixes) {
    std::string word;
    for (int n = 1 + random() % 40; n > 0; --n) {
      char c = static_cast<char>(1 + random() % 255);
      word += random() % 2 && c != '{' ? c : special[random() % special.size()];
    }
    words.push_back(word);
  }
  return words;
}

TEST(ShQuoteShells, EveryNonZeroByteRoundTrips) {
  for (const std::string shell : {"/bin/sh", "/bin/bash"}) {
    if (access(shell.c_str(), X_OK) != 0) continue;
    std::vector<std::string> words = hardWords();
    std::vector<std::string> printed = printedByShell(shell, words);
    ASSERT_EQ(words.size(), printed.size()) << shell;
    for (size_t i = 0; i < words.size(); ++i) {
      EXPECT_EQ(words[i], printed[i])
          << shell << " word " << i << " quoted as " << sh_quote(words[i]);
    }
  }
}

// Deliberate: an empty word vanishes, and brace lists reach bash unquoted.
TEST(ShQuoteShells, EmptyWordsVanishAndBashExpandsBraceLists) {
  EXPECT_EQ(std::vector<std::string>({"a", "b"}),
            printedByShell("/bin/sh", {"a", "", "b"}));
  const std::vector<std::string> words = {"a{b,c}d", "{1..3}"};
  EXPECT_EQ(words, printedByShell("/bin/sh", words));
  if (access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "no bash";
  EXPECT_EQ(std::vector<std::string>({"abd", "acd", "1", "2", "3"}),
            printedByShell("/bin/bash", words));
}

}  // namespace
}  // namespace tovel
