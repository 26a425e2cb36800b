#include "log/start_stop_logger.h"

#include <unistd.h>

#include <boost/format.hpp>

#include "commons/arg_list.h"

namespace tovel {

StartStopLogger::StartStopLogger(DebugLog& debugLog, const std::string& name,
                                 int argc, char* const* argv)
    : debugLog_(debugLog), name_(name), pid_(getpid()) {
  ArgList args;
  for (int i = 0; i < argc; ++i) args << argv[i];
  debugLog_.log(name_ + " started : " + args.getStringRepresentation());
  registration_ = childDaemonHandlers.insert(childDaemonHandlers.end(),
                                             [this] { daemonized(); });
}

StartStopLogger::~StartStopLogger() {
  childDaemonHandlers.erase(registration_);
  std::string code = exitCode_ == -1
                         ? std::string(" (exit code is not reported)")
                         : "Exit code: " + std::to_string(exitCode_);
  debugLog_.log(name_ + " finished. " + code);
}

void StartStopLogger::daemonized() {
  debugLog_.log(boost::format("%1% %2% -> (%3% daemon)") % name_ % pid_ %
                getpid());
}

}  // namespace tovel
