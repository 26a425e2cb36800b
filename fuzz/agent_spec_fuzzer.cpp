// The agent spec parser on arbitrary file contents: either the five values
// or ParseFailed, nothing else. A value never starts with a blank.
#include <stddef.h>
#include <stdint.h>

#include "agents/agent.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string path = ferrow_fuzz::writeScratchFile("spec", data, size);
  try {
    tovel::Agent::Data values = tovel::Agent::parse(path);
    for (const std::string& value : values) {
      ferrow_fuzz::check(value.find_first_of(" \t\n\v\f\r") != 0,
                         "value starts with a blank: " + value);
      ferrow_fuzz::check(value.find('\n') == std::string::npos,
                         "value spans lines: " + value);
    }
  } catch (const tovel::Exc<&tovel::ParseFailed>&) {
  }
  return 0;
}
