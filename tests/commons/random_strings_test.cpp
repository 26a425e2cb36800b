#include "commons/random_strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace tovel {
namespace {

bool hasClass(const std::string& s, int (*test)(int)) {
  return std::any_of(s.begin(), s.end(), [&](char c) {
    return test(static_cast<unsigned char>(c));
  });
}

TEST(RandomStringsTest, StrongPasswordMixesAllClasses) {
  for (int n = 3; n <= 40; ++n) {
    std::string passwd = randomStrongPassword(n);
    ASSERT_EQ(static_cast<size_t>(n), passwd.size());
    EXPECT_TRUE(hasClass(passwd, isdigit)) << passwd;
    EXPECT_TRUE(hasClass(passwd, isupper)) << passwd;
    EXPECT_TRUE(hasClass(passwd, islower)) << passwd;
    // Each class gets its share of the turns, whatever the shuffle did.
    auto digits = std::count_if(passwd.begin(), passwd.end(), ::isdigit);
    EXPECT_EQ((n + 2) / 3, digits) << passwd;
  }
}

TEST(RandomStringsTest, StrongPasswordOfNothing) {
  EXPECT_EQ("", randomStrongPassword(0));
  EXPECT_EQ("", randomStrongPassword(-5));
  std::string one = randomStrongPassword(1);
  ASSERT_EQ(1u, one.size());
  EXPECT_TRUE(isdigit(static_cast<unsigned char>(one[0])));
}

TEST(RandomStringsTest, PasswdIsSevenAlphanumerics) {
  for (int i = 0; i < 50; ++i) {
    std::string passwd = randomPasswd();
    ASSERT_EQ(7u, passwd.size());
    EXPECT_TRUE(std::all_of(passwd.begin(), passwd.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c));
    })) << passwd;
  }
}

}  // namespace
}  // namespace tovel
