// Holding free space of a file system for as long as it is needed.
#ifndef FERROW_COMMONS_DISK_SPACE_RESERVER_H_
#define FERROW_COMMONS_DISK_SPACE_RESERVER_H_

#include <cstdint>
#include <string>

#include "commons/free_space.h"
#include "errors/exc.h"

namespace tovel {

typedef int64_t ll_t;

// Holds size bytes in a hidden file of directory path until destroyed.
class DiskSpaceReserver {
 public:
  // Tag of checkDiskSpace's failure; code "NotEnoughDiskSpace".
  static void NotEnoughDiskSpace(bool) {}
  typedef Exc<&DiskSpaceReserver::NotEnoughDiskSpace> ExNotEnoughDiskSpace;

  // Throws ExNotEnoughDiskSpace when fewer than size bytes are free at path
  // (exactly size is enough), and what getFreeSpace throws.
  static void checkDiskSpace(const std::string& path, ll_t size);

  // Checks, then writes a file of exactly size zero bytes named ".fs_..."
  // in path with dd. Throws what checkDiskSpace throws, ExecCmd::ExFailed
  // when dd fails (the partial file is removed) and SystemError when no
  // name can be made.
  DiskSpaceReserver(const std::string& path, ll_t size);
  // Removes the file; errors are ignored.
  ~DiskSpaceReserver();

  DiskSpaceReserver(const DiskSpaceReserver&) = delete;
  DiskSpaceReserver& operator=(const DiskSpaceReserver&) = delete;

  const std::string& getFileName() const { return fileName_; }

 private:
  std::string fileName_;
  std::string path_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::DiskSpaceReserver::NotEnoughDiskSpace,
                 "NotEnoughDiskSpace",
                 "Selected filesystem at %1% has only %2% bytes free, but %3% "
                 "bytes are needed for operation");

#endif  // FERROW_COMMONS_DISK_SPACE_RESERVER_H_
