#include "xml/xml_text.h"

#include <cstdint>

namespace tovel {

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

std::string asXmlText(const std::string& text) {
  std::string safe;
  safe.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    size_t length = xmlCharLength(text, i);
    if (length == 0) {
      safe += "\xEF\xBF\xBD";
      ++i;
    } else {
      safe.append(text, i, length);
      i += length;
    }
  }
  return safe;
}

}  // namespace tovel
