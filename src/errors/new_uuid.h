#ifndef FERROW_ERRORS_NEW_UUID_H_
#define FERROW_ERRORS_NEW_UUID_H_

#include <string>

namespace tovel {

// A fresh random (version 4) UUID in its canonical 36-character lower-case
// form. Throws std::runtime_error when the system has no entropy source.
std::string newUUID();

}  // namespace tovel

#endif  // FERROW_ERRORS_NEW_UUID_H_
