#include "log/debug_log.h"

#include <cstdio>
#include <fstream>
#include <log4cpp/Category.hh>
#include <log4cpp/Configurator.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <map>
#include <memory>
#include <sstream>

#include "commons/host_log.h"
#include "commons/product_paths.h"
#include "errors/text_msg_formatter.h"

namespace tovel {

namespace {

bool log4cppInitialized = false;

log4cpp::Category& debugCategory() {
  return log4cpp::Category::getInstance("p.log");
}

std::string readWholeFile(const std::string& name) {
  std::ifstream in(name.c_str(), std::ios::binary);
  if (!in) throw log4cpp::ConfigureFailure("File " + name + " does not exist");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// "${NAME}" of every map entry is replaced by its value; other variables are
// left for log4cpp, which takes them from the environment.
std::string substitute(std::string text,
                       const std::map<std::string, std::string>& values) {
  for (const auto& entry : values) {
    const std::string variable = "${" + entry.first + "}";
    for (size_t at = text.find(variable); at != std::string::npos;
         at = text.find(variable, at + entry.second.size())) {
      text.replace(at, variable.size(), entry.second);
    }
  }
  return text;
}

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};

// log4cpp only reads properties from a named file: hand it an anonymous
// temporary one through /proc, so nothing is left behind.
void configureFromText(const std::string& text) {
  std::unique_ptr<FILE, FileCloser> file(std::tmpfile());
  if (!file ||
      std::fwrite(text.data(), 1, text.size(), file.get()) != text.size() ||
      std::fflush(file.get()) != 0) {
    throw log4cpp::ConfigureFailure("Cannot prepare the logging properties");
  }
  log4cpp::PropertyConfigurator::configure("/proc/self/fd/" +
                                           std::to_string(fileno(file.get())));
}

log4cpp::Priority::Value hostLogPriority(HostLogLevel level) {
  switch (level) {
    case HostLogLevel::kError:
      return log4cpp::Priority::ERROR;
    case HostLogLevel::kWarning:
      return log4cpp::Priority::WARN;
    default:
      return log4cpp::Priority::INFO;
  }
}

}  // namespace

void Log4cppDebugLog::log(const std::string& text) {
  debugCategory().info(text);
}

void Log4cppDebugLog::log(const boost::format& text) {
  debugCategory().info(text.str());
}

void Log4cppDebugLog::log(const ExTraceable& e) {
  debugCategory().info(formatPlainTextMessage(e));
}

void initializeLog4Cpp(const std::string& logFileName, bool verbose) {
  if (log4cppInitialized) return;
  std::map<std::string, std::string> values = {{"LOG_FILE_NAME", logFileName}};
  configureFromText(
      substitute(readWholeFile(files::getQvtLogConfigFileName()), values));
  if (!verbose) {
    log4cpp::Category& root = log4cpp::Category::getRoot();
    if (log4cpp::Appender* console = root.getAppender("A2")) {
      root.removeAppender(console);
    }
  }
  log4cppInitialized = true;
}

RunDebugLog::RunDebugLog(const std::string& logFileName, bool debug,
                         bool verbose)
    : Log4cppDebugLog(verbose, debug ? !verbose : false) {
  initializeLog4Cpp(logFileName, verbose);
  setHostLogSink([](HostLogLevel level, const std::string& text) {
    log4cpp::Category::getInstance("p.host").log(hostLogPriority(level), text);
  });
}

RunDebugLog::~RunDebugLog() { setHostLogSink(HostLogSink()); }

}  // namespace tovel
