// Quoting of one word for a POSIX shell command line, as used for every
// command sent to the source host and for the printable form of local
// commands.
#ifndef FERROW_COMMONS_SH_QUOTE_H_
#define FERROW_COMMONS_SH_QUOTE_H_

#include <string>

namespace tovel {

// What sh_quote does with one byte.
enum class ShQuoteClass : unsigned char {
  kCopy,       // copied unchanged
  kBackslash,  // preceded by a backslash
  kLineFeed,   // written as apostrophe, line feed, apostrophe
};

// The class of byte in the quoting table.
ShQuoteClass shQuoteClass(unsigned char byte);

// Returns word made safe as one word of a POSIX shell command line: a line
// feed becomes '<LF>', tab, blank and " # $ & ' ( ) * ; < > ? [ \ ` | ~ get a
// backslash, every other byte is kept. The empty word gives the empty
// string, so an empty argument vanishes from a command line. Braces and
// commas are kept, so a bash reading the line may still brace-expand a word
// such as "{a,b}".
std::string sh_quote(const std::string& word);

}  // namespace tovel

#endif  // FERROW_COMMONS_SH_QUOTE_H_
