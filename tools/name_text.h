// Stream names as the text output shows them.
//
// Names are bytes on disk: they may hold control characters or bytes that
// are not UTF-8, which printed raw could drive the terminal.  Every command
// that prints a name in text form (listings and messages alike) passes it
// through PrintableName.
#ifndef KYSTORE_TOOLS_NAME_TEXT_H_
#define KYSTORE_TOOLS_NAME_TEXT_H_

#include <string>

namespace kycli {

// `bytes` with each control character (C0, DEL, C1), each byte that is not
// part of well-formed UTF-8 and each backslash written as an escape: "\x01",
// "\xff", "\\".  Printable UTF-8 text comes out unchanged.
std::string PrintableName(const std::string& bytes);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_NAME_TEXT_H_
