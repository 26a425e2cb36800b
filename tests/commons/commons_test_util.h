// Helpers shared by the commons tests.
#ifndef FERROW_TESTS_COMMONS_COMMONS_TEST_UTIL_H_
#define FERROW_TESTS_COMMONS_COMMONS_TEST_UTIL_H_

#include <sys/stat.h>

#include <string>
#include <vector>

#include "commons/dyr_conf.h"
#include "commons/host_log.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace testing_util {

// Collects the host log lines written while it lives.
class HostLogCapture {
 public:
  HostLogCapture() {
    setHostLogSink(
        [this](HostLogLevel, const std::string& line) { add(line); });
    // Installing a sink replays what was logged before; that is not ours.
    lines_.clear();
  }
  ~HostLogCapture() { setHostLogSink(HostLogSink()); }
  HostLogCapture(const HostLogCapture&) = delete;
  HostLogCapture& operator=(const HostLogCapture&) = delete;

  const std::vector<std::string>& lines() const { return lines_; }

 private:
  void add(const std::string& line) { lines_.push_back(line); }
  std::vector<std::string> lines_;
};

// Points the process-wide configuration at a file of a scratch directory
// (absent until write() is called) and restores the real path afterwards.
class ScratchConf {
 public:
  ScratchConf() : path_(dir_.path() + "/dyr.conf") {
    dyrConfResetForTesting(path_.c_str());
  }
  ~ScratchConf() { dyrConfResetForTesting(nullptr); }
  ScratchConf(const ScratchConf&) = delete;
  ScratchConf& operator=(const ScratchConf&) = delete;

  void write(const std::string& text) const {
    ferrow_test::writeFile(path_, text);
  }
  const std::string& path() const { return path_; }
  const std::string& dir() const { return dir_.path(); }

 private:
  ferrow_test::TempDir dir_;
  std::string path_;
};

// Sets the process umask for its lifetime.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : saved_(umask(mask)) {}
  ~ScopedUmask() { umask(saved_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  mode_t saved_;
};

inline struct stat statOf(const std::string& path) {
  struct stat st = {};
  if (stat(path.c_str(), &st) != 0) st.st_mode = 0;
  return st;
}

}  // namespace testing_util
}  // namespace tovel

#endif  // FERROW_TESTS_COMMONS_COMMONS_TEST_UTIL_H_
