#include "commons/random_strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace tovel {
namespace {

int countOf(const std::string& s, int (*test)(int)) {
  return std::count_if(s.begin(), s.end(), [&](char c) {
    return test(static_cast<unsigned char>(c)) != 0;
  });
}

// Digits, upper and lower case letters take turns, whatever the shuffle.
TEST(RandomStringsTest, StrongPasswordMixesAllClasses) {
  EXPECT_EQ("", randomStrongPassword(0));
  EXPECT_EQ("", randomStrongPassword(-5));
  for (int n = 1; n <= 40; ++n) {
    std::string passwd = randomStrongPassword(n);
    ASSERT_EQ(static_cast<size_t>(n), passwd.size());
    EXPECT_EQ((n + 2) / 3, countOf(passwd, isdigit)) << passwd;
    EXPECT_EQ((n + 1) / 3, countOf(passwd, isupper)) << passwd;
    EXPECT_EQ(n / 3, countOf(passwd, islower)) << passwd;
  }
  for (int i = 0; i < 50; ++i) {
    std::string passwd = randomPasswd();
    EXPECT_EQ(7u, passwd.size());
    EXPECT_EQ(7, countOf(passwd, isalnum)) << passwd;
  }
}

}  // namespace
}  // namespace tovel
