// Random strings from the C library generator (seeded by the driver).
#ifndef FERROW_COMMONS_RANDOM_STRINGS_H_
#define FERROW_COMMONS_RANDOM_STRINGS_H_

#include <string>

namespace tovel {

// 7 characters of letters and digits.
std::string randomPasswd();

// n characters with digits, upper and lower case letters taking turns, then
// shuffled: all three classes are present when n >= 3. Empty for n <= 0.
std::string randomStrongPassword(int n);

}  // namespace tovel

#endif  // FERROW_COMMONS_RANDOM_STRINGS_H_
