// kystore: look into and change storage files from the shell.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <vector>

#include "change_recording.h"
#include "commands.h"
#include "kystore/version.h"

namespace {

// The subcommand a usage error belongs to, or null when none was reached.
const kycli::Command* SelectedCommand(const CLI::App& app,
                                      const std::vector<kycli::Command>& commands) {
  std::vector<CLI::App*> parsed = app.get_subcommands();
  if (parsed.empty()) return nullptr;
  for (const kycli::Command& c : commands)
    if (c.app == parsed.front()) return &c;
  return nullptr;
}

int ReportParseError(const CLI::App& app, const std::vector<kycli::Command>& commands,
                     const CLI::ParseError& e, int argc, char** argv) {
  const kycli::Command* command = SelectedCommand(app, commands);
  if (command != nullptr) return kycli::UsageError(command->synopsis, e.what());
  // CLI11 reports a misspelt command as a missing one; name it instead.
  if (argc > 1 && argv[1][0] != '-')
    kycli::Complain(std::string("unknown command '") + argv[1] + "'");
  else if (argc == 1)
    kycli::Complain("missing command");
  else
    kycli::Complain(e.what());
  std::cerr << "usage: kystore COMMAND [ARGS]...\ncommands:\n";
  for (const kycli::Command& c : commands) std::cerr << "  " << c.synopsis << "\n";
  std::cerr << "Try 'kystore --help' for more information." << std::endl;
  return kycli::kExitUsage;
}

// CLI11 ends a command's arguments at a "--" that comes after its last
// required argument, so "rm -rf FILE a -- -b" would refuse "-b".  The
// options of rm take no values: every word before the "--" that begins
// with '-' is a flag, so the flags can go first and the "--" after them, as
// coreutils reads the line.  Returns the arguments reversed, as
// CLI::App::parse takes them.
std::vector<std::string> WithSeparatorFirst(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  size_t command = 0;
  while (command < args.size() && args[command][0] == '-')
    command += args[command] == "--record" ? 2 : 1;
  const auto separator = std::find(args.begin(), args.end(), "--");
  if (command < args.size() && args[command] == "rm" && separator != args.end()) {
    // Flags first (stable), then "--", then the words in their order.
    std::stable_partition(args.begin() + command + 1, separator,
                          [](const std::string& a) { return !a.empty() && a[0] == '-'; });
    const auto firstWord =
        std::find_if(args.begin() + command + 1, separator,
                     [](const std::string& a) { return a.empty() || a[0] != '-'; });
    std::rotate(firstWord, separator, separator + 1);
  }
  std::reverse(args.begin(), args.end());
  return args;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Look into and change kystore storage files.", "kystore"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("kystore ") + kyVersion(),
                       "Print the version and exit");
  int status = kycli::kExitOk;
  std::vector<kycli::Command> commands = {
      kycli::RegisterCreate(app, status),    kycli::RegisterInfo(app, status),
      kycli::RegisterLs(app, status),        kycli::RegisterCat(app, status),
      kycli::RegisterPut(app, status),       kycli::RegisterTree(app, status),
      kycli::RegisterMkdir(app, status),     kycli::RegisterRm(app, status),
      kycli::RegisterMv(app, status),        kycli::RegisterCp(app, status),
      kycli::RegisterRecording(app, status), kycli::RegisterGet(app, status),
      kycli::RegisterSet(app, status),       kycli::RegisterEntries(app, status),
      kycli::RegisterReplay(app, status),    kycli::RegisterCompact(app, status),
      kycli::RegisterGeneric(app, status),   kycli::RegisterDu(app, status),
      kycli::RegisterStat(app, status),      kycli::RegisterCheck(app, status),
      kycli::RegisterExport(app, status),    kycli::RegisterImport(app, status),
      kycli::RegisterDump(app, status),
  };
  // Parsed before any command runs: the commands read it when they change
  // a storage.
  std::string recordFile;
  app.add_option("--record", recordFile,
                 "Append what a changing command (put, set, mkdir, rm, mv, cp) changed, as a "
                 "recording, to this file");
  app.parse_complete_callback([&recordFile] { kycli::SetRecordFile(recordFile); });
  std::vector<std::string> args = WithSeparatorFirst(argc, argv);
  try {
    app.parse(args);
  } catch (const CLI::ParseError& e) {
    // --help asks for help on stdout and is not an error.
    if (e.get_exit_code() == 0) return app.exit(e, std::cout, std::cerr);
    return ReportParseError(app, commands, e, argc, argv);
  }
  if (fflush(stdout) != 0 || ferror(stdout)) {
    kycli::Complain("write error on standard output");
    return kycli::kExitFailure;
  }
  return status;
}
