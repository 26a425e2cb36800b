// The content list reader on arbitrary agent output: a list or one of the
// project's errors, never a crash or a foreign exception. A name it lets
// through is relative and has no ".." component, so that joined to a
// directory it stays inside it.
#include <stddef.h>
#include <stdint.h>

#include <memory>

#include "errors/ex_traceable.h"
#include "fuzz_support.h"
#include "xml/agent_file_list.h"

namespace {

bool staysInside(const std::string& name) {
  if (name.empty() || name[0] == '/') return false;
  std::string::size_type start = 0;
  while (start <= name.size()) {
    std::string::size_type end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<tovel::AgentFileList> list;
  try {
    list = tovel::getFileList(text);
  } catch (const tovel::ExTraceable&) {
    return 0;
  }
  try {
    for (const tovel::DumpFile& file : list->getFileList()) {
      ferrow_fuzz::check(staysInside(file.name),
                         "name let through: " + file.name);
      ferrow_fuzz::check(file.size <= uint64_t(INT64_MAX), "size too large");
    }
  } catch (const tovel::ExTraceable&) {
  }
  try {
    ferrow_fuzz::check(list->getTotalSize() >= 0, "negative total size");
  } catch (const tovel::ExTraceable&) {
  }
  try {
    ferrow_fuzz::check(list->getUnpackedSize() >= 0, "negative unpacked size");
  } catch (const tovel::ExTraceable&) {
  }
  return 0;
}
