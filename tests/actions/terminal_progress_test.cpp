// The progress line of a content transfer: its wording and its redraw rules.
#include "actions/terminal_progress.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace tovel {
namespace {

TEST(ProgressLineTest, WordingOfTheLine) {
  // clang-format off
  const struct { TransferFigures f; const char* line; } lines[] = {
      {{7, 3, 40 << 20, 27 << 20, 1 << 20}, "3 of 7 files left, 13.0 MiB of 40.0 MiB (32%), 1.0 MiB/s, 0:27 left"},
      // The time left is rounded up: 1001 bytes at 1000 B/s take 2 s.
      {{1, 1, 2001, 1001, 1000}, "1 of 1 files left, 1000 B of 2.0 KiB (49%), 1000 B/s, 0:02 left"},
      {{2, 2, 4096, 1024, 0}, "2 of 2 files left, 3.0 KiB of 4.0 KiB (75%), 0 B/s, --:-- left"},
      {{3, 0, 3072, 1024, 0}, "0 of 3 files left, 2.0 KiB of 3.0 KiB (66%), 0 B/s, 0:00 left"},
      {{1, 1, 1024, -1024, 512}, "1 of 1 files left, 2.0 KiB of 1.0 KiB (100%), 512 B/s, 0:00 left"},
  };
  // clang-format on
  for (const auto& l : lines) EXPECT_EQ(formatProgressLine(l.f), l.line);
}

std::chrono::steady_clock::time_point fakeNow;
std::chrono::steady_clock::time_point fakeClock() { return fakeNow; }

// The line as drawn: from its start, the rest of it erased.
std::string drawn(const TransferFigures& f) {
  return "\r" + formatProgressLine(f) + "\x1b[K";
}

TEST(TerminalProgressViewTest, RedrawsInPlaceAtMostFiveTimesASecond) {
  std::ostringstream out;
  TerminalProgressView view(out, 0, &fakeClock);
  auto figures = [](int64_t filesLeft, int64_t sizeLeft) {
    return TransferFigures{2, filesLeft, 4096, sizeLeft, 0};
  };
  auto step = [&](int ms, int64_t filesLeft, int64_t sizeLeft) {
    fakeNow += std::chrono::milliseconds(ms);
    view.transferProgress(figures(filesLeft, sizeLeft));
  };
  step(0, 2, 4096);
  step(50, 2, 3072);   // too soon
  step(149, 2, 2048);  // too soon
  step(1, 2, 1024);    // 200 ms: drawn
  step(10, 1, 1024);   // a finished file shows at once
  step(10, 1, 0);      // held back until finish
  view.finish();
  const std::string shown = out.str();
  EXPECT_EQ(shown, drawn(figures(2, 4096)) + drawn(figures(2, 1024)) +
                       drawn(figures(1, 1024)) + drawn(figures(1, 0)) + "\n");
  view.finish();  // nothing more once finished
  step(1000, 0, 0);
  EXPECT_EQ(out.str(), shown);

  // Nothing drawn, nothing written; else finish only breaks the line, and
  // a width cuts it.
  std::ostringstream narrow;
  TerminalProgressView(narrow, 20, &fakeClock).finish();
  TerminalProgressView cut(narrow, 20, &fakeClock);
  cut.transferProgress(TransferFigures{7, 3, 40 << 20, 27 << 20, 1 << 20});
  cut.finish();
  EXPECT_EQ(narrow.str(), "\r3 of 7 files left, \x1b[K\n");
}

}  // namespace
}  // namespace tovel
