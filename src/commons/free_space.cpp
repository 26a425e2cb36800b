#include "commons/free_space.h"

#include <sys/vfs.h>

#include <cerrno>
#include <cstring>

namespace tovel {

uint64_t getFreeSpace(const std::string& path) {
  struct statfs info;
  if (statfs(path.c_str(), &info) != 0) {
    int error = errno;
    TOVEL_THROW(CantStatFS) % path % std::strerror(error);
  }
  return static_cast<uint64_t>(info.f_bavail) *
         static_cast<uint64_t>(info.f_bsize);
}

}  // namespace tovel
