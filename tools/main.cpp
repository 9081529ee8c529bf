// kystore: look into and change storage files from the shell.
#include <cstdio>
#include <iostream>
#include <vector>

#include "change_recording.h"
#include "commands.h"

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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Look into and change kystore storage files.", "kystore"};
  app.require_subcommand(1);
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
      kycli::RegisterGeneric(app, status),   kycli::RegisterExport(app, status),
      kycli::RegisterImport(app, status),    kycli::RegisterDump(app, status),
  };
  // Parsed before any command runs: the commands read it when they change
  // a storage.
  std::string recordFile;
  app.add_option("--record", recordFile,
                 "Append what a changing command (put, set, mkdir, rm, mv, cp) changed, as a "
                 "recording, to this file");
  app.parse_complete_callback([&recordFile] { kycli::SetRecordFile(recordFile); });
  try {
    app.parse(argc, argv);
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
