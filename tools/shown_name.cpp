#include "name_text.h"

#include <cstdio>

#include "json_writer.h"

namespace kycli {

std::string PrintableName(const std::string& bytes) {
  const bool utf8 = IsValidUtf8(bytes);
  std::string shown;
  for (char c : bytes) {
    const unsigned char b = static_cast<unsigned char>(c);
    if (c == '\\') {
      shown += "\\\\";
    } else if (b < 0x20 || b == 0x7F || (b > 0x7F && !utf8)) {
      char hex[5];
      snprintf(hex, sizeof(hex), "\\x%02x", b);
      shown += hex;
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace kycli
