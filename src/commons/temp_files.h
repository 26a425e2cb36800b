// Unique temporary files and directories.
#ifndef FERROW_COMMONS_TEMP_FILES_H_
#define FERROW_COMMONS_TEMP_FILES_H_

#include <string>
#include <vector>

#include "errors/exc.h"

namespace tovel {

// No unique temporary name could be created.
TOVEL_DECLARE_TAG(CantCreateTempDir)
TOVEL_DECLARE_TAG(CantCreateTempFile)

// Fills buf with a mkstemp/mkdtemp template: dir (or, when dir is empty,
// the configured "DUMP_TMP_D", else the product's temporary directory), a
// "/" unless already there, prefix, "XXXXXX" and a terminating zero.
void initTempName(std::vector<char>& buf, const std::string& dir,
                  const std::string& prefix);

// Creates a unique empty file in dir whose name starts with prefix and
// returns its name; the caller owns the file. Throws
// Exc<&CantCreateTempFile>.
std::string QVT_getTempFileName(const std::string& dir,
                                const std::string& prefix);

// Creates a unique directory; throws Exc<&CantCreateTempDir>.
std::string QVT_makeTempFileDirectory(const std::string& dir,
                                      const std::string& prefix);

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::CantCreateTempDir, "CantCreateTempDir",
                 "Can not create temporary dir with the template '%1%': %2%.");
TOVEL_EXC_TRAITS(&tovel::CantCreateTempFile, "CantCreateTempFile",
                 "Can not create temporary file with the template '%1%': %2%.");

#endif  // FERROW_COMMONS_TEMP_FILES_H_
