// The subcommands of the kystore command and the helpers they share.
//
// Each subcommand lives in its own cmd_*.cpp file and is added to the
// command line by its Register function, called from main.cpp.  A command
// reports its outcome through `status` with the exit statuses of familiar
// Unix tools: 0 success, 1 failure, 2 bad usage.  Messages go to stderr
// prefixed "kystore: ".
#ifndef KYSTORE_TOOLS_COMMANDS_H_
#define KYSTORE_TOOLS_COMMANDS_H_

#include <string>

#include <CLI/CLI.hpp>

namespace kycli {

const int kExitOk = 0;
const int kExitFailure = 1;
const int kExitUsage = 2;

// One registered subcommand and its one-line synopsis, printed on stderr
// after a usage error.
struct Command {
  CLI::App* app;
  std::string synopsis;
};

Command RegisterCreate(CLI::App& app, int& status);
Command RegisterInfo(CLI::App& app, int& status);
Command RegisterLs(CLI::App& app, int& status);
Command RegisterCat(CLI::App& app, int& status);
Command RegisterPut(CLI::App& app, int& status);
Command RegisterTree(CLI::App& app, int& status);
Command RegisterMkdir(CLI::App& app, int& status);
Command RegisterRm(CLI::App& app, int& status);
Command RegisterMv(CLI::App& app, int& status);
Command RegisterCp(CLI::App& app, int& status);
Command RegisterRecording(CLI::App& app, int& status);
Command RegisterGet(CLI::App& app, int& status);
Command RegisterSet(CLI::App& app, int& status);
Command RegisterEntries(CLI::App& app, int& status);
Command RegisterReplay(CLI::App& app, int& status);
Command RegisterCompact(CLI::App& app, int& status);
Command RegisterGeneric(CLI::App& app, int& status);
Command RegisterDu(CLI::App& app, int& status);
Command RegisterStat(CLI::App& app, int& status);
Command RegisterCheck(CLI::App& app, int& status);
Command RegisterExport(CLI::App& app, int& status);
Command RegisterImport(CLI::App& app, int& status);
Command RegisterDump(CLI::App& app, int& status);

// Prints "kystore: <message>" on stderr.
void Complain(const std::string& message);
// Prints "kystore: <subject>: <message>" on stderr.
void Complain(const std::string& subject, const std::string& message);
// A usage error found after parsing (for instance a malformed path): the
// message and the command's synopsis ("kystore NAME ...") on stderr.
// Returns kExitUsage.
int UsageError(const std::string& synopsis, const std::string& message);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_COMMANDS_H_
