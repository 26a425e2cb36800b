#include "commons/local_file_error.h"

namespace tovel {

void throwLocalFileError(const boost::filesystem::filesystem_error& error) {
  TOVEL_THROW(LocalFileError) % error.path1().string() % error.code().message();
}

}  // namespace tovel
