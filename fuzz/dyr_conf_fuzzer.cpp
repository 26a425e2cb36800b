// The configuration file reader on arbitrary file contents: no crash, and
// every name it stored is found again, with its own value, by the lookup
// that the finalized (sorted) record uses.
#include <stddef.h>
#include <stdint.h>

#include "commons/dyr_conf.h"
#include "commons/host_log.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Without a sink the host log keeps every line for a later one.
  static const bool quiet = [] {
    tovel::setHostLogSink([](tovel::HostLogLevel, const std::string&) {});
    return true;
  }();
  (void)quiet;
  std::string path = ferrow_fuzz::writeScratchFile("dyr.conf", data, size);
  tovel::conf_data conf;
  ferrow_fuzz::check(tovel::conf_init_r(&conf) == 0, "conf_init_r failed");
  if (tovel::conf_read_file_r(path.c_str(), &conf) == 0) {
    ferrow_fuzz::check(conf.finalized, "record not finalized");
    ferrow_fuzz::check(conf.used <= conf.capacity, "used beyond capacity");
    for (size_t i = 0; i < conf.used; ++i) {
      const tovel::conf_entry& entry = conf.entries[i];
      ferrow_fuzz::check(!entry.name.empty(), "empty name stored");
      ferrow_fuzz::check(
          tovel::conf_get_r(entry.name, &conf) == entry.value.c_str(),
          "lookup misses stored name " + entry.name);
    }
  }
  tovel::conf_free_r(&conf);
  return 0;
}
