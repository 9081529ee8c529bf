// A small streaming JSON writer for the --json output of the commands.
//
// The writer puts commas and quotes where they belong; callers say what
// comes next.  Output is one compact document followed by a newline (written
// by EndDocument).  Strings are taken as bytes: valid UTF-8 goes out as text
// with JSON's escapes, anything else has each bad byte replaced by U+FFFD.
// Stream names are bytes on disk, not text, so NameField writes the raw
// bytes in hex beside the text when they are not valid UTF-8.
#ifndef KYSTORE_TOOLS_JSON_WRITER_H_
#define KYSTORE_TOOLS_JSON_WRITER_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace kycli {

// Length of the well-formed UTF-8 sequence starting at `bytes[i]` (i below
// the size), or 0 when the byte there starts none.
size_t Utf8SequenceAt(const std::string& bytes, size_t i);

// True when `bytes` is well-formed UTF-8 (no overlong forms, no surrogates).
bool IsValidUtf8(const std::string& bytes);

// Lower-case hex of every byte, no separators.
std::string HexOf(const std::string& bytes);

class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out) : m_out(out) {}

  void BeginObject();
  void EndObject();
  void BeginArray();
  void EndArray();
  // The key of the next value in the current object.
  void Key(const std::string& key);

  void String(const std::string& bytes);
  void Int(int64_t value);
  void Uint(uint64_t value);
  void Double(double value);
  void Bool(bool value);
  void Null();

  // `key`: the name as text; when the bytes are not valid UTF-8 also
  // `key`_hex: the raw bytes in hex.
  void NameField(const std::string& key, const std::string& bytes);

  // Ends the document with a newline.
  void EndDocument();

 private:
  void BeforeValue();

  std::ostream& m_out;
  // One entry per open object or array: whether it has a member yet.
  std::vector<bool> m_hasMember;
  bool m_afterKey = false;
};

}  // namespace kycli

#endif  // KYSTORE_TOOLS_JSON_WRITER_H_
