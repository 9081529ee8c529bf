#include "json_writer.h"

#include <cmath>
#include <cstdio>

namespace kycli {

size_t Utf8SequenceAt(const std::string& s, size_t i) {
  unsigned char c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) return 1;
  size_t n;
  uint32_t cp;
  if ((c & 0xE0) == 0xC0) {
    n = 2, cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 3, cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 4, cp = c & 0x07;
  } else {
    return 0;
  }
  if (s.size() - i < n) return 0;
  for (size_t k = 1; k < n; ++k) {
    unsigned char d = static_cast<unsigned char>(s[i + k]);
    if ((d & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (d & 0x3F);
  }
  static const uint32_t kSmallest[5] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

namespace {

void WriteEscaped(std::ostream& out, const std::string& s) {
  out << '"';
  for (size_t i = 0; i < s.size();) {
    size_t n = Utf8SequenceAt(s, i);
    if (n == 0) {
      out << "\\ufffd";
      ++i;
      continue;
    }
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out << '\\' << s[i];
    } else if (c == '\n') {
      out << "\\n";
    } else if (c == '\t') {
      out << "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out << buf;
    } else {
      out.write(s.data() + i, static_cast<std::streamsize>(n));
    }
    i += n;
  }
  out << '"';
}

}  // namespace

bool IsValidUtf8(const std::string& bytes) {
  for (size_t i = 0; i < bytes.size();) {
    size_t n = Utf8SequenceAt(bytes, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string HexOf(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    hex += kDigits[c >> 4];
    hex += kDigits[c & 15];
  }
  return hex;
}

void JsonWriter::BeforeValue() {
  if (m_afterKey) {
    m_afterKey = false;
    return;
  }
  if (!m_hasMember.empty()) {
    if (m_hasMember.back()) m_out << ',';
    m_hasMember.back() = true;
  }
}

void JsonWriter::BeginObject() {
  BeforeValue();
  m_out << '{';
  m_hasMember.push_back(false);
}

void JsonWriter::EndObject() {
  m_hasMember.pop_back();
  m_out << '}';
}

void JsonWriter::BeginArray() {
  BeforeValue();
  m_out << '[';
  m_hasMember.push_back(false);
}

void JsonWriter::EndArray() {
  m_hasMember.pop_back();
  m_out << ']';
}

void JsonWriter::Key(const std::string& key) {
  BeforeValue();
  WriteEscaped(m_out, key);
  m_out << ':';
  m_afterKey = true;
}

void JsonWriter::String(const std::string& bytes) {
  BeforeValue();
  WriteEscaped(m_out, bytes);
}

void JsonWriter::Int(int64_t value) {
  BeforeValue();
  m_out << value;
}

void JsonWriter::Uint(uint64_t value) {
  BeforeValue();
  m_out << value;
}

void JsonWriter::Double(double value) {
  BeforeValue();
  // JSON has no infinities or NaN.
  if (!std::isfinite(value)) {
    m_out << "null";
    return;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", value);
  m_out << buf;
}

void JsonWriter::Bool(bool value) {
  BeforeValue();
  m_out << (value ? "true" : "false");
}

void JsonWriter::Null() {
  BeforeValue();
  m_out << "null";
}

void JsonWriter::NameField(const std::string& key, const std::string& bytes) {
  Key(key);
  String(bytes);
  if (!IsValidUtf8(bytes)) {
    Key(key + "_hex");
    String(HexOf(bytes));
  }
}

void JsonWriter::EndDocument() {
  m_out << '\n';
}

}  // namespace kycli
