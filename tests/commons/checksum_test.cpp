#include "commons/checksum.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>

#include "errors/tags.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

// The digest as md5sum(1) computes it, independent of OpenSSL.
std::string md5sumOf(const std::string& file) {
  std::unique_ptr<FILE, PipeCloser> pipe(
      popen(("/usr/bin/md5sum '" + file + "'").c_str(), "r"));
  char digest[33] = {};
  if (!pipe || fread(digest, 1, 32, pipe.get()) != 32) return "md5sum failed";
  return digest;
}

std::string patternBytes(size_t size) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + 3);
  return data;
}

TEST(ChecksumTest, FilesAroundTheChunkSizeMatchMd5sum) {
  ferrow_test::TempDir dir;
  for (size_t size : {0u, 1u, 4095u, 4096u, 4097u, 3 * 4096u + 5}) {
    std::string name = dir.path() + "/f" + std::to_string(size);
    std::string data = patternBytes(size);
    ferrow_test::writeFile(name, data);
    std::string expected = md5sumOf(name);
    ASSERT_EQ(32u, expected.size());

    std::ifstream in(name, std::ios::binary);
    EXPECT_EQ(expected, countMd5Sum(in)) << size;
    EXPECT_EQ(expected, countMd5Sum(data)) << size;
  }
}

TEST(ChecksumTest, DigestsOnlyTheRemainingBytes) {
  ferrow_test::TempDir dir;
  std::string data = patternBytes(5000);
  ferrow_test::writeFile(dir.path() + "/tail", data.substr(100));
  std::istringstream in(data);
  in.ignore(100);
  EXPECT_EQ(md5sumOf(dir.path() + "/tail"), countMd5Sum(in));
  // Now at its end: the digest of no data, like /dev/null's.
  EXPECT_EQ(md5sumOf("/dev/null"), countMd5Sum(in));
}

TEST(ChecksumTest, BrokenStreamThrows) {
  std::istringstream in("some data");
  in.setstate(std::ios::badbit);
  try {
    countMd5Sum(in);
    ADD_FAILURE() << "no exception";
  } catch (const Exc<&StreamRead>& e) {
    EXPECT_STREQ("Cannot read data from the stream", e.what());
  }
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

TEST(ChecksumTest, StreamFailingMidwayThrows) {
  FailingBuf buf;
  std::istream in(&buf);
  EXPECT_THROW(countMd5Sum(in), Exc<&StreamRead>);
}

}  // namespace
}  // namespace tovel
