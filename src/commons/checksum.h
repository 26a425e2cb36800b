// MD5 sums as 32 lower-case hexadecimal digits.
#ifndef FERROW_COMMONS_CHECKSUM_H_
#define FERROW_COMMONS_CHECKSUM_H_

#include <openssl/evp.h>

#include <cstddef>
#include <istream>
#include <memory>
#include <string>

#include "commons/stream_read_error.h"

namespace tovel {

// An MD5 sum built piece by piece, for data seen once as it passes by.
// Move-only; owns its digest context.
class Md5Digest {
 public:
  // Throws InvalidHandle when no digest context can be made.
  Md5Digest();
  void update(const char* data, std::size_t size);
  // The sum of everything fed so far; the digest then starts anew.
  std::string finish();

 private:
  struct ContextFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
  };
  std::unique_ptr<EVP_MD_CTX, ContextFree> ctx_;
};

// MD5 of the bytes left in in, read to its end. Throws Exc<&StreamRead>
// when the stream fails before its end.
std::string countMd5Sum(std::istream& in);

// MD5 of data.
std::string countMd5Sum(const std::string& data);

}  // namespace tovel

#endif  // FERROW_COMMONS_CHECKSUM_H_
