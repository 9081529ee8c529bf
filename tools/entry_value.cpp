#include "entry_value.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>

namespace kycli {

const std::vector<std::string> kEntryTypeNames = {"int",    "uint", "double", "int64",
                                                  "string", "rect", "size",   "hex"};

namespace {

// One decimal integer filling `text`, within [lo, hi].
bool ParseInteger(const std::string& text, int64_t lo, int64_t hi, int64_t& out) {
  if (text.empty() || isspace(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  out = v;
  return true;
}

// `count` int32 values separated by commas or blanks.
bool ParseIntegers(const std::string& text, int count, int64_t* out) {
  std::string spaced = text;
  for (char& c : spaced)
    if (c == ',') c = ' ';
  std::vector<std::string> words;
  size_t at = 0;
  while ((at = spaced.find_first_not_of(" \t", at)) != std::string::npos) {
    size_t end = spaced.find_first_of(" \t", at);
    words.push_back(spaced.substr(at, end - at));
    at = end;
  }
  if (static_cast<int>(words.size()) != count) return false;
  for (int i = 0; i < count; ++i)
    if (!ParseInteger(words[i], INT32_MIN, INT32_MAX, out[i])) return false;
  return true;
}

bool ParseHex(const std::string& text, std::string& bytes) {
  std::string digits;
  for (char c : text) {
    if (c == ' ' || c == ':') continue;
    if (!isxdigit(static_cast<unsigned char>(c))) return false;
    digits += c;
  }
  if (digits.empty() || digits.size() % 2 != 0) return false;
  for (size_t i = 0; i < digits.size(); i += 2)
    bytes += static_cast<char>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
  return true;
}

void PutLE(std::string& out, uint64_t v, int width) {
  for (int i = 0; i < width; ++i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

uint64_t GetLE(const std::string& raw, size_t at, int width) {
  uint64_t v = 0;
  for (int i = width - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(raw[at + i]);
  return v;
}

std::string ShowDouble(double d) {
  char text[40];
  snprintf(text, sizeof(text), "%.15g", d);
  if (strtod(text, nullptr) != d) snprintf(text, sizeof(text), "%.17g", d);
  return text;
}

// The characters of a string form in `raw`, when its length fits `length`.
bool StringForm(const std::string& raw, int64_t length, std::string& chars, bool exact) {
  if (raw.size() < 2) return false;
  uint64_t n = GetLE(raw, 0, 2);
  size_t start = 2;
  if (n == 0xFFFF) {
    if (raw.size() < 6) return false;
    n = GetLE(raw, 2, 4);
    start = 6;
  }
  const uint64_t end = start + n;
  if (exact ? end != static_cast<uint64_t>(length) : end > raw.size()) return false;
  chars = raw.substr(start, std::min<uint64_t>(n, raw.size() - start));
  return true;
}

// Quotes a string, escaping what a terminal would not show as itself.
std::string Quoted(const std::string& s) {
  std::string q = "\"";
  char esc[8];
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      q += '\\';
      q += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7F) {
      q += static_cast<char>(c);
    } else {
      snprintf(esc, sizeof(esc), "\\x%02x", c);
      q += esc;
    }
  }
  return q + "\"";
}

}  // namespace

bool ParseEntryValue(const std::string& type, const std::string& text, EntryValue& value,
                     std::string& problem) {
  value.type = type;
  bool ok = true;
  if (type == "int") {
    ok = ParseInteger(text, INT32_MIN, INT32_MAX, value.numbers[0]);
  } else if (type == "uint") {
    ok = text[0] != '-' && ParseInteger(text, 0, UINT32_MAX, value.numbers[0]);
  } else if (type == "int64") {
    ok = ParseInteger(text, INT64_MIN, INT64_MAX, value.numbers[0]);
  } else if (type == "double") {
    errno = 0;
    char* end = nullptr;
    value.real = strtod(text.c_str(), &end);
    ok = !text.empty() && !isspace(static_cast<unsigned char>(text[0])) && *end == '\0' &&
         errno != ERANGE;
  } else if (type == "rect") {
    ok = ParseIntegers(text, 4, value.numbers);
  } else if (type == "size") {
    ok = ParseIntegers(text, 2, value.numbers);
  } else if (type == "hex") {
    ok = ParseHex(text, value.bytes);
  } else {
    value.bytes = text;
    ok = text.size() < 0x7FFFFFFF;
  }
  if (!ok) {
    static const char* const kWhat[][2] = {{"int", "an integer from -2147483648 to 2147483647"},
                                           {"uint", "an integer from 0 to 4294967295"},
                                           {"int64", "a 64-bit integer"},
                                           {"double", "a number"},
                                           {"rect", "four integers: left top right bottom"},
                                           {"size", "two integers: cx cy"},
                                           {"hex", "pairs of hexadecimal digits, at least one"},
                                           {"string", "a string shorter than 2 GiB"}};
    for (const auto& w : kWhat)
      if (type == w[0]) problem = "'" + text + "' is not " + w[1];
  }
  return ok;
}

std::string EntryBytes(const EntryValue& value) {
  std::string out;
  const std::string& t = value.type;
  if (t == "int" || t == "uint") {
    PutLE(out, static_cast<uint64_t>(value.numbers[0]), 4);
  } else if (t == "int64") {
    PutLE(out, static_cast<uint64_t>(value.numbers[0]), 8);
  } else if (t == "double") {
    uint64_t bits;
    memcpy(&bits, &value.real, 8);
    PutLE(out, bits, 8);
  } else if (t == "rect" || t == "size") {
    for (int i = 0; i < (t == "rect" ? 4 : 2); ++i)
      PutLE(out, static_cast<uint64_t>(value.numbers[i]), 4);
  } else if (t == "string") {
    const uint64_t n = value.bytes.size();
    PutLE(out, n < 0xFFFF ? n : 0xFFFF, 2);
    if (n >= 0xFFFF) PutLE(out, n, 4);
    out += value.bytes;
  } else {
    out = value.bytes;
  }
  return out;
}

bool ShowTyped(const std::string& type, const std::string& raw, std::string& text,
               std::string& problem) {
  const size_t need = type == "int" || type == "uint" ? 4
                      : type == "rect"                ? 16
                      : type == "hex"                 ? 1
                      : type == "string"              ? 2
                                                      : 8;
  if (raw.size() < need) {
    problem = "holds " + std::to_string(raw.size()) + " bytes, too few for " + type;
    return false;
  }
  const auto i32 = [&raw](size_t at) {
    return std::to_string(static_cast<int32_t>(static_cast<uint32_t>(GetLE(raw, at, 4))));
  };
  if (type == "int") {
    text = i32(0);
  } else if (type == "uint") {
    text = std::to_string(GetLE(raw, 0, 4));
  } else if (type == "int64") {
    text = std::to_string(static_cast<int64_t>(GetLE(raw, 0, 8)));
  } else if (type == "double") {
    const uint64_t bits = GetLE(raw, 0, 8);
    double d;
    memcpy(&d, &bits, 8);
    text = ShowDouble(d);
  } else if (type == "rect") {
    text = i32(0) + " " + i32(4) + " " + i32(8) + " " + i32(12);
  } else if (type == "size") {
    text = i32(0) + " " + i32(4);
  } else if (type == "hex") {
    text = HexText(raw, raw.size());
  } else if (!StringForm(raw, static_cast<int64_t>(raw.size()), text, false)) {
    problem = "holds " + std::to_string(raw.size()) + " bytes, too few for its string";
    return false;
  }
  return true;
}

std::string DescribeByLength(const std::string& raw, int64_t length, size_t hexShown) {
  const std::string hex = HexText(raw, hexShown);
  std::string chars, text;
  if (length == 4 && raw.size() == 4) {
    ShowTyped("int", raw, text, chars);
    return "int " + text + "  [" + hex + "]";
  }
  if (length == 8 && raw.size() == 8) {
    std::string d;
    ShowTyped("double", raw, d, chars);
    ShowTyped("int64", raw, text, chars);
    return "double " + d + "  int64 " + text + "  [" + hex + "]";
  }
  if (StringForm(raw, length, chars, true)) return "string " + Quoted(chars) + "  [" + hex + "]";
  if (length == 0) return "empty";
  return "hex " + hex +
         (length > static_cast<int64_t>(hexShown) ? "  (" + std::to_string(length) + " bytes)"
                                                  : "");
}

std::string HexText(const std::string& bytes, size_t max) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < bytes.size() && i < max; ++i) {
    snprintf(byte, sizeof(byte), i == 0 ? "%02x" : " %02x", static_cast<unsigned char>(bytes[i]));
    text += byte;
  }
  if (bytes.size() > max) text += " ...";
  return text;
}

bool ReadEntryData(kyStream* stm, int64_t max, std::string& raw) {
  raw.clear();
  if (stm->Seek(0, 0) != 0) return stm->GetLength() == 0;
  const int64_t want = std::min<int64_t>(stm->GetLength(), max);
  char buf[65536];
  while (static_cast<int64_t>(raw.size()) < want) {
    const int64_t n =
        stm->Read(buf, std::min<int64_t>(sizeof(buf), want - static_cast<int64_t>(raw.size())));
    if (n <= 0) return false;
    raw.append(buf, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace kycli
