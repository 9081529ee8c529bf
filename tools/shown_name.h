// Names shown in messages.  Stream names and file names are bytes; a name
// with control characters or bytes that are not UTF-8 would reach the
// terminal raw, so such bytes are shown escaped.
#ifndef KYSTORE_TOOLS_SHOWN_NAME_H_
#define KYSTORE_TOOLS_SHOWN_NAME_H_

#include <string>

namespace kycli {

// `bytes` with control characters, DEL and backslash written as \xHH (and
// "\\"); when `bytes` is not valid UTF-8, every byte above 0x7F too.
std::string ShownName(const std::string& bytes);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_SHOWN_NAME_H_
