// A progress line for people: while a content transfer runs with standard
// error on a terminal, one line there shows the files left, the bytes
// fetched of the total, the speed and the time left, redrawn in place.
// The panel runs ferrow with standard error on a pipe and never sees it.
#ifndef FERROW_ACTIONS_TERMINAL_PROGRESS_H_
#define FERROW_ACTIONS_TERMINAL_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "actions/transfer_progress.h"

namespace tovel {

// "0 B", "1023 B", "1.0 KiB", "12.5 MiB", ... up to TiB: binary units with
// one decimal above plain bytes. A negative count keeps its sign.
std::string formatByteCount(int64_t bytes);

// "0:07", "12:34", "1:02:03"; "--:--" for a negative (unknown) duration.
std::string formatDuration(int64_t seconds);

// The progress line for figures, e.g.
// "3 of 7 files left, 12.5 MiB of 40.0 MiB (31%), 2.1 MiB/s, 0:13 left".
// The time left is "--:--" while the speed is still 0; the percentage is
// left out of an empty total.
std::string formatProgressLine(const TransferFigures& figures);

// Draws the figures it is told on out as one line redrawn in place: a
// carriage return, the line, then "erase to the end of the line". Redraws
// at most every 200 ms, except that a change in the files left is shown at
// once. When width is positive the line is cut to width - 1 characters, so
// the terminal never wraps it. out must outlive the view.
class TerminalProgressView : public TransferProgressListener {
 public:
  typedef std::chrono::steady_clock::time_point (*Clock)();

  TerminalProgressView(std::ostream& out, int width,
                       Clock clock = &std::chrono::steady_clock::now);
  // Finishes the line (see finish()).
  ~TerminalProgressView() override;
  TerminalProgressView(const TerminalProgressView&) = delete;
  TerminalProgressView& operator=(const TerminalProgressView&) = delete;

  void transferProgress(const TransferFigures& figures) override;

  // Shows the last figures if they are not on screen yet and ends the line
  // with a line break, so that later output starts on a line of its own.
  // Writes nothing when nothing was drawn; a second call does nothing.
  void finish();

 private:
  void draw();

  std::ostream& out_;
  int width_;
  Clock clock_;
  TransferFigures latest_;
  bool latestShown_ = true;
  bool drawn_ = false;
  bool finished_ = false;
  std::chrono::steady_clock::time_point lastDraw_;
};

// A view on standard error, as wide as the terminal, when enabled; null
// otherwise.
std::unique_ptr<TerminalProgressView> progressLineOnStandardError(bool enabled);

// True when standard error is a terminal.
bool standardErrorIsTerminal();

}  // namespace tovel

#endif  // FERROW_ACTIONS_TERMINAL_PROGRESS_H_
