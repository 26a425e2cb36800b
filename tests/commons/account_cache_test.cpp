#include <gtest/gtest.h>
#include <pwd.h>

#include <cstdlib>
#include <string>

#include "commons/accounts.h"

namespace tovel {
namespace {

const char kAccount[] = "ferrowcachetest";

void runOrFail(const std::string& command) {
  ASSERT_EQ(0, std::system((command + " >/dev/null 2>&1").c_str())) << command;
}

uid_t freeUid(uid_t from) {
  while (getpwuid(from) != nullptr) ++from;
  return from;
}

void createAccount(uid_t uid) {
  runOrFail("useradd --system --no-create-home -u " + std::to_string(uid) +
            " " + kAccount);
}

// Creates the account for the test and removes it afterwards.
class AccountCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::system(
        (std::string("userdel ") + kAccount + " >/dev/null 2>&1").c_str());
    forgetAccountLookups();
  }
  void TearDown() override {
    std::system(
        (std::string("userdel ") + kAccount + " >/dev/null 2>&1").c_str());
    forgetAccountLookups();
  }
};

// A run must not read the password database at every status save, yet an
// account that appears during the process is still found.
TEST_F(AccountCacheTest, RemembersFoundAccountsButNotMissingOnes) {
  EXPECT_EQ(0u, lookupAccount(kAccount).uid) << "no such account yet";

  uid_t first = freeUid(4200);
  createAccount(first);
  AccountIds found = lookupAccount(kAccount);
  EXPECT_EQ(first, found.uid) << "a failed lookup is not remembered";
  EXPECT_EQ(getpwnam(kAccount)->pw_gid, found.gid);

  uid_t second = freeUid(first + 1);
  runOrFail("usermod -u " + std::to_string(second) + " " + kAccount);
  EXPECT_EQ(first, lookupAccount(kAccount).uid) << "remembered";
  forgetAccountLookups();
  EXPECT_EQ(second, lookupAccount(kAccount).uid) << "read again";
}

TEST_F(AccountCacheTest, EachNameHasItsOwnEntry) {
  AccountIds root = lookupAccount("root");
  uid_t uid = freeUid(4200);
  createAccount(uid);
  EXPECT_EQ(uid, lookupAccount(kAccount).uid);
  EXPECT_EQ(0u, root.uid);
  EXPECT_EQ(0u, lookupAccount("root").uid);
}

}  // namespace
}  // namespace tovel
