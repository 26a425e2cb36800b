// The selected-objects file reader on arbitrary file contents: a selection
// or one of the project's errors, never a crash or a foreign exception; the
// filter and compression stay among their known values.
#include <stddef.h>
#include <stdint.h>

#include "commons/host_log.h"
#include "errors/ex_traceable.h"
#include "ferrow/dump_options.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    tovel::setHostLogSink([](tovel::HostLogLevel, const std::string&) {});
    return true;
  }();
  (void)quiet;
  std::string path = ferrow_fuzz::writeScratchFile("objects.xml", data, size);
  tovel::DumpSelection selection;
  try {
    tovel::parseSelectedObjectsFile(path, selection);
  } catch (const tovel::ExTraceable&) {
    return 0;
  }
  int only = static_cast<int>(selection.only);
  int compression = static_cast<int>(selection.compression);
  ferrow_fuzz::check(only >= 0 && only <= 2, "unknown filter");
  ferrow_fuzz::check(compression >= 0 && compression <= 2,
                     "unknown compression");
  return 0;
}
