// Helpers of the commons and xml tests.
#ifndef FERROW_TESTS_COMMONS_COMMONS_TEST_UTIL_H_
#define FERROW_TESTS_COMMONS_COMMONS_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

#include "commons/host_log.h"
#include "errors/exc.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace testing_util {

// The message of the Exc<Tag> that body throws ("" and a failure if none).
template <ExcTag Tag>
std::string messageOf(const std::function<void()>& body) {
  try {
    body();
  } catch (const Exc<Tag>& e) {
    return e.what();
  }
  ADD_FAILURE() << "nothing thrown, expected " << ExcTraits<Tag>::code();
  return std::string();
}

// The host log lines written while it lives, each followed by "|"
// (installing a sink replays earlier lines: those are dropped).
struct HostLogCapture {
  HostLogCapture() {
    setHostLogSink(
        [this](HostLogLevel, const std::string& line) { text_ += line + "|"; });
    text_.clear();
  }
  ~HostLogCapture() { setHostLogSink(HostLogSink()); }
  std::string text_;
};

// "d 0:0 0750": directory or file, owner, group, permissions.
inline std::string describe(const std::string& path) {
  struct stat st = {};
  stat(path.c_str(), &st);
  return std::string(S_ISDIR(st.st_mode) ? "d " : "f ") +
         std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid) + " 0" +
         std::to_string(st.st_mode >> 6 & 7) +
         std::to_string(st.st_mode >> 3 & 7) + std::to_string(st.st_mode & 7);
}

}  // namespace testing_util
}  // namespace tovel

#endif  // FERROW_TESTS_COMMONS_COMMONS_TEST_UTIL_H_
