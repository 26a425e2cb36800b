// The free-text debug log of a run, written through log4cpp into the
// session's "migration.log" (as the product's properties file directs).
#ifndef FERROW_LOG_DEBUG_LOG_H_
#define FERROW_LOG_DEBUG_LOG_H_

#include <boost/format.hpp>
#include <string>

#include "errors/ex_traceable.h"

namespace tovel {

class DebugLog {
 public:
  virtual ~DebugLog() = default;
  virtual void log(const std::string& text) = 0;
  virtual void log(const boost::format& text) = 0;
  // The plain-text rendering of the exception, inner ones included.
  virtual void log(const ExTraceable& e) = 0;
  virtual bool isVerboseMode() const = 0;
  virtual bool isDebugMode() const = 0;
};

// Writes every entry at INFO to the category "p.log".
class Log4cppDebugLog : public DebugLog {
 public:
  Log4cppDebugLog(bool verbose, bool debugMode)
      : debugMode_(debugMode), verbose_(verbose) {}
  void log(const std::string& text) override;
  void log(const boost::format& text) override;
  void log(const ExTraceable& e) override;
  bool isVerboseMode() const override { return verbose_; }
  bool isDebugMode() const override { return debugMode_; }

 private:
  bool debugMode_;
  bool verbose_;
};

// Configures log4cpp once per process from the product's properties file
// (files::getQvtLogConfigFileName()), with ${LOG_FILE_NAME} standing for
// logFileName; unless verbose, removes the root appender "A2" (the
// console). Throws log4cpp::ConfigureFailure when the properties file is
// missing or wrong.
void initializeLog4Cpp(const std::string& logFileName, bool verbose);

// The debug log of a run: writes into logFileName (the session's
// "migration.log") through log4cpp, configured on construction as above,
// and routes the host utility log into log4cpp ("p.host"), replaying what
// was logged before, until destroyed. Throws what initializeLog4Cpp
// throws.
class RunDebugLog : public Log4cppDebugLog {
 public:
  RunDebugLog(const std::string& logFileName, bool debug, bool verbose);
  ~RunDebugLog() override;
  RunDebugLog(const RunDebugLog&) = delete;
  RunDebugLog& operator=(const RunDebugLog&) = delete;
};

}  // namespace tovel

#endif  // FERROW_LOG_DEBUG_LOG_H_
