// kystore stat FILE PATH: shows the header fields of one stream as its slot
// holds them, and what its chain of data blocks holds.
#include <cstdio>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "kystore/format.h"
#include "name_text.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kStatSynopsis[] = "kystore stat FILE PATH";

struct StatOptions {
  std::string file;
  std::string path;
};

// The file offset of the slot holding `path`'s last stream, and where it
// lies ("root directory block 0, slot 6" or "folder A/B"); false after a
// message when the stream is missing.
bool FindSlot(kyStorage* storage, const std::string& file, const StreamPath& path,
              const StorageScan& scan, int64_t& offset, std::string& where) {
  const StreamPath folder(path.begin(), path.end() - 1);
  if (folder.empty()) {
    const NamedSlot* slot = scan.FindMapped(path.back());
    if (slot == nullptr || ProbePath(storage, path) == PathKind::kMissing) {
      ComplainAbout(file, path, "no such stream");
      return false;
    }
    offset = slot->offset;
    where = "root directory block " + std::to_string(slot->block) + ", slot " +
            std::to_string(slot->slot);
    return true;
  }
  StreamChain chain;
  if (!OpenPath(storage, file, folder, kModeReadShared, chain)) return false;
  t_kyStreamU header;
  tag_kyStreamOffset locator = {0, 0, 0, 0};
  if (!chain.LeafIsFolder() || !chain.Leaf()->FindStream(path.back().c_str(), header, locator)) {
    ComplainAbout(file, path, chain.LeafIsFolder() ? "no such stream" : "not a folder");
    return false;
  }
  offset = locator.headerOffset;
  where = "folder " + PrintableName(JoinPath(folder));
  return true;
}

void PrintHeader(const StreamPath& path, const t_kyStreamU& hdr, bool b64, int64_t offset,
                 const std::string& where, const ChainScan& chain) {
  const BYTE flags = hdr.Flags();
  const bool folder = flags == kFolderFlag;
  printf("path:          %s\n", PrintableName(JoinPath(path)).c_str());
  printf("kind:          %s\n", folder ? "folder" : "data stream");
  printf("length:        %lld bytes\n", static_cast<long long>(hdr.Length(b64)));
  printf("flags:         0x%02X (folder %s, size prefix %s)\n", flags, folder ? "yes" : "no",
         (flags & kSizePrefixFlag) != 0 ? "yes" : "no");
  printf("duration:      %u minutes\n", static_cast<unsigned>(hdr.Duration()));
  printf("slot:          at %lld, %s, %lld bytes\n", static_cast<long long>(offset), where.c_str(),
         static_cast<long long>(StreamHeaderSize(b64)));
  printf("first block:   %lld\n", static_cast<long long>(hdr.FirstBlock(b64)));
  printf("last block:    %lld\n", static_cast<long long>(hdr.LastBlock(b64)));
  printf("chain:         %lld blocks, %lld bytes used of %lld\n",
         static_cast<long long>(chain.blocks), static_cast<long long>(chain.usedBytes),
         static_cast<long long>(chain.roomBytes));
  if (folder) {
    const int64_t slots = hdr.Length(b64) < 4 ? 0 : (hdr.Length(b64) - 4) / StreamHeaderSize(b64);
    printf("child slots:   %lld\n", static_cast<long long>(slots));
  }
}

int Show(const StatOptions& opt, const StreamPath& path) {
  OpenedStorage storage(opt.file, false);
  if (!storage) return kExitFailure;
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) {
    Complain(opt.file, error);
    return kExitFailure;
  }
  int64_t offset = 0;
  std::string where;
  if (!FindSlot(storage.get(), opt.file, path, scan, offset, where)) return kExitFailure;
  t_kyStreamU header;
  if (!ReadStreamHeader(opt.file, scan, offset, header)) {
    ComplainAbout(opt.file, path, "cannot read its slot");
    return kExitFailure;
  }
  const ChainScan chain = ScanChain(opt.file, scan, header.FirstBlock(scan.offsets64));
  PrintHeader(path, header, scan.offsets64, offset, where, chain);
  if (chain.problem.empty()) return kExitOk;
  fflush(stdout);
  ComplainAbout(opt.file, path, "damaged chain: " + chain.problem);
  return kExitFailure;
}

int RunStat(const StatOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kStatSynopsis, path)) return kExitUsage;
  return RunReading({opt.file}, [&] { return Show(opt, path); });
}

}  // namespace

Command RegisterStat(CLI::App& app, int& status) {
  auto opt = std::make_shared<StatOptions>();
  CLI::App* sub = app.add_subcommand(
      "stat", "Show one stream's header: length, kind, flags, duration, slot, blocks");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream or folder")->required();
  sub->callback([opt, &status] { status = RunStat(*opt); });
  return {sub, kStatSynopsis};
}

}  // namespace kycli
