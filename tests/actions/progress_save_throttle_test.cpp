// How often the progress updater rewrites the status document during a
// transfer: every chunk updates the figures, the file is written at most
// every FileRetrievalProgressUpdater::kSaveIntervalMs and whenever a file's
// last chunk arrives.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "actions/retrieve_content_action.h"

namespace tovel {
namespace {

// Keeps the figures as set and, at each save, the size left of the
// current file as it then stood.
class SaveLog : public MigrationStatus {
 public:
  void setIdle() override {}
  void setAgentParams(const std::string&) override {}
  void setAgentOperation(agentOperation) override {}
  void setTransferSpeed(const std::string&) override {}
  void setTransferDump() override {}
  void setTransferTotals(const std::string&, const std::string&) override {}
  void setTransferFilesLeft(const std::string&) override {}
  void setTransferSizeLeft(const std::string& size) override {
    sizeLeft = size;
  }
  void setCurrentFile(const std::string&, const std::string&) override {}
  void setTransferCurrentFileSizeLeft(const std::string& size) override {
    currentLeft = size;
  }
  void setDeployTotals(const std::string&, const std::string&) override {}
  void setDeploy(const std::string&, const std::string&) override {}
  void setCurrentObject(const std::string&, objectType) override {}
  void setTranslate() override {}
  void saveFile() override { saved.push_back(currentLeft); }

  std::string sizeLeft, currentLeft;
  std::vector<std::string> saved;
};

std::time_t fixedSeconds() { return 5000; }
int64_t nowMs = 0;
int64_t testClockMs() { return nowMs; }

class ProgressSaveThrottleTest : public ::testing::Test {
 protected:
  void SetUp() override { nowMs = 1000000; }
  SaveLog status_;
  FileRetrievalProgressUpdater updater_{status_, 1000, 2, &fixedSeconds,
                                        &testClockMs};
};

TEST_F(ProgressSaveThrottleTest, ChunksWithinTheIntervalOnlyUpdateFigures) {
  updater_.startFile(600);
  updater_(100);  // the first chunk is written at once
  nowMs += 40;
  updater_(100);
  nowMs += FileRetrievalProgressUpdater::kSaveIntervalMs - 41;
  updater_(100);
  EXPECT_EQ(std::vector<std::string>{"500"}, status_.saved);
  EXPECT_EQ("700", status_.sizeLeft) << "figures follow every chunk";
  EXPECT_EQ("300", status_.currentLeft);

  nowMs += 1;  // a full interval since the last write
  updater_(100);
  nowMs += 10;
  updater_(100);
  EXPECT_EQ((std::vector<std::string>{"500", "200"}), status_.saved);
}

TEST_F(ProgressSaveThrottleTest, TheLastChunkOfAFileIsAlwaysWritten) {
  updater_.startFile(300);
  updater_(100);
  updater_(100);
  updater_(100);  // completes the file, within the interval
  updater_.fileDone();
  updater_.startFile(700);
  updater_(100);  // the next file starts within the interval: not written
  EXPECT_EQ((std::vector<std::string>{"200", "0"}), status_.saved);

  // A file longer than listed: every chunk past its end is written.
  updater_(600);
  updater_(50);
  EXPECT_EQ((std::vector<std::string>{"200", "0", "0", "-50"}), status_.saved);
}

}  // namespace
}  // namespace tovel
