#include "commands.h"

#include <iostream>

namespace kycli {

void Complain(const std::string& message) {
  std::cerr << "kystore: " << message << std::endl;
}

void Complain(const std::string& subject, const std::string& message) {
  Complain(subject + ": " + message);
}

int UsageError(const std::string& synopsis, const std::string& message) {
  Complain(message);
  // The synopsis starts "kystore NAME": the second word names the command.
  size_t start = synopsis.find(' ') + 1;
  std::string name = synopsis.substr(start, synopsis.find(' ', start) - start);
  std::cerr << "usage: " << synopsis << "\n"
            << "Try 'kystore " << name << " --help' for more information." << std::endl;
  return kExitUsage;
}

}  // namespace kycli
