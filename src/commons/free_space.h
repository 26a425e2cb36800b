// Free space of file systems.
#ifndef FERROW_COMMONS_FREE_SPACE_H_
#define FERROW_COMMONS_FREE_SPACE_H_

#include <cstdint>
#include <string>

#include "errors/exc.h"

namespace tovel {

// The file system holding a path cannot be queried.
TOVEL_DECLARE_TAG(CantStatFS)

// Bytes available to unprivileged users on the file system holding path.
// Throws Exc<&CantStatFS>.
uint64_t getFreeSpace(const std::string& path);

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::CantStatFS, "CantStatFS",
                 "Cannot stat filesystem containing %1%: %2%");

#endif  // FERROW_COMMONS_FREE_SPACE_H_
