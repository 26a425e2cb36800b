// In-memory output that keeps only both ends of a long text.
#include "commons/capped_output.h"

#include <gtest/gtest.h>

#include <string>

namespace tovel {
namespace {

TEST(CappedOutputTest, ShortTextIsKeptWhole) {
  CappedOutput out(4, 4);
  out << "abc" << 'd' << "efgh";
  EXPECT_EQ("abcdefgh", out.str());
  EXPECT_EQ(8u, out.size());
}

TEST(CappedOutputTest, LongTextKeepsHeadAndTailAndCountsTheRest) {
  CappedOutput out(3, 4);
  std::string text = "HEAD-middle-middle-TAIL";
  // Written in odd pieces and bytes, so the ring wraps mid-piece.
  out.write(text.data(), 5);
  for (std::size_t i = 5; i < 9; ++i) out.put(text[i]);
  out.write(text.data() + 9, text.size() - 9);
  EXPECT_EQ("HEA\n[... 16 bytes left out ...]\nTAIL", out.str());
  EXPECT_EQ(text.size(), out.size());
}

TEST(CappedOutputTest, MegabytesStayWithinTheLimits) {
  CappedOutput out(1024, 1024);
  std::string chunk(65536, 'x');
  chunk.front() = '<';
  chunk.back() = '>';
  for (int i = 0; i < 64; ++i) out.write(chunk.data(), chunk.size());
  std::string kept = out.str();
  EXPECT_LT(kept.size(), 2100u);
  EXPECT_EQ('<', kept.front());
  EXPECT_EQ('>', kept.back());
  EXPECT_NE(std::string::npos,
            kept.find("[... " + std::to_string(64 * 65536 - 2048) +
                      " bytes left out ...]"));
  EXPECT_TRUE(out.good());
}

}  // namespace
}  // namespace tovel
