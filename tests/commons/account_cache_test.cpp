#include <gtest/gtest.h>
#include <pwd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "commons/accounts.h"

namespace tovel {
namespace {

// Each test has an account of its own: ctest runs them at the same time.
const char kAccount[] = "ferrowcachetest";
const char kOtherAccount[] = "ferrowcachetest2";

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

void removeAccount(const std::string& name) {
  std::system(("userdel " + name + " >/dev/null 2>&1").c_str());
}

// Each test owns the accounts it makes: removed before and after it.
class AccountCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { forgetAccountLookups(); }
  void TearDown() override {
    for (const std::string& name : owned_) removeAccount(name);
    forgetAccountLookups();
  }
  void own(const std::string& name) {
    removeAccount(name);
    owned_.push_back(name);
  }

 private:
  std::vector<std::string> owned_;
};

// A run must not read the password database at every status save, yet an
// account that appears during the process is still found.
TEST_F(AccountCacheTest, RemembersFoundAccountsButNotMissingOnes) {
  own(kAccount);
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
  own(kOtherAccount);
  AccountIds root = lookupAccount("root");
  runOrFail(std::string("useradd --system --no-create-home ") + kOtherAccount);
  ASSERT_NE(nullptr, getpwnam(kOtherAccount));
  EXPECT_EQ(getpwnam(kOtherAccount)->pw_uid, lookupAccount(kOtherAccount).uid);
  EXPECT_EQ(0u, root.uid);
  EXPECT_EQ(0u, lookupAccount("root").uid);
}

}  // namespace
}  // namespace tovel
