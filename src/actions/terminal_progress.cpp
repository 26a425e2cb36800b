#include "actions/terminal_progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>

namespace tovel {

namespace {

const std::chrono::milliseconds kRedrawInterval(200);

// Columns of the terminal on standard error; 0 when unknown.
int terminalWidth() {
  struct winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

int percentDone(const TransferFigures& f) {
  double done = static_cast<double>(f.sizeTotal - f.sizeLeft);
  double percent = done * 100.0 / static_cast<double>(f.sizeTotal);
  return static_cast<int>(std::min(100.0, std::max(0.0, percent)));
}

// Seconds until sizeLeft is fetched at the average speed so far, rounded
// up; -1 while no speed is known.
int64_t secondsLeft(const TransferFigures& f) {
  if (f.sizeLeft <= 0 || f.filesLeft <= 0) return 0;
  if (f.speed <= 0) return -1;
  return (f.sizeLeft + f.speed - 1) / f.speed;
}

}  // namespace

std::string formatByteCount(int64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes > -1024 && bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024.0;
  size_t unit = 0;
  while (unit + 1 < sizeof kUnits / sizeof kUnits[0] &&
         (value >= 1024.0 || value <= -1024.0)) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string formatDuration(int64_t seconds) {
  if (seconds < 0) return "--:--";
  char text[32];
  if (seconds < 3600) {
    std::snprintf(text, sizeof text, "%d:%02d", static_cast<int>(seconds / 60),
                  static_cast<int>(seconds % 60));
  } else {
    std::snprintf(text, sizeof text, "%lld:%02d:%02d",
                  static_cast<long long>(seconds / 3600),
                  static_cast<int>(seconds / 60 % 60),
                  static_cast<int>(seconds % 60));
  }
  return text;
}

std::string formatProgressLine(const TransferFigures& f) {
  std::string line = std::to_string(f.filesLeft) + " of " +
                     std::to_string(f.filesTotal) + " files left, " +
                     formatByteCount(f.sizeTotal - f.sizeLeft) + " of " +
                     formatByteCount(f.sizeTotal);
  if (f.sizeTotal > 0) line += " (" + std::to_string(percentDone(f)) + "%)";
  return line + ", " + formatByteCount(f.speed) + "/s, " +
         formatDuration(secondsLeft(f)) + " left";
}

// --- TerminalProgressView --------------------------------------------------

TerminalProgressView::TerminalProgressView(std::ostream& out, int width,
                                           Clock clock)
    : out_(out), width_(width), clock_(clock) {}

TerminalProgressView::~TerminalProgressView() { finish(); }

void TerminalProgressView::transferProgress(const TransferFigures& figures) {
  if (finished_) return;
  bool filesChanged = !drawn_ || figures.filesLeft != latest_.filesLeft;
  latest_ = figures;
  latestShown_ = false;
  try {
    if (filesChanged || clock_() - lastDraw_ >= kRedrawInterval) draw();
  } catch (const std::exception&) {
    // Only the view suffers; the transfer goes on.
  }
}

void TerminalProgressView::finish() {
  if (finished_) return;
  finished_ = true;
  if (!drawn_) return;
  if (!latestShown_) draw();
  out_ << '\n' << std::flush;
}

void TerminalProgressView::draw() {
  std::string line = formatProgressLine(latest_);
  if (width_ > 0 && line.size() >= static_cast<size_t>(width_)) {
    line.resize(static_cast<size_t>(width_ - 1));
  }
  out_ << '\r' << line << "\x1b[K" << std::flush;
  drawn_ = true;
  latestShown_ = true;
  lastDraw_ = clock_();
}

std::unique_ptr<TerminalProgressView> progressLineOnStandardError(
    bool enabled) {
  if (!enabled) return nullptr;
  return std::make_unique<TerminalProgressView>(std::cerr, terminalWidth());
}

bool standardErrorIsTerminal() { return isatty(STDERR_FILENO) == 1; }

}  // namespace tovel
