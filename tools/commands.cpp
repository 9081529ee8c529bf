#include "commands.h"

#include <iostream>

namespace kycli {

void Complain(const std::string& message) {
  std::cerr << "kystore: " << message << std::endl;
}

void Complain(const std::string& subject, const std::string& message) {
  Complain(subject + ": " + message);
}

int UsageError(const Command& command, const std::string& message) {
  Complain(message);
  std::cerr << "usage: " << command.synopsis << "\n"
            << "Try 'kystore " << command.app->get_name() << " --help' for more information."
            << std::endl;
  return kExitUsage;
}

}  // namespace kycli
