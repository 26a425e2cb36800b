// Helpers shared by the fuzz targets: a scratch directory for the readers
// that take a file name, splitting an input into strings, and the check that
// turns a broken property into a crash libFuzzer reports.
#ifndef FERROW_FUZZ_FUZZ_SUPPORT_H_
#define FERROW_FUZZ_FUZZ_SUPPORT_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace ferrow_fuzz {

// A directory private to this process, created on first use and removed
// with its contents at exit.
const std::string& scratchDir();

// Writes data to scratchDir()/name, replacing what was there; returns the
// path. Aborts when the file cannot be written.
std::string writeScratchFile(const std::string& name, const uint8_t* data,
                             size_t size);

// The input cut at every NUL byte, padded with empty strings to at least
// count parts.
std::vector<std::string> splitInput(const uint8_t* data, size_t size,
                                    size_t count);

// Whether text is something an XML document can hold as character data:
// well-formed UTF-8 of characters allowed by XML 1.0 (no NUL, no other C0
// control but tab, line feed and carriage return, no surrogates, no U+FFFE
// or U+FFFF).
bool isXmlText(const std::string& text);

// Prints what broke and aborts, so that libFuzzer keeps the input.
[[noreturn]] void fail(const std::string& what);

inline void check(bool holds, const std::string& what) {
  if (!holds) fail(what);
}

}  // namespace ferrow_fuzz

#endif  // FERROW_FUZZ_FUZZ_SUPPORT_H_
