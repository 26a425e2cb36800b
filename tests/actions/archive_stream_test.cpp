// The decoder of the stream that carries many archives in one command:
// the same events however the stream is cut into pieces, and a clear
// fault for a stream that is not one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "actions/archive_stream.h"

namespace tovel {
namespace {

using ::testing::ElementsAreArray;

std::string header(uint32_t h) {
  return {char(h >> 24), char(h >> 16), char(h >> 8), char(h)};
}
std::string dataRecord(const std::string& bytes) {
  return header(static_cast<uint32_t>(bytes.size())) + bytes;
}
std::string errorRecord(const std::string& text) {
  return header((1u << 31) + static_cast<uint32_t>(text.size())) + text;
}

// Events as text: "data:BYTES", "end:", "end:ERROR"; stops at stopAt.
struct Recorder : ArchiveStreamDecoder::Handler {
  std::vector<std::string> events;
  size_t stopAt = SIZE_MAX;
  bool data(const char* bytes, size_t size) override {
    // Pieces of one record are joined, so that any cutting compares equal.
    if (!events.empty() && events.back().rfind("data:", 0) == 0)
      events.back().append(bytes, size);
    else
      events.push_back("data:" + std::string(bytes, size));
    return events.size() < stopAt;
  }
  bool end(const std::string& error) override {
    events.push_back("end:" + error);
    return events.size() < stopAt;
  }
};

TEST(ArchiveStreamDecoderTest, SameEventsInAnyPiecesFaultsForForeignOnes) {
  const struct {
    const char* name;
    std::string stream;
    std::vector<std::string> events;
    const char* fault;
    bool atBoundary;
  } cases[] = {
      {"two archives and an unreadable one",
       dataRecord("abc") + dataRecord("de") + header(0) + header(0) +
           errorRecord("cannot open x: No such file or directory"),
       {"data:abcde", "end:", "end:",
        "end:cannot open x: No such file or directory"},
       "", true},
      {"an error without text", header(1u << 31),
       {"end:the archive could not be read"}, "", true},
      {"cut inside a header", dataRecord("a") + header(0).substr(0, 2),
       {"data:a"}, "", false},
      {"a data record over 1 MiB", header((1u << 20) + 1), {},
       "a data record of 1048577 bytes", false},
      {"an error text over 64 KiB", header((1u << 31) + (1u << 16) + 1), {},
       "an error text of 65537 bytes", false},
  };
  for (const auto& c : cases) {
    for (size_t piece : {c.stream.size() + 1, size_t(1), size_t(3)}) {
      SCOPED_TRACE(std::string(c.name) + ", pieces of " +
                   std::to_string(piece));
      Recorder recorder;
      ArchiveStreamDecoder decoder(recorder);
      bool going = true;
      for (size_t at = 0; at < c.stream.size(); at += piece)
        going = decoder.push(c.stream.data() + at,
                             std::min(piece, c.stream.size() - at)) &&
                going;
      EXPECT_EQ(going, *c.fault == '\0');
      EXPECT_EQ(decoder.fault(), c.fault);
      EXPECT_THAT(recorder.events, ElementsAreArray(c.events));
      EXPECT_EQ(decoder.atBoundary(), c.atBoundary);
    }
  }
}

// A handler that stops is not told anything more, whatever follows.
TEST(ArchiveStreamDecoderTest, StopsWhereTheHandlerSaysSo) {
  Recorder recorder;
  recorder.stopAt = 2;
  ArchiveStreamDecoder decoder(recorder);
  std::string stream = dataRecord("ab") + header(0) + dataRecord("c");
  EXPECT_FALSE(decoder.push(stream.data(), stream.size()));
  EXPECT_FALSE(decoder.push(stream.data(), stream.size()));
  EXPECT_THAT(recorder.events, ElementsAreArray({"data:ab", "end:"}));
  EXPECT_EQ(decoder.fault(), "");
}

}  // namespace
}  // namespace tovel
