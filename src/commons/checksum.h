// MD5 sums as 32 lower-case hexadecimal digits.
#ifndef FERROW_COMMONS_CHECKSUM_H_
#define FERROW_COMMONS_CHECKSUM_H_

#include <istream>
#include <string>

namespace tovel {

// MD5 of the bytes left in in, read to its end. Throws Exc<&StreamRead>
// when the stream fails before its end.
std::string countMd5Sum(std::istream& in);

// MD5 of data.
std::string countMd5Sum(const std::string& data);

}  // namespace tovel

#endif  // FERROW_COMMONS_CHECKSUM_H_
