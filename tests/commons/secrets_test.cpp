// Masking of the run's passwords in logged text, whole and in pieces.
#include "commons/secrets.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tovel {
namespace {

class SecretsTest : public ::testing::Test {
 protected:
  void TearDown() override { clearSecrets(); }

  // What a masker logs for text cut into pieces at the given offsets.
  static std::string logged(const std::string& text,
                            const std::vector<std::size_t>& cuts) {
    StreamMasker masker;
    std::string out;
    std::size_t from = 0;
    for (std::size_t cut : cuts) {
      out += masker.push(text.data() + from, cut - from);
      from = cut;
    }
    out += masker.push(text.data() + from, text.size() - from);
    return out + masker.finish();
  }
};

TEST_F(SecretsTest, EveryOccurrenceOfEverySecretIsMasked) {
  registerSecret("s3cr'et pw");
  registerSecret("");  // nothing to mask: ignored
  registerSecret("sudo#pw");
  EXPECT_EQ("********\nx ******** y ********\n",
            maskSecrets("s3cr'et pw\nx sudo#pw y s3cr'et pw\n"));
  EXPECT_EQ("nothing here", maskSecrets("nothing here"));
}

TEST_F(SecretsTest, ASecretInsideAnotherIsMaskedWithIt) {
  registerSecret("pass");
  registerSecret("my password");
  EXPECT_EQ("******** and ********word",
            maskSecrets("my password and password"));
}

TEST_F(SecretsTest, WithoutSecretsTheStreamPassesUnchanged) {
  StreamMasker masker;
  EXPECT_EQ("abc", masker.push("abc", 3));
  EXPECT_EQ("", masker.finish());
}

TEST_F(SecretsTest, ASecretSplitBetweenPiecesIsMaskedAtEveryCut) {
  const std::string secret = "Pw with blanks #$x";
  registerSecret(secret);
  const std::string text = "sudo line\n" + secret + "\nrest of input";
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    EXPECT_EQ("sudo line\n********\nrest of input", logged(text, {cut}))
        << "cut at " << cut;
  }
  EXPECT_EQ("sudo line\n********\nrest of input",
            logged(text, {11, 12, 13, 20, 25}));
}

TEST_F(SecretsTest, APrefixOfASecretAtTheEndIsHeldBackThenLoggedAsItIs) {
  registerSecret("secret");
  StreamMasker masker;
  EXPECT_EQ("data ", masker.push("data sec", 8));
  EXPECT_EQ("sec", masker.finish());
  std::string text = masker.push("data s", 6);
  EXPECT_EQ("data s", text + masker.finish());
}

}  // namespace
}  // namespace tovel
