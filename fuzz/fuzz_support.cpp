#include "fuzz_support.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>

#include "xml/xml_text.h"

namespace ferrow_fuzz {
namespace {

std::string* theScratchDir = nullptr;

void removeScratchDir() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(*theScratchDir, ignored);
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
    size_t length = tovel::xmlCharLength(text, i);
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
