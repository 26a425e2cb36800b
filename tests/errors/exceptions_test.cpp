#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "errors/exc.h"
#include "errors/system_error.h"
#include "errors/tags.h"
#include "errors/text_msg_formatter.h"

namespace tovel {
namespace {

// Records every visitor call as one line, so the order can be compared.
class RecordingVisitor : public ExInfoVisitor {
 public:
  std::vector<std::string> calls;
  void setCode(const std::string& v) override { calls.push_back("code " + v); }
  void setId(const std::string&) override { calls.push_back("id"); }
  void setMessage(const std::string& v) override {
    calls.push_back("message " + v);
  }
  void setContext(const std::string&) override { calls.push_back("context"); }
  void setFile(const std::string& v) override { calls.push_back("file " + v); }
  void setLine(int) override { calls.push_back("line"); }
  void advanceToInnerException() override { calls.push_back("advance"); }
  void setSeverity(int s) override {
    calls.push_back("severity " + std::to_string(s));
  }
};

Exc<&SshConnectionFault> raiseConnectionFault() {
  try {
    TOVEL_THROW(SshConnectionFault);
  } catch (const Exc<&SshConnectionFault>& e) {
    return e;
  }
  throw std::logic_error("unreachable");
}

TEST(ExcTest, CodeMessageAndLocation) {
  try {
    TOVEL_THROW(OptParsingError) % "bad value";
    FAIL() << "nothing thrown";
  } catch (const Exc<&OptParsingError>& e) {
    EXPECT_STREQ("Unable to parse command line: bad value", e.what());
    EXPECT_EQ("OptParsingError", e.code());
    EXPECT_EQ(3, e.severity());
    EXPECT_NE(std::string::npos, e.file().find("exceptions_test.cpp"));
    EXPECT_GT(e.line(), 0);
    EXPECT_NE(std::string::npos, e.context().find("TestBody"));
    EXPECT_EQ(36u, e.id().size());
  }
}

TEST(ExcTest, CodeDiffersFromTagWhereTheTableSaysSo) {
  Exc<&ParseFailed> e("f", "file", 1);
  e % "x";
  EXPECT_EQ("Agent::ParseFailed", e.code());
  EXPECT_STREQ("Unable to parse spec file: x", e.what());
}

TEST(ExcTest, MessageIsCachedOnFirstWhat) {
  Exc<&CantStatFS> e("f", "file", 1);
  e % "/p" % "gone";
  EXPECT_STREQ("Cannot stat filesystem containing /p: gone", e.what());
  EXPECT_STREQ("Cannot stat filesystem containing /p: gone", e.what());
}

TEST(ExcTest, MisfedFormatStillRendersSomething) {
  Exc<&CantStatFS> e("f", "file", 1);
  e % "/p";
  EXPECT_NE(std::string::npos,
            std::string(e.what()).find("Cannot stat filesystem containing"));
}

TEST(ExcTest, EachConstructionHasItsOwnIdButClonesKeepIt) {
  Exc<&SshConnectionFault> a("f", "file", 1), b("f", "file", 1);
  EXPECT_NE(a.id(), b.id());
  std::unique_ptr<ExTraceable> c(a.clone());
  EXPECT_EQ(a.id(), c->id());
  EXPECT_STREQ(a.what(), c->what());
}

TEST(ExcTest, AcceptVisitsSevenSettersInOrderWithoutInner) {
  Exc<&SshConnectionFault> e("ctx", "./f", 7);
  RecordingVisitor v;
  e.accept(v);
  std::vector<std::string> expected = {
      "context",
      "file ./f",
      "line",
      "code SshConnectionFault",
      "id",
      "severity 3",
      "message Lost connection with the remote host"};
  EXPECT_EQ(expected, v.calls);
}

TEST(ExcTest, AcceptDescendsIntoTheWrappedCause) {
  Exc<& SshConnectionFault> inner = raiseConnectionFault();
  Exc<&CantRetrieveDump> outer(inner, "ctx", "./f", 7);
  RecordingVisitor v;
  outer.accept(v);
  ASSERT_EQ(15u, v.calls.size());
  EXPECT_EQ("code CantRetrieveDump", v.calls[3]);
  EXPECT_EQ("advance", v.calls[7]);
  EXPECT_EQ("context", v.calls[8]);
  EXPECT_EQ("code SshConnectionFault", v.calls[11]);
}

TEST(ExcTest, CopiesDeepCopyTheInnerException) {
  std::unique_ptr<Exc<&CantRetrieveDump>> outer;
  {
    Exc<&SshConnectionFault> inner("ctx", "./f", 7);
    outer.reset(new Exc<&CantRetrieveDump>(inner, "ctx", "./g", 8));
  }
  Exc<&CantRetrieveDump> copy(*outer);
  outer.reset();
  ASSERT_NE(nullptr, copy.inner());
  EXPECT_STREQ("Lost connection with the remote host", copy.inner()->what());
}

TEST(SystemErrorTest, KnownErrnoValuesHaveTheirOwnType) {
  EXPECT_THROW(throwSystemError("open", EPERM), ExSystemError<EPERM>);
  EXPECT_THROW(throwSystemError("open", ENOENT), ExSystemError<ENOENT>);
  EXPECT_THROW(throwSystemError("open", EINTR), ExSystemError<EINTR>);
  EXPECT_THROW(throwSystemError("open", ECHILD), ExSystemError<ECHILD>);
  EXPECT_THROW(throwSystemError("open", EAGAIN), ExSystemError<EAGAIN>);
  try {
    throwSystemError("open", ENOENT);
  } catch (const SystemError& e) {
    EXPECT_EQ(std::string("open: ") + std::strerror(ENOENT), e.what());
    EXPECT_EQ(ENOENT, e.error());
  }
}

TEST(SystemErrorTest, OtherErrnoValuesAndEmptyMessage) {
  try {
    throwSystemError("", EACCES);
    FAIL();
  } catch (const ExSystemError<EPERM>&) {
    FAIL() << "wrong type";
  } catch (const SystemError& e) {
    EXPECT_STREQ(std::strerror(EACCES), e.what());
  }
}

TEST(MigrationTerminatedTest, Message) {
  EXPECT_STREQ("Migration has been terminated",
               MigrationTerminatedException().what());
}

TEST(TextFormatTest, OneBlockWithoutInner) {
  Exc<&HostNotFound> e("void f()", "./transport/socket.cpp", 42);
  e % "nohost" % "Name or service not known";
  EXPECT_EQ("HostNotFound[" + e.id() +
                "]: Unable to resolve hostname nohost: Name or service not "
                "known [./transport/socket.cpp:42]\nvoid f()",
            formatPlainTextMessage(e));
}

TEST(TextFormatTest, NestedBlocksAreJoinedByInnerExceptionLine) {
  Exc<&SshConnectionFault> inner("int g()", "./a.cpp", 1);
  Exc<&CantRetrieveDump> outer(inner, "void h()", "./b.cpp", 2);
  EXPECT_EQ("CantRetrieveDump[" + outer.id() +
                "]: Error during dump retrieval [./b.cpp:2]\nvoid h()"
                "\nInner exception:\n"
                "SshConnectionFault[" +
                inner.id() +
                "]: Lost connection with the remote host [./a.cpp:1]\nint g()",
            formatPlainTextMessage(outer));
}

TEST(TagTableTest, FormatsWithLineBreaksAndBrackets) {
  Exc<&FailedToExecuteScout> scout("f", "x", 1);
  scout % 2 % "boom";
  EXPECT_STREQ(
      "Failed to execute scout. \nThe return code is 2\nThe output on STDERR "
      "is\nboom",
      scout.what());
  Exc<&tError_WrongDoc> doc("f", "x", 1);
  doc % "contentlist" % "agentstatus";
  EXPECT_STREQ(
      "The document has the wrong type, root node is <agentstatus>, but "
      "<contentlist> was expected",
      doc.what());
}

}  // namespace
}  // namespace tovel
