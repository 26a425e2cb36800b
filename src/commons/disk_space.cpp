#include "commons/disk_space.h"

#include <stdio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commons/exec_cmd.h"
#include "errors/system_error.h"
#include "errors/tags.h"

namespace tovel {
namespace {

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// The name "dd" will write; tempnam keeps it in dir when dir is usable.
std::string uniqueName(const std::string& dir) {
  std::unique_ptr<char, FreeDeleter> name(tempnam(dir.c_str(), ".fs_"));
  if (!name) throwSystemError("Unable to pick a name in " + dir, errno);
  return name.get();
}

}  // namespace

uint64_t getFreeSpace(const std::string& path) {
  struct statfs info;
  if (statfs(path.c_str(), &info) != 0) {
    int error = errno;
    TOVEL_THROW(CantStatFS) % path % std::strerror(error);
  }
  return static_cast<uint64_t>(info.f_bavail) *
         static_cast<uint64_t>(info.f_bsize);
}

void DiskSpaceReserver::checkDiskSpace(const std::string& path, ll_t size) {
  ll_t available = static_cast<ll_t>(getFreeSpace(path));
  if (available < size) {
    TOVEL_THROW(DiskSpaceReserver::NotEnoughDiskSpace) % path % available %
        size;
  }
}

DiskSpaceReserver::DiskSpaceReserver(const std::string& path, ll_t size)
    : path_(path) {
  checkDiskSpace(path, size);
  fileName_ = uniqueName(path);
  ExecCmd dd("dd");
  dd << "if=/dev/zero"
     << "of=" + fileName_ << "bs=" + std::to_string(size) << "count=1";
  try {
    dd.exec();
  } catch (...) {
    unlink(fileName_.c_str());
    throw;
  }
}

DiskSpaceReserver::~DiskSpaceReserver() { unlink(fileName_.c_str()); }

}  // namespace tovel
