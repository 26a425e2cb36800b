#include "commons/checksum.h"

#include <openssl/evp.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "errors/tags.h"

namespace tovel {
namespace {

const std::streamsize kChunk = 4096;

struct DigestFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
typedef std::unique_ptr<EVP_MD_CTX, DigestFree> DigestContext;

std::string bin2ascii(const unsigned char* data, unsigned len) {
  std::string text;
  text.reserve(2 * len);
  char pair[3];
  for (unsigned i = 0; i < len; ++i) {
    std::snprintf(pair, sizeof pair, "%02x", data[i]);
    text += pair;
  }
  return text;
}

DigestContext startMd5() {
  DigestContext ctx(EVP_MD_CTX_new());
  if (!ctx) TOVEL_THROW(InvalidHandle);
  EVP_DigestInit(ctx.get(), EVP_md5());
  return ctx;
}

std::string finishMd5(EVP_MD_CTX* ctx) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_DigestFinal(ctx, digest, &len);
  return bin2ascii(digest, len);
}

}  // namespace

std::string countMd5Sum(std::istream& in) {
  DigestContext ctx = startMd5();
  std::vector<char> buffer(kChunk);
  for (;;) {
    if (!in) {
      if (in.eof()) return finishMd5(ctx.get());
      TOVEL_THROW(StreamRead);
    }
    in.read(buffer.data(), kChunk);
    if (!in && !in.eof()) TOVEL_THROW(StreamRead);
    EVP_DigestUpdate(ctx.get(), buffer.data(), in.gcount());
  }
}

std::string countMd5Sum(const std::string& data) {
  DigestContext ctx = startMd5();
  if (!data.empty()) EVP_DigestUpdate(ctx.get(), data.data(), data.size());
  return finishMd5(ctx.get());
}

}  // namespace tovel
