// The host utility library's message log: one line per call, sent to the
// system log and kept for the debug log. Lines written before the debug log
// exists (the configuration file is read first thing in a run) are held
// and handed to the sink as soon as one is installed.
#ifndef FERROW_COMMONS_HOST_LOG_H_
#define FERROW_COMMONS_HOST_LOG_H_

#include <functional>
#include <string>

namespace tovel {

enum class HostLogLevel { kError, kWarning, kInfo };

// printf-style; a trailing line break of the text is not doubled.
void hostLog(HostLogLevel level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

typedef std::function<void(HostLogLevel, const std::string&)> HostLogSink;

// Installs the sink (an empty function removes it) and replays to it every
// line logged while there was none.
void setHostLogSink(HostLogSink sink);

}  // namespace tovel

#endif  // FERROW_COMMONS_HOST_LOG_H_
