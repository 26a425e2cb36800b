// The progress line of a content transfer: its wording, its redraw rules,
// and the figures that the transfer hands to it.
#include "actions/terminal_progress.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "actions/retrieve_content_action.h"
#include "actions/transfer_progress.h"

namespace tovel {
namespace {

TransferFigures figures(int64_t filesTotal, int64_t filesLeft,
                        int64_t sizeTotal, int64_t sizeLeft, int64_t speed) {
  TransferFigures f;
  f.filesTotal = filesTotal;
  f.filesLeft = filesLeft;
  f.sizeTotal = sizeTotal;
  f.sizeLeft = sizeLeft;
  f.speed = speed;
  return f;
}

TEST(ProgressLineTest, ByteCountsInBinaryUnits) {
  EXPECT_EQ(formatByteCount(0), "0 B");
  EXPECT_EQ(formatByteCount(1023), "1023 B");
  EXPECT_EQ(formatByteCount(1024), "1.0 KiB");
  EXPECT_EQ(formatByteCount(1536), "1.5 KiB");
  EXPECT_EQ(formatByteCount(13107200), "12.5 MiB");
  EXPECT_EQ(formatByteCount(3LL << 30), "3.0 GiB");
  // Nothing beyond TiB: the number grows instead.
  EXPECT_EQ(formatByteCount(2048LL << 40), "2048.0 TiB");
  // A file larger than listed drives the size left below zero.
  EXPECT_EQ(formatByteCount(-2048), "-2.0 KiB");
  EXPECT_EQ(formatByteCount(-5), "-5 B");
}

TEST(ProgressLineTest, Durations) {
  EXPECT_EQ(formatDuration(0), "0:00");
  EXPECT_EQ(formatDuration(7), "0:07");
  EXPECT_EQ(formatDuration(754), "12:34");
  EXPECT_EQ(formatDuration(3599), "59:59");
  EXPECT_EQ(formatDuration(3723), "1:02:03");
  EXPECT_EQ(formatDuration(100 * 3600), "100:00:00");
  EXPECT_EQ(formatDuration(-1), "--:--");
}

TEST(ProgressLineTest, WholeLine) {
  EXPECT_EQ(formatProgressLine(figures(7, 3, 40 << 20, 27 << 20, 1 << 20)),
            "3 of 7 files left, 13.0 MiB of 40.0 MiB (32%), 1.0 MiB/s, "
            "0:27 left");
  // The time left is rounded up: 1001 bytes at 1000 B/s take 2 s.
  EXPECT_EQ(formatProgressLine(figures(1, 1, 2001, 1001, 1000)),
            "1 of 1 files left, 1000 B of 2.0 KiB (49%), 1000 B/s, 0:02 left");
}

TEST(ProgressLineTest, FirstSecondHasNoTimeLeft) {
  // The speed is "0" until a second has passed: no estimate yet.
  EXPECT_EQ(formatProgressLine(figures(2, 2, 4096, 1024, 0)),
            "2 of 2 files left, 3.0 KiB of 4.0 KiB (75%), 0 B/s, --:-- left");
}

TEST(ProgressLineTest, EndsAndOddFigures) {
  // An empty list: no percentage of nothing.
  EXPECT_EQ(formatProgressLine(figures(0, 0, 0, 0, 0)),
            "0 of 0 files left, 0 B of 0 B, 0 B/s, 0:00 left");
  // All files done, some skipped (their bytes never counted as fetched).
  EXPECT_EQ(formatProgressLine(figures(3, 0, 3072, 1024, 0)),
            "0 of 3 files left, 2.0 KiB of 3.0 KiB (66%), 0 B/s, 0:00 left");
  // More bytes came than the list announced.
  EXPECT_EQ(formatProgressLine(figures(1, 1, 1024, -1024, 512)),
            "1 of 1 files left, 2.0 KiB of 1.0 KiB (100%), 512 B/s, 0:00 left");
}

// --- the view ---------------------------------------------------------------

std::chrono::steady_clock::time_point fakeNow;
std::chrono::steady_clock::time_point fakeClock() { return fakeNow; }

// What a terminal would show: each "\r" starts the line again and the
// erase sequence clears what is left of it.
std::vector<std::string> redraws(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type at = 0;
  while ((at = text.find('\r', at)) != std::string::npos) {
    std::string::size_type end = text.find("\x1b[K", at);
    lines.push_back(text.substr(at + 1, end - at - 1));
    at = end;
  }
  return lines;
}

class TerminalProgressViewTest : public ::testing::Test {
 protected:
  void SetUp() override { fakeNow = std::chrono::steady_clock::time_point(); }
  void advance(int ms) { fakeNow += std::chrono::milliseconds(ms); }

  std::ostringstream out_;
  TerminalProgressView view_{out_, 0, &fakeClock};
};

TEST_F(TerminalProgressViewTest, RedrawsInPlaceAtMostFiveTimesASecond) {
  view_.transferProgress(figures(2, 2, 4096, 4096, 0));
  advance(50);
  view_.transferProgress(figures(2, 2, 4096, 3072, 0));  // too soon
  advance(100);
  view_.transferProgress(figures(2, 2, 4096, 2048, 0));  // too soon
  advance(60);
  view_.transferProgress(figures(2, 2, 4096, 1024, 0));  // 210 ms: drawn
  std::vector<std::string> shown = redraws(out_.str());
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[0], formatProgressLine(figures(2, 2, 4096, 4096, 0)));
  EXPECT_EQ(shown[1], formatProgressLine(figures(2, 2, 4096, 1024, 0)));
  EXPECT_EQ(out_.str().find('\n'), std::string::npos);
}

TEST_F(TerminalProgressViewTest, AFinishedFileShowsAtOnce) {
  view_.transferProgress(figures(2, 2, 4096, 2048, 0));
  advance(10);
  view_.transferProgress(figures(2, 1, 4096, 2048, 0));
  EXPECT_EQ(redraws(out_.str()).size(), 2u);
}

TEST_F(TerminalProgressViewTest, FinishShowsTheLastFiguresAndEndsTheLine) {
  view_.transferProgress(figures(1, 1, 100, 100, 0));
  advance(10);
  view_.transferProgress(figures(1, 1, 100, 0, 0));  // held back
  view_.finish();
  std::vector<std::string> shown = redraws(out_.str());
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[1], formatProgressLine(figures(1, 1, 100, 0, 0)));
  ASSERT_FALSE(out_.str().empty());
  EXPECT_EQ(out_.str().back(), '\n');

  // Nothing more once finished.
  std::string before = out_.str();
  view_.finish();
  advance(1000);
  view_.transferProgress(figures(1, 0, 100, 0, 0));
  EXPECT_EQ(out_.str(), before);
}

TEST_F(TerminalProgressViewTest, FinishAfterAnUpToDateLineOnlyBreaksIt) {
  view_.transferProgress(figures(1, 0, 100, 0, 0));
  view_.finish();
  EXPECT_EQ(redraws(out_.str()).size(), 1u);
  EXPECT_EQ(out_.str().back(), '\n');
}

TEST_F(TerminalProgressViewTest, NothingDrawnNothingWritten) {
  view_.finish();
  EXPECT_EQ(out_.str(), "");
}

TEST(TerminalProgressViewWidthTest, CutToTheTerminalWidth) {
  std::ostringstream out;
  TerminalProgressView view(out, 20, &fakeClock);
  view.transferProgress(figures(7, 3, 40 << 20, 27 << 20, 1 << 20));
  std::vector<std::string> shown = redraws(out.str());
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "3 of 7 files left, ");
}

// --- what the transfer hands over --------------------------------------------

// A status document that keeps the last figures set on it.
class LastFigures : public MigrationStatus {
 public:
  void setIdle() override {}
  void setAgentParams(const std::string&) override {}
  void setAgentOperation(agentOperation) override {}
  void setTransferSpeed(const std::string& s) override { speed = s; }
  void setTransferDump() override {}
  void setTransferTotals(const std::string&, const std::string&) override {}
  void setTransferFilesLeft(const std::string&) override {}
  void setTransferSizeLeft(const std::string& s) override { sizeLeft = s; }
  void setCurrentFile(const std::string&, const std::string&) override {}
  void setTransferCurrentFileSizeLeft(const std::string&) override {}
  void setDeployTotals(const std::string&, const std::string&) override {}
  void setDeploy(const std::string&, const std::string&) override {}
  void setCurrentObject(const std::string&, objectType) override {}
  void setTranslate() override {}
  void saveFile() override { ++saves; }

  std::string speed;
  std::string sizeLeft;
  int saves = 0;
};

class Recorder : public TransferProgressListener {
 public:
  void transferProgress(const TransferFigures& f) override {
    seen.push_back(f);
  }
  std::vector<TransferFigures> seen;
};

std::time_t transferNow = 0;
std::time_t transferClock() { return transferNow; }

class WatchedTransferTest : public ::testing::Test {
 protected:
  void SetUp() override { theTransferProgressListener = &recorder_; }
  void TearDown() override { theTransferProgressListener = nullptr; }

  Recorder recorder_;
  LastFigures status_;
};

TEST_F(WatchedTransferTest, TheWatcherSeesWhatTheStatusFileGets) {
  transferNow = 500;
  FileRetrievalProgressUpdater updater(status_, 3000, 2, &transferClock);
  ASSERT_EQ(recorder_.seen.size(), 1u);  // the totals, before any byte
  EXPECT_EQ(recorder_.seen[0].filesTotal, 2);
  EXPECT_EQ(recorder_.seen[0].filesLeft, 2);
  EXPECT_EQ(recorder_.seen[0].sizeTotal, 3000);
  EXPECT_EQ(recorder_.seen[0].sizeLeft, 3000);

  updater.startFile(1000);
  transferNow = 502;
  updater(1000);
  ASSERT_EQ(recorder_.seen.size(), 2u);
  EXPECT_EQ(std::to_string(recorder_.seen[1].speed), status_.speed);
  EXPECT_EQ(std::to_string(recorder_.seen[1].sizeLeft), status_.sizeLeft);
  EXPECT_EQ(recorder_.seen[1].speed, 500);

  // A file done (fetched or skipped) is reported even without a chunk.
  EXPECT_EQ(updater.fileDone(), 1);
  ASSERT_EQ(recorder_.seen.size(), 3u);
  EXPECT_EQ(recorder_.seen[2].filesLeft, 1);
  EXPECT_EQ(recorder_.seen[2].sizeLeft, 2000);
  EXPECT_EQ(status_.saves, 1);  // the watcher adds no save of its own
}

TEST_F(WatchedTransferTest, NoWatcherNoHarm) {
  theTransferProgressListener = nullptr;
  FileRetrievalProgressUpdater updater(status_, 10, 1, &transferClock);
  updater(10);
  EXPECT_EQ(updater.fileDone(), 0);
  EXPECT_TRUE(recorder_.seen.empty());
}

TEST(TerminalProgressControllerTest, DisabledLeavesNoWatcher) {
  Recorder earlier;
  theTransferProgressListener = &earlier;
  {
    TerminalProgressController controller(false);
    EXPECT_EQ(theTransferProgressListener, &earlier);
  }
  EXPECT_EQ(theTransferProgressListener, &earlier);
  theTransferProgressListener = nullptr;
}

}  // namespace
}  // namespace tovel
