#include "commons/sh_quote.h"

#include <array>

namespace tovel {
namespace {

// The shell's metacharacters, quoting characters, blanks and the characters
// that start expansions when they begin a word.
constexpr char kBackslashed[] = "\t \"#$&'()*;<>?[\\`|~";
static_assert(sizeof(kBackslashed) - 1 == 19, "19 bytes take a backslash");

constexpr std::array<ShQuoteClass, 256> makeTable() {
  std::array<ShQuoteClass, 256> table{};
  for (size_t i = 0; i < table.size(); ++i) table[i] = ShQuoteClass::kCopy;
  for (size_t i = 0; i + 1 < sizeof(kBackslashed); ++i) {
    table[static_cast<unsigned char>(kBackslashed[i])] =
        ShQuoteClass::kBackslash;
  }
  table['\n'] = ShQuoteClass::kLineFeed;
  return table;
}

constexpr std::array<ShQuoteClass, 256> kTable = makeTable();

}  // namespace

ShQuoteClass shQuoteClass(unsigned char byte) { return kTable[byte]; }

std::string sh_quote(const std::string& word) {
  std::string quoted;
  quoted.reserve(word.size() + word.size() / 4);
  for (char c : word) {
    switch (kTable[static_cast<unsigned char>(c)]) {
      case ShQuoteClass::kCopy:
        quoted += c;
        break;
      case ShQuoteClass::kBackslash:
        quoted += '\\';
        quoted += c;
        break;
      case ShQuoteClass::kLineFeed:
        // A backslash before a line feed would join lines; quote it instead.
        quoted += "'\n'";
        break;
    }
  }
  return quoted;
}

}  // namespace tovel
