#include "commons/checksum.h"

#include <openssl/evp.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "commons/handle.h"

namespace tovel {
namespace {

const std::streamsize kChunk = 4096;

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

}  // namespace

Md5Digest::Md5Digest() : ctx_(EVP_MD_CTX_new()) {
  if (!ctx_) TOVEL_THROW(InvalidHandle);
  EVP_DigestInit(ctx_.get(), EVP_md5());
}

void Md5Digest::update(const char* data, std::size_t size) {
  if (size > 0) EVP_DigestUpdate(ctx_.get(), data, size);
}

std::string Md5Digest::finish() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_DigestFinal(ctx_.get(), digest, &len);
  EVP_DigestInit(ctx_.get(), EVP_md5());
  return bin2ascii(digest, len);
}

std::string countMd5Sum(std::istream& in) {
  Md5Digest digest;
  std::vector<char> buffer(kChunk);
  for (;;) {
    if (!in) {
      if (in.eof()) return digest.finish();
      TOVEL_THROW(StreamRead);
    }
    in.read(buffer.data(), kChunk);
    if (!in && !in.eof()) TOVEL_THROW(StreamRead);
    digest.update(buffer.data(), static_cast<std::size_t>(in.gcount()));
  }
}

std::string countMd5Sum(const std::string& data) {
  Md5Digest digest;
  digest.update(data.data(), data.size());
  return digest.finish();
}

}  // namespace tovel
