// Entry values for get, set and entries: the types a command line names,
// parsing a value given as text, and showing stored bytes.
#ifndef KYSTORE_TOOLS_ENTRY_VALUE_H_
#define KYSTORE_TOOLS_ENTRY_VALUE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kystore.h"

namespace kycli {

// The names accepted by --type, in the order shown in the help.
extern const std::vector<std::string> kEntryTypeNames;

// A value parsed from the command line.  `numbers` holds one integer (int,
// uint, int64), or the four of a rect, or the two of a size; `real` a
// double; `bytes` a string's characters or the bytes of hex.
struct EntryValue {
  std::string type;
  int64_t numbers[4] = {0, 0, 0, 0};
  double real = 0;
  std::string bytes;
};

// Parses `text` as a value of `type`.  False with the reason in `problem`
// when it is not one ("12x" or 2^40 for int, a rect that is not four
// integers, an odd number of hex digits...).
bool ParseEntryValue(const std::string& type, const std::string& text, EntryValue& value,
                     std::string& problem);

// The bytes a setter of `value` writes at the start of the entry stream:
// the value's little-endian bytes, a string in its length-prefixed form,
// hex as given.
std::string EntryBytes(const EntryValue& value);

// `raw`, the first bytes of an entry, read as `type`; false with a reason
// when they are too few (or, for a string, do not hold its length).
bool ShowTyped(const std::string& type, const std::string& raw, std::string& text,
               std::string& problem);

// `raw`, the first bytes of an entry of `length` bytes, decoded by its
// length: 4 bytes as an int, 8 as a double and an int64, a string form
// that fills the entry as text, anything else as hex.  The hex bytes
// follow in brackets (at most `hexShown` of them).
std::string DescribeByLength(const std::string& raw, int64_t length, size_t hexShown);

// Up to `max` bytes as "80 02 00 00", with " ..." when there are more.
std::string HexText(const std::string& bytes, size_t max);

// Reads the data of `stm` from its start, at most `max` bytes, into `raw`
// (grown as the bytes come, never sized by the stored length).  False when
// the data cannot be read.
bool ReadEntryData(kyStream* stm, int64_t max, std::string& raw);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_ENTRY_VALUE_H_
