#include "commons/temp_files.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "commons/dyr_conf.h"
#include "commons/product_paths.h"

namespace tovel {
namespace {

const size_t kTemplateRoom = 4096;

void append(std::vector<char>& buf, const std::string& text) {
  buf.insert(buf.end(), text.begin(), text.end());
}

}  // namespace

void initTempName(std::vector<char>& buf, const std::string& dir,
                  const std::string& prefix) {
  buf.reserve(kTemplateRoom);
  if (!dir.empty()) {
    append(buf, dir);
  } else if (const char* dumpTmp = dyrConfGetByIndex(kDumpTmpD)) {
    append(buf, dumpTmp);
  } else {
    append(buf, files::getTmpDir());
  }
  if (!buf.empty() && buf.back() != '/') buf.push_back('/');
  append(buf, prefix);
  append(buf, "XXXXXX");
  buf.push_back('\0');
}

std::string QVT_getTempFileName(const std::string& dir,
                                const std::string& prefix) {
  std::vector<char> name;
  initTempName(name, dir, prefix);
  // mkstemp leaves the buffer undefined on failure; report the template.
  std::string pattern(name.data());
  int fd = mkstemp(name.data());
  if (fd < 0) {
    int error = errno;
    TOVEL_THROW(CantCreateTempFile) % pattern % std::strerror(error);
  }
  close(fd);
  return name.data();
}

std::string QVT_makeTempFileDirectory(const std::string& dir,
                                      const std::string& prefix) {
  std::vector<char> name;
  initTempName(name, dir, prefix);
  std::string pattern(name.data());
  if (!mkdtemp(name.data())) {
    int error = errno;
    TOVEL_THROW(CantCreateTempDir) % pattern % std::strerror(error);
  }
  return name.data();
}

}  // namespace tovel
