// The local test accounts: repeatable set-up, a uid-0 alias that leaves
// root alone, and sudo rights that hold for one account only.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "commons/exec_cmd.h"
#include "support/sshd_server.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// The lines of file starting with "<name>:".
std::vector<std::string> entriesOf(const std::string& file,
                                   const std::string& name) {
  std::ifstream in(file);
  std::vector<std::string> entries;
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, name.size() + 1, name + ":") == 0)
      entries.push_back(line);
  return entries;
}

bool inGroup(const std::string& user, const char* group) {
  const struct group* entry = getgrnam(group);
  for (char** member = entry->gr_mem; *member != nullptr; ++member)
    if (user == *member) return true;
  return false;
}

TEST(TestAccountsTest, SetUpIsRepeatableAndLeavesRootAlone) {
  ensureTestAccounts();
  std::vector<std::string> rootShadow = entriesOf("/etc/shadow", "root");
  setUpTestAccounts();
  setUpTestAccounts();
  EXPECT_EQ(rootShadow, entriesOf("/etc/shadow", "root"));
  EXPECT_EQ(1u, entriesOf("/etc/passwd", "root").size());
  EXPECT_STREQ("root", getpwuid(0)->pw_name);

  for (const TestAccount& account : testAccounts()) {
    SCOPED_TRACE(account.name);
    EXPECT_EQ(1u, entriesOf("/etc/passwd", account.name).size());
    EXPECT_EQ(1u, entriesOf("/etc/shadow", account.name).size());
    const passwd* entry = getpwnam(account.name.c_str());
    ASSERT_NE(nullptr, entry);
    EXPECT_STREQ("/bin/sh", entry->pw_shell);
    EXPECT_EQ(0, access(homeOf(account).c_str(), F_OK));
    EXPECT_EQ(account.name == rootAccount().name, entry->pw_uid == 0);
    EXPECT_EQ(account.name == sudoAccount().name,
              inGroup(account.name, "sudo"));
    EXPECT_LE(account.name.size(), 16u);
    EXPECT_NE(std::string::npos, account.password.find(' '));
  }
  EXPECT_EQ(0u, getpwnam(rootAccount().name.c_str())->pw_gid);
}

// Runs "sudo -S" as user, typing password; -k so that no credentials cached
// by an earlier run can stand in for the password.
tovel::ExecCmd sudoAs(const TestAccount& user, const std::string& password) {
  tovel::ExecCmd sudo("runuser");
  sudo << "-u" << user.name << "--"
       << "sudo"
       << "-k"
       << "-S"
       << "-p"
       << " "
       << "id"
       << "-u";
  sudo.setInput(password + "\n");
  sudo.execCmdLine();
  return sudo;
}

TEST(TestAccountsTest, OnlyTheSudoAccountGetsRootThroughSudo) {
  ensureTestAccounts();
  tovel::ExecCmd right = sudoAs(sudoAccount(), sudoAccount().password);
  EXPECT_EQ(0, right.getReturnCode()) << right.getErrors();
  EXPECT_EQ("0\n", right.getOutput());

  tovel::ExecCmd wrong = sudoAs(sudoAccount(), plainAccount().password);
  EXPECT_NE(0, wrong.getReturnCode());
  EXPECT_EQ("", wrong.getOutput());
  EXPECT_THAT(wrong.getErrors(), HasSubstr("incorrect password"));

  tovel::ExecCmd plain = sudoAs(plainAccount(), plainAccount().password);
  EXPECT_NE(0, plain.getReturnCode());
  EXPECT_EQ("", plain.getOutput());
  EXPECT_THAT(plain.getErrors(), HasSubstr("is not in the sudoers file"));
}

}  // namespace
}  // namespace ferrow_test
