#include "commons/checksum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <streambuf>
#include <string>

#include "commons_test_util.h"
#include "errors/tags.h"

namespace tovel {
namespace {

using testing_util::messageOf;

std::string patternBytes(size_t size) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + 3);
  return data;
}

// Sizes around the 4096-byte read chunk; digests as md5sum(1) gives them.
TEST(ChecksumTest, SizesAroundTheChunkMatchMd5sum) {
  const struct {
    size_t size;
    const char* digest;
  } cases[] = {
      {0, "d41d8cd98f00b204e9800998ecf8427e"},
      {1, "8666683506aacd900bbd5a74ac4edf68"},
      {4095, "53de317667ca40d9642e2d859bfbfd16"},
      {4096, "d105289f5617c241f52a191c6b2fc809"},
      {4097, "c7cfb8a6d3d4929f9035e0918250b62d"},
      {3 * 4096 + 5, "cc833795b72f2cec1c83e834eebc47c6"},
  };
  for (const auto& c : cases) {
    std::istringstream in(patternBytes(c.size));
    EXPECT_EQ(c.digest, countMd5Sum(in)) << c.size;
    EXPECT_EQ(c.digest, countMd5Sum(patternBytes(c.size))) << c.size;
  }
  std::istringstream in(patternBytes(5000));
  in.ignore(100);  // only what is left is digested
  EXPECT_EQ("6039be120233908f909d62bd51d5cb5c", countMd5Sum(in));
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", countMd5Sum(in));
}

// Pieces of any size, empty ones included, give the sum of the whole.
TEST(ChecksumTest, DigestFedInPiecesMatchesTheWhole) {
  const std::string data = patternBytes(3 * 4096 + 5);
  Md5Digest digest;
  size_t offset = 0;
  for (size_t piece : {0, 1, 4095, 0, 7000, 100000}) {
    size_t size = std::min(piece, data.size() - offset);
    digest.update(data.data() + offset, size);
    offset += size;
  }
  EXPECT_EQ("cc833795b72f2cec1c83e834eebc47c6", digest.finish());
  // Finishing starts a new sum.
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", digest.finish());
  digest.update("\x03", 1);
  EXPECT_EQ("8666683506aacd900bbd5a74ac4edf68", digest.finish());
}

// Serves some bytes, then fails like a device error.
class FailingBuf : public std::streambuf {
 protected:
  int_type underflow() override {
    if (served_ >= 10000) throw std::runtime_error("device error");
    std::fill(chunk_, chunk_ + sizeof chunk_, 'a');
    setg(chunk_, chunk_, chunk_ + sizeof chunk_);
    served_ += sizeof chunk_;
    return traits_type::to_int_type(chunk_[0]);
  }

 private:
  char chunk_[1000];
  size_t served_ = 0;
};

TEST(ChecksumTest, BrokenStreamThrowsStreamRead) {
  std::istringstream broken("some data");
  broken.setstate(std::ios::badbit);
  FailingBuf buf;
  std::istream failingMidway(&buf);
  for (std::istream* in :
       {static_cast<std::istream*>(&broken), &failingMidway}) {
    EXPECT_EQ("Cannot read data from the stream",
              messageOf<&StreamRead>([in] { countMd5Sum(*in); }));
  }
}

}  // namespace
}  // namespace tovel
