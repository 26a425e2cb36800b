#include "log/start_stop_logger.h"

#include <unistd.h>

#include <boost/format.hpp>

#include "commons/arg_list.h"
#include "log/debug_log.h"

namespace tovel {

StartStopLogger::StartStopLogger(const std::string& name, int argc,
                                 char* const* argv)
    : name_(name), pid_(getpid()) {
  ArgList args;
  for (int i = 0; i < argc; ++i) args << argv[i];
  theDebugLog->log(name_ + " started : " + args.getStringRepresentation());
  registration_ = childDaemonHandlers.insert(childDaemonHandlers.end(),
                                             [this] { daemonized(); });
}

StartStopLogger::~StartStopLogger() {
  childDaemonHandlers.erase(registration_);
  std::string code = exitCode_ == -1
                         ? std::string(" (exit code is not reported)")
                         : "Exit code: " + std::to_string(exitCode_);
  if (theDebugLog) theDebugLog->log(name_ + " finished. " + code);
}

void StartStopLogger::daemonized() {
  theDebugLog->log(boost::format("%1% %2% -> (%3% daemon)") % name_ % pid_ %
                   getpid());
}

}  // namespace tovel
