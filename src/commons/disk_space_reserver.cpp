#include "commons/disk_space_reserver.h"

#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "commons/exec_cmd.h"
#include "errors/system_error.h"

namespace tovel {
namespace {

// The hidden file "dd" will fill. Created here rather than only named
// (as tempnam would), so that no other process can take the name between
// the choice and the write.
std::string uniqueName(const std::string& dir) {
  std::string name =
      dir + (dir.empty() || dir.back() != '/' ? "/" : "") + ".fs_XXXXXX";
  int fd = mkstemp(&name[0]);
  if (fd < 0) throwSystemError("Unable to pick a name in " + dir, errno);
  close(fd);
  return name;
}

}  // namespace

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
