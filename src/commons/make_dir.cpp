#include "commons/make_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commons/handle.h"

namespace tovel {
namespace {

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

void make_dir(char* path, uid_t uid, gid_t gid, mode_t mode) {
  struct stat st;
  if (stat(path, &st) == 0 || errno != ENOENT) return;
  char* slash = std::strrchr(path, '/');
  if (slash && slash != path) {
    *slash = '\0';
    make_dir(path, uid, gid, mode);
    *slash = '/';
  }
  mkdir(path, mode);
  int ignored = chown(path, uid, gid);
  (void)ignored;
}

void make_dir(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
  std::unique_ptr<char, FreeDeleter> copy(strdup(path.c_str()));
  if (!copy) TOVEL_THROW(InvalidHandle);
  make_dir(copy.get(), uid, gid, mode);
}

void make_dir(const boost::filesystem::path& path, uid_t uid, gid_t gid,
              mode_t mode) {
  make_dir(path.string(), uid, gid, mode);
}

bool check_input_file(const char* file, bool) {
  struct stat st;
  return file && *file && stat(file, &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace tovel
