#include "commons/arg_list.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace tovel {
namespace {

ArgList makeList() {
  ArgList list;
  list << "/bin/echo"
       << "a b"
       << ""
       << "it's";
  return list;
}

TEST(ArgList, ArgvIsNullTerminatedAndFollowsAppends) {
  ArgList list = makeList();
  ASSERT_EQ(4u, list.size());
  char* const* argv = list.argv();
  EXPECT_STREQ("/bin/echo", argv[0]);
  EXPECT_STREQ("a b", argv[1]);
  EXPECT_STREQ("", argv[2]);
  EXPECT_STREQ("it's", argv[3]);
  EXPECT_EQ(nullptr, argv[4]);

  list << "more";
  argv = list.argv();
  EXPECT_STREQ("more", argv[4]);
  EXPECT_EQ(nullptr, argv[5]);
  EXPECT_EQ("a b", list[1]);
}

TEST(ArgList, CopiesOwnTheirStrings) {
  ArgList original = makeList();
  ArgList copy(original);
  EXPECT_NE(original.argv()[1], copy.argv()[1]);
  original << "extra";
  EXPECT_EQ(4u, copy.size());

  ArgList assigned;
  assigned << "old";
  assigned = original;
  EXPECT_EQ(5u, assigned.size());
  EXPECT_STREQ("extra", assigned.argv()[4]);
  const ArgList& same = assigned;
  assigned = same;  // self-assignment keeps the list
  EXPECT_EQ(5u, assigned.size());
}

TEST(ArgList, MovesTransferOwnership) {
  ArgList source = makeList();
  const char* first = source.argv()[0];
  ArgList moved(std::move(source));
  EXPECT_EQ(first, moved.argv()[0]);

  ArgList target;
  target << "dropped";
  target = std::move(moved);
  EXPECT_EQ(4u, target.size());
  EXPECT_EQ(first, target.argv()[0]);
  EXPECT_EQ(nullptr, target.argv()[4]);
}

TEST(ArgList, StringRepresentationQuotesEachArgument) {
  EXPECT_EQ("/bin/echo a\\ b  it\\'s", makeList().getStringRepresentation());
  EXPECT_EQ("", ArgList().getStringRepresentation());
  EXPECT_EQ(nullptr, ArgList().argv()[0]);
}

}  // namespace
}  // namespace tovel
