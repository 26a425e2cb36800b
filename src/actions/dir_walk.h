// A walk over a local directory tree that pairs each path with its place
// under a destination, for copying the tree elsewhere.
#ifndef FERROW_ACTIONS_DIR_WALK_H_
#define FERROW_ACTIONS_DIR_WALK_H_

#include <boost/filesystem/path.hpp>
#include <boost/function.hpp>

namespace tovel {

// Told each path of a walk with the matching destination path; returns
// whether a directory should be descended into.
typedef boost::function<bool(const boost::filesystem::path& local,
                             const boost::filesystem::path& destination)>
    DirWalkCallback;

// Calls callback(local, destination); when that returns true and local is
// a directory, walks each of its entries (one level, in directory order)
// with recursive_dir_walk_internal. An empty callback throws
// boost::bad_function_call; directory reading errors throw
// boost::filesystem::filesystem_error.
void recursive_dir_walk_sync(const boost::filesystem::path& local,
                             const boost::filesystem::path& destination,
                             const DirWalkCallback& callback);
// Walks entry to destination / entry's file name.
void recursive_dir_walk_internal(const boost::filesystem::path& entry,
                                 const boost::filesystem::path& destination,
                                 const DirWalkCallback& callback);
// recursive_dir_walk_sync with an empty destination.
void recursive_dir_walk(const boost::filesystem::path& local,
                        const DirWalkCallback& callback);

}  // namespace tovel

#endif  // FERROW_ACTIONS_DIR_WALK_H_
