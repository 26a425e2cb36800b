// The free-text debug log of a run, written through log4cpp into the
// session's "migration.log" (as the product's properties file directs).
#ifndef FERROW_LOG_DEBUG_LOG_H_
#define FERROW_LOG_DEBUG_LOG_H_

#include <boost/format.hpp>
#include <memory>
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

// The debug log of this run; null outside the controller's lifetime.
extern DebugLog* theDebugLog;

// Configures log4cpp once per process from the product's properties file
// (files::getQvtLogConfigFileName()), with ${LOG_FILE_NAME} standing for the
// session's log file; unless verbose, removes the root appender "A2" (the
// console). Needs theSession. Throws log4cpp::ConfigureFailure when the
// properties file is missing or wrong.
void initializeLog4Cpp(bool verbose);

// Owns theDebugLog; also routes the host utility log into log4cpp
// ("p.host"), replaying what was logged before.
class DebugLogLifetimeController {
 public:
  DebugLogLifetimeController(bool debug, bool verbose);
  ~DebugLogLifetimeController();
  DebugLogLifetimeController(const DebugLogLifetimeController&) = delete;
  DebugLogLifetimeController& operator=(const DebugLogLifetimeController&) =
      delete;

 private:
  std::unique_ptr<DebugLog> log_;
};

}  // namespace tovel

#endif  // FERROW_LOG_DEBUG_LOG_H_
