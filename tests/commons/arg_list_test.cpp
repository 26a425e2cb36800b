#include "commons/arg_list.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace tovel {
namespace {

TEST(ArgList, ArgvIsNullTerminatedAndPrintable) {
  ArgList list;
  list << "/bin/echo"
       << "a b"
       << ""
       << "it's";
  ASSERT_EQ(4u, list.size());
  EXPECT_STREQ("", list.argv()[2]);
  EXPECT_EQ(nullptr, list.argv()[4]);
  EXPECT_EQ("/bin/echo a\\ b  it\\'s", list.getStringRepresentation());
  EXPECT_EQ(nullptr, ArgList().argv()[0]);

  // Copies own their strings; moves hand them over.
  ArgList copy(list);
  EXPECT_NE(list.argv()[1], copy.argv()[1]);
  list << "extra";
  EXPECT_EQ(4u, copy.size());
  copy = list;
  const ArgList& same = copy;
  copy = same;  // self-assignment keeps the list
  EXPECT_STREQ("extra", copy.argv()[4]);
  const char* first = copy.argv()[0];
  ArgList moved(std::move(copy));
  ArgList target;
  target << "dropped";
  target = std::move(moved);
  EXPECT_EQ(first, target.argv()[0]);
  EXPECT_EQ(nullptr, target.argv()[5]);
}

}  // namespace
}  // namespace tovel
