// Failures of the local file system met through boost::filesystem, turned
// into the exception family so that they end a run like any failed step.
#ifndef FERROW_COMMONS_LOCAL_FILE_ERROR_H_
#define FERROW_COMMONS_LOCAL_FILE_ERROR_H_

#include <boost/filesystem/exception.hpp>

#include "errors/exc.h"

namespace tovel {

TOVEL_DECLARE_TAG(LocalFileError)

// Throws LocalFileError "Local file system error on PATH: REASON", PATH
// being the first path the error names and REASON the system's message.
[[noreturn]] void throwLocalFileError(
    const boost::filesystem::filesystem_error& error);

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::LocalFileError, "LocalFileError",
                 "Local file system error on %1%: %2%");

#endif  // FERROW_COMMONS_LOCAL_FILE_ERROR_H_
