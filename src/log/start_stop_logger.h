// The lines that bracket a run in the debug log:
//   "<name> started : <argv as a shell-quoted command line>"
//   "<name> finished. Exit code: <n>"
#ifndef FERROW_LOG_START_STOP_LOGGER_H_
#define FERROW_LOG_START_STOP_LOGGER_H_

#include <sys/types.h>

#include <string>

#include "commons/daemon_handlers.h"
#include "log/debug_log.h"

namespace tovel {

class StartStopLogger {
 public:
  // Writes the start line to debugLog (which must outlive the logger) and
  // registers with childDaemonHandlers until destroyed.
  StartStopLogger(DebugLog& debugLog, const std::string& name, int argc,
                  char* const* argv);
  // Writes the finish line; without setExitCode it ends with
  // "  (exit code is not reported)".
  ~StartStopLogger();
  StartStopLogger(const StartStopLogger&) = delete;
  StartStopLogger& operator=(const StartStopLogger&) = delete;

  void setExitCode(int code) { exitCode_ = code; }

  // Tells the debug log that the process went on as a daemon.
  void daemonized();

 private:
  DebugLog& debugLog_;
  std::string name_;
  pid_t pid_;
  int exitCode_ = -1;
  DaemonHandlerList::iterator registration_;
};

}  // namespace tovel

#endif  // FERROW_LOG_START_STOP_LOGGER_H_
