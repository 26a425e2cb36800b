// Exceptions (codes, messages, ids, nesting, plain text) and system errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "actions/retrieval_errors.h"
#include "agents/agent.h"
#include "commons/free_space.h"
#include "errors/system_error.h"
#include "errors/text_msg_formatter.h"
#include "ferrow/options.h"
#include "transport/libssh2_errors.h"

namespace tovel {
namespace {

using ::testing::MatchesRegex;

TEST(ExcTest, CodeMessagePlaceAndNestedCause) {
  try {
    TOVEL_THROW(OptParsingError) % "bad value";
  } catch (const Exc<&OptParsingError>& e) {
    EXPECT_STREQ("Unable to parse command line: bad value", e.what());
    EXPECT_EQ("OptParsingError", e.code());
    EXPECT_THAT(e.file() + ":" + std::to_string(e.line()) + " " + e.context(),
                MatchesRegex(".*exceptions_test.cpp:[1-9][0-9]* .*TestBody.*"));
  }
  EXPECT_EQ("Agent::ParseFailed", Exc<&ParseFailed>("f", "x", 1).code());
  // Too few arguments: the bare format and a note, never a throw.
  Exc<&CantStatFS> misfed("f", "x", 1);
  EXPECT_EQ(0u, std::string((misfed % "/p").what())
                    .find("Cannot stat filesystem containing %1%: %2% "
                          "[message arguments do not match"));

  std::unique_ptr<Exc<&CantRetrieveDump>> outer;
  {
    Exc<&SshConnectionFault> inner("int g()", "./a.cpp", 1);
    outer.reset(new Exc<&CantRetrieveDump>(inner, "void h()", "./b.cpp", 2));
  }
  // A copy owns a copy of the cause and keeps the ids.
  Exc<&CantRetrieveDump> copy(*outer);
  const std::string id = outer->id(), innerId = outer->inner()->id();
  EXPECT_EQ(36u, id.size());
  EXPECT_NE(id, innerId);
  EXPECT_EQ(id, std::unique_ptr<ExTraceable>(outer->clone())->id());
  outer.reset();
  EXPECT_EQ("CantRetrieveDump[" + id +
                "]: Error during dump retrieval [./b.cpp:2]\nvoid h()\n"
                "Inner exception:\nSshConnectionFault[" +
                innerId +
                "]: Lost connection with the remote host [./a.cpp:1]\nint g()",
            formatPlainTextMessage(copy));
}

TEST(SystemErrorTest, KnownErrnoValuesHaveTheirOwnType) {
  EXPECT_THROW(throwSystemError("open", EPERM), ExSystemError<EPERM>);
  EXPECT_THROW(throwSystemError("open", ENOENT), ExSystemError<ENOENT>);
  EXPECT_THROW(throwSystemError("open", EINTR), ExSystemError<EINTR>);
  EXPECT_THROW(throwSystemError("open", ECHILD), ExSystemError<ECHILD>);
  EXPECT_THROW(throwSystemError("open", EAGAIN), ExSystemError<EAGAIN>);
  EXPECT_EQ(std::string("open: ") + std::strerror(ENOENT),
            SystemError("open", ENOENT).what());
  try {
    throwSystemError("", EACCES);
  } catch (const ExSystemError<EPERM>&) {
    ADD_FAILURE() << "EACCES has no type of its own";
  } catch (const SystemError& e) {
    EXPECT_STREQ(std::strerror(EACCES), e.what());
    EXPECT_EQ(EACCES, e.error());
  }
}

}  // namespace
}  // namespace tovel
