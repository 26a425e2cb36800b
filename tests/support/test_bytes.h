// Reproducible non-text bytes: a transfer that mangles any byte shows.
#ifndef FERROW_TESTS_SUPPORT_TEST_BYTES_H_
#define FERROW_TESTS_SUPPORT_TEST_BYTES_H_

#include <cstddef>
#include <string>

namespace ferrow_test {

// size bytes of a linear congruential sequence started at seed.
inline std::string archiveBytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    seed = seed * 1103515245u + 12345u;
    bytes[i] = static_cast<char>(seed >> 16);
  }
  return bytes;
}

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_TEST_BYTES_H_
