#include "name_text.h"

#include <cstdio>

#include "json_writer.h"

namespace kycli {

namespace {

void AppendEscape(std::string& out, unsigned char byte) {
  char text[8];
  snprintf(text, sizeof(text), "\\x%02x", byte);
  out += text;
}

// C1 controls (U+0080 to U+009F) are two bytes, 0xC2 then 0x80..0x9F; some
// terminals act on them as on ESC sequences.
bool IsC1Control(const std::string& bytes, size_t i, size_t n) {
  return n == 2 && static_cast<unsigned char>(bytes[i]) == 0xC2 &&
         static_cast<unsigned char>(bytes[i + 1]) < 0xA0;
}

}  // namespace

std::string PrintableName(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size();) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    const size_t n = Utf8SequenceAt(bytes, i);
    if (c == '\\') {
      out += "\\\\";
    } else if (n == 0 || c < 0x20 || c == 0x7F || IsC1Control(bytes, i, n)) {
      // The whole sequence of a C1 control is escaped, byte by byte.
      const size_t count = n == 0 ? 1 : n;
      for (size_t k = 0; k < count; ++k)
        AppendEscape(out, static_cast<unsigned char>(bytes[i + k]));
      i += count;
      continue;
    } else {
      out.append(bytes, i, n);
    }
    i += n;
  }
  return out;
}

}  // namespace kycli
