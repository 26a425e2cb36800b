#include "fuzz_support.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>

namespace ferrow_fuzz {
namespace {

std::string* theScratchDir = nullptr;

void removeScratchDir() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(*theScratchDir, ignored);
}

// Length of the UTF-8 sequence starting at text[i] that decodes to a
// character XML allows, or 0.
size_t xmlCharLength(const std::string& text, size_t i) {
  unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) {
    return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r';
  }
  size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
  if (length == 0 || lead > 0xF4 || i + length > text.size()) return 0;
  uint32_t code = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3F);
  }
  static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length] || code > 0x10FFFF) return 0;
  if ((code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF)
    return 0;
  return length;
}

}  // namespace

const std::string& scratchDir() {
  if (theScratchDir == nullptr) {
    char name[] = "/tmp/ferrow-fuzz-XXXXXX";
    if (mkdtemp(name) == nullptr) fail("mkdtemp failed");
    theScratchDir = new std::string(name);
    atexit(removeScratchDir);
  }
  return *theScratchDir;
}

std::string writeScratchFile(const std::string& name, const uint8_t* data,
                             size_t size) {
  std::string path = scratchDir() + "/" + name;
  std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data),
            static_cast<std::streamsize>(size));
  out.close();
  if (!out) fail("cannot write " + path);
  return path;
}

std::vector<std::string> splitInput(const uint8_t* data, size_t size,
                                    size_t count) {
  std::vector<std::string> parts(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      parts.emplace_back();
    } else {
      parts.back() += static_cast<char>(data[i]);
    }
  }
  if (parts.size() < count) parts.resize(count);
  return parts;
}

bool isXmlText(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    size_t length = xmlCharLength(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

void fail(const std::string& what) {
  fprintf(stderr, "property broken: %s\n", what.c_str());
  fflush(stderr);
  abort();
}

}  // namespace ferrow_fuzz
