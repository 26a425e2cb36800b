// Creating directory trees with an owner, and checking input files.
#ifndef FERROW_COMMONS_MAKE_DIR_H_
#define FERROW_COMMONS_MAKE_DIR_H_

#include <sys/types.h>

#include <boost/filesystem/path.hpp>
#include <string>

namespace tovel {

// Creates path and every missing parent with mode (under the process
// umask), each chowned to uid:gid. Anything that already exists, or whose
// stat fails other than with ENOENT, is left alone. Failures of mkdir and
// chown are not reported: they show when the directory is used. path is
// cut and restored in place while parents are made.
void make_dir(char* path, uid_t uid, gid_t gid, mode_t mode);
// The same on a copy of the name; throws Exc<&InvalidHandle> when the copy
// cannot be made.
void make_dir(const std::string& path, uid_t uid, gid_t gid, mode_t mode);
void make_dir(const boost::filesystem::path& path, uid_t uid, gid_t gid,
              mode_t mode);

// True when file is a non-empty name of an existing regular file (links
// followed). The flag is ignored.
bool check_input_file(const char* file, bool);

}  // namespace tovel

#endif  // FERROW_COMMONS_MAKE_DIR_H_
