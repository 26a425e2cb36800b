#include "ferrow/driver.h"

#include <gtest/gtest.h>

#include <sstream>

#include "actions/remove_dumping_status_action.h"
#include "errors/tags.h"

namespace tovel {
namespace {

template <ExcTag Tag>
int codeOf() {
  return exitCodeFor(Exc<Tag>("f", "./f.cpp", 1));
}

TEST(ExitCodeTest, ConnectionFailuresHaveTheirOwnCodes) {
  EXPECT_EQ(11, codeOf<&ConnectionRefused>());
  EXPECT_EQ(12, codeOf<&ConnectionTimedOut>());
  EXPECT_EQ(13, codeOf<&NetworkUnreachable>());
  EXPECT_EQ(14, codeOf<&HostUnreachable>());
  EXPECT_EQ(15, codeOf<&ConnectionFault>());
  EXPECT_EQ(16, codeOf<&HostNotFound>());
  EXPECT_EQ(17, codeOf<&SshInvalidCredentials>());
  EXPECT_EQ(18, codeOf<&SshConnectionFault>());
}

TEST(ExitCodeTest, EveryOtherErrorOfTheFamilyGives2) {
  EXPECT_EQ(2, codeOf<&SshAuthorizationFailed>());
  EXPECT_EQ(2, codeOf<&UnableToStartSshSession>());
  EXPECT_EQ(2, codeOf<&UnknownAction>());
  // A connection failure that an action wrapped keeps its code; any other
  // cause gives the wrapper's.
  Exc<&SshConnectionFault> lost("f", "./f.cpp", 1);
  EXPECT_EQ(18, exitCodeFor(Exc<&CantRetrieveDump>(lost, "g", "./g.cpp", 2)));
  Exc<&SshInvalidCredentials> refused("f", "./f.cpp", 1);
  EXPECT_EQ(17,
            exitCodeFor(Exc<&CantRetrieveDump>(refused, "g", "./g.cpp", 2)));
  Exc<&NotEnoughSpace> full("f", "./f.cpp", 1);
  EXPECT_EQ(2, exitCodeFor(Exc<&CantRetrieveDump>(full, "g", "./g.cpp", 2)));
}

TEST(StandardInputListTest, OnlyTheFirstDashListIsRead) {
  config cfg;
  cfg.clients = "-";
  cfg.domains = "-";
  std::istringstream in("c1,c2\nd1\n");
  readStandardInputList(cfg, in);
  EXPECT_EQ("c1,c2", cfg.clients);
  EXPECT_EQ("-", cfg.domains);

  config resellersFirst;
  resellersFirst.resellers = "-";
  resellersFirst.domains = "-";
  std::istringstream in2("r1\n");
  readStandardInputList(resellersFirst, in2);
  EXPECT_EQ("r1", resellersFirst.resellers);
  EXPECT_EQ("-", resellersFirst.domains);
}

TEST(StandardInputListTest, NoDashListReadsNothing) {
  config cfg;
  cfg.domains = "a.example,-";
  std::istringstream in("untouched\n");
  readStandardInputList(cfg, in);
  EXPECT_EQ("a.example,-", cfg.domains);
  std::string rest;
  std::getline(in, rest);
  EXPECT_EQ("untouched", rest);
}

TEST(FactoryTest, LogNameAndUnknownActions) {
  config cfg;
  cfg.action = kGetContent;
  EXPECT_EQ("transfer.result", getLogName(cfg));
  cfg.action = kRemoveAgent;
  EXPECT_EQ("", getLogName(cfg));
  cfg.action = kHelp;
  EXPECT_THROW(getActionByIdInternal(cfg), Exc<&UnknownAction>);
  cfg.action = 42;
  EXPECT_THROW(getActionByIdInternal(cfg), Exc<&UnknownAction>);
}

}  // namespace
}  // namespace tovel
