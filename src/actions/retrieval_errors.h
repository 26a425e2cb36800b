// Failures shared by the actions that fetch from the agent: the dump and
// the content archives.
#ifndef FERROW_ACTIONS_RETRIEVAL_ERRORS_H_
#define FERROW_ACTIONS_RETRIEVAL_ERRORS_H_

#include "errors/exc.h"

namespace tovel {

TOVEL_DECLARE_TAG(FileWrite)
TOVEL_DECLARE_TAG(CantRetrieveDump)

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::FileWrite, "FileWrite", "Error during %1% write: %2%");
TOVEL_EXC_TRAITS(&tovel::CantRetrieveDump, "CantRetrieveDump",
                 "Error during dump retrieval");

#endif  // FERROW_ACTIONS_RETRIEVAL_ERRORS_H_
