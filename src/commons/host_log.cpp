#include "commons/host_log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <utility>
#include <vector>

namespace tovel {
namespace {

struct Pending {
  HostLogLevel level;
  std::string text;
};

HostLogSink& sink() {
  static HostLogSink instance;
  return instance;
}

std::vector<Pending>& pending() {
  static std::vector<Pending> lines;
  return lines;
}

int syslogPriority(HostLogLevel level) {
  switch (level) {
    case HostLogLevel::kError:
      return LOG_ERR;
    case HostLogLevel::kWarning:
      return LOG_WARNING;
    default:
      return LOG_INFO;
  }
}

}  // namespace

void hostLog(HostLogLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(size > 0 ? size : 0, '\0');
  if (size > 0) std::vsnprintf(&text[0], text.size() + 1, format, args);
  va_end(args);
  if (!text.empty() && text.back() == '\n') text.pop_back();

  syslog(LOG_USER | syslogPriority(level), "%s", text.c_str());
  if (sink()) {
    sink()(level, text);
  } else {
    pending().push_back({level, text});
  }
}

void setHostLogSink(HostLogSink newSink) {
  sink() = std::move(newSink);
  if (!sink()) return;
  std::vector<Pending> lines;
  lines.swap(pending());
  for (const Pending& line : lines) sink()(line.level, line.text);
}

}  // namespace tovel
