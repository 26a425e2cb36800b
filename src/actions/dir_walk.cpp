#include "actions/dir_walk.h"

#include <boost/filesystem.hpp>

namespace tovel {
namespace fs = boost::filesystem;

void recursive_dir_walk_sync(const fs::path& local, const fs::path& destination,
                             const DirWalkCallback& callback) {
  if (!callback(local, destination) || !fs::is_directory(local)) return;
  for (fs::directory_iterator entry(local), end; entry != end; ++entry) {
    recursive_dir_walk_internal(entry->path(), destination, callback);
  }
}

void recursive_dir_walk_internal(const fs::path& entry,
                                 const fs::path& destination,
                                 const DirWalkCallback& callback) {
  recursive_dir_walk_sync(entry, destination / entry.filename(), callback);
}

void recursive_dir_walk(const fs::path& local,
                        const DirWalkCallback& callback) {
  recursive_dir_walk_sync(local, fs::path(), callback);
}

}  // namespace tovel
