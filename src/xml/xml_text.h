// Text from outside the program (a host name, a remote command's error
// output) in XML documents: which bytes an XML document can carry, and the
// safe form of any text.
#ifndef FERROW_XML_XML_TEXT_H_
#define FERROW_XML_XML_TEXT_H_

#include <cstddef>
#include <string>

namespace tovel {

// Length of the UTF-8 sequence at text[i] when it encodes a character that
// an XML document may hold (no overlong forms, no surrogates, no U+FFFE or
// U+FFFF, no control character but tab, line feed and carriage return),
// else 0. i must be below text.size().
std::size_t xmlCharLength(const std::string& text, std::size_t i);

// text with each byte that is not part of such a character replaced by
// U+FFFD; valid text is returned byte for byte. libxml2 would write those
// bytes raw and leave a document no reader accepts.
std::string asXmlText(const std::string& text);

}  // namespace tovel

#endif  // FERROW_XML_XML_TEXT_H_
