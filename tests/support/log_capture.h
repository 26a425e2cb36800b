// Collects what one log4cpp category logs, for tests that check log lines.
#ifndef FERROW_TESTS_SUPPORT_LOG_CAPTURE_H_
#define FERROW_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <log4cpp/Category.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/StringQueueAppender.hh>
#include <string>
#include <vector>

namespace ferrow_test {

class LogCapture {
 public:
  // Attaches to `category` (at DEBUG) until destroyed.
  explicit LogCapture(const std::string& category)
      : category_(log4cpp::Category::getInstance(category)),
        appender_(new log4cpp::StringQueueAppender("capture")) {
    auto* layout = new log4cpp::PatternLayout();
    layout->setConversionPattern("%m");
    appender_->setLayout(layout);
    category_.setPriority(log4cpp::Priority::DEBUG);
    category_.addAppender(appender_);  // the category owns it
  }
  ~LogCapture() { category_.removeAppender(appender_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Every message logged so far, oldest first.
  std::vector<std::string> lines() const {
    std::vector<std::string> copy;
    auto queue = appender_->getQueue();
    while (!queue.empty()) {
      copy.push_back(queue.front());
      queue.pop();
    }
    return copy;
  }

 private:
  log4cpp::Category& category_;
  log4cpp::StringQueueAppender* appender_;
};

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_LOG_CAPTURE_H_
