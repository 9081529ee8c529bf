// The kystore commands for entries, recordings and rebuilds: get, set and
// entries; --record with replay; compact killed at any moment; generic.
#ifdef KYSTORE_CLI_PATH

#include <signal.h>

#include <map>

#include "support/cli_fixture.h"

namespace {

using namespace kytest;

class CliValues : public Cli {
 protected:
  // Every stream of the storage `path`: its path and data ("/" for a folder).
  std::map<std::string, std::string> Dump(const std::string& path) {
    std::map<std::string, std::string> out;
    kyStorage* storage = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
    int at = -1;
    for (kyStream* s = storage ? storage->OpenStreamFirst2(at, 0x12) : nullptr; s != nullptr;
         s = storage->OpenStreamNext2(at, 0x12))
      DumpTree(s, s->GetName(), out);
    storage ? storage->Release() : ADD_FAILURE() << path;
    return out;
  }
  void DumpTree(kyStream* s, const std::string& path, std::map<std::string, std::string>& out) {
    std::string data(s->IsFolder() ? 0 : static_cast<size_t>(s->GetLength()), '\0');
    const __int64 n = static_cast<__int64>(data.size());
    EXPECT_EQ(n == 0 ? 0 : s->Read(&data[0], n), n) << path;
    out[path] = s->IsFolder() ? "/" : data;
    __int64 at = 0;
    for (kyStream* c = s->OpenStreamFirst(&at, 0x12); c; c = s->OpenStreamNext(&at, 0x12))
      DumpTree(c, path + "/" + c->GetName(), out);
    s->Release();
  }
};

INSTANTIATE_TEST_SUITE_P(Widths, CliValues, ::testing::Bool());

TEST_P(CliValues, SetGetAndEntries) {
  const struct {
    const char *path, *type, *value, *typed, *byLength;
  } values[] = {
      // clang-format off
      {"Cfg/Width", "int", "-640", "-640", "int -640  [80 fd ff ff]"},
      {"Cfg/U", "uint", "4294967295", "4294967295", "int -1  [ff ff ff ff]"},
      {"Cfg/D", "double", "0.1", "0.1", "double 0.1  int64 4591870180066957722  [9a 99 99 99 99 99 b9 3f]"},
      {"Cfg/L", "int64", "4611686018427387904", "4611686018427387904", "double 2  int64 4611686018427387904  [00 00 00 00 00 00 00 40]"},
      {"Cfg/S", "string", "a \"b\"\n!", "a \"b\"\n!", "string \"a \\\"b\\\"\\x0a!\"  [07 00 61 20 22 62 22 0a 21]"},
      {"Cfg/R", "rect", "1, -2 3 4", "1 -2 3 4", "hex 01 00 00 00 fe ff ff ff 03 00 00 00 04 00 00 00"},
      {"Cfg/Z", "size", "640 480", "640 480", "double 1.01855797997953e-311  int64 2061584302720  [80 02 00 00 e0 01 00 00]"},
      {"Cfg/H", "hex", "ff 0001", "ff 00 01", "hex ff 00 01"},
      {"Top", "int", "7", "7", "int 7  [07 00 00 00]"},
      // clang-format on
  };
  std::string listing;
  for (const auto& v : values) {
    SCOPED_TRACE(v.path);
    Ok({"set", file, v.path, v.value, "--type", v.type});
    EXPECT_EQ(Ok({"get", file, v.path, "-t", v.type}), std::string(v.typed) + "\n");
    EXPECT_EQ(Ok({"get", file, v.path}), std::string(v.byLength) + "\n");
    char line[160];
    snprintf(line, sizeof(line), "%-20s %s\n", v.path + (v.path[0] == 'C' ? 4 : 0), v.byLength);
    if (v.path[0] == 'C') listing += line;
  }
  EXPECT_EQ(Ok({"entries", file, "Cfg"}), listing);
  EXPECT_EQ(Ok({"entries", file, "/"}), "Top                  int 7  [07 00 00 00]\n");
  // Values that are not of their type, and entries that cannot be set or
  // read, are refused; the file stays byte for byte as it was.
  const Bytes before = Image();
  const struct {
    Args args;
    std::string err;
  } refused[] = {
      {{"set", file, "Cfg/N", "12x", "-t", "int"}, "'12x' is not an integer"},
      {{"set", file, "Cfg/N", "1099511627776", "-t", "int"}, "is not an integer"},
      {{"set", file, "Cfg/N", "1 2 3", "-t", "rect"}, "is not four integers"},
      {{"set", file, "Cfg/N", "abc", "-t", "hex"}, "is not pairs of hexadecimal digits"},
      {{"set", file, "Cfg/N", "1e999", "-t", "double"}, "is not a number"},
      {{"set", file, "Cfg", "1", "-t", "int"}, "Cfg: is a folder"},
      {{"set", file, "Top/N", "1", "-t", "int"}, "Top: not a folder"},
      {{"set", file, "N", "1 2", "-t", "size"}, "kept in a folder"},
      {{"get", file, "Cfg/H", "-t", "int"}, "holds 3 bytes, too few for int"},
      {{"get", file, "Cfg/None"}, "Cfg/None: no such entry"},
  };
  for (const auto& r : refused) {
    EXPECT_EQ(Fails(r.args, r.err).out, "") << r.err;
    EXPECT_EQ(Image(), before) << r.err;
  }
}

// Changes made with --record, replayed into a copy of the starting state,
// give the same tree; a failed change appends nothing; a recording cut
// short applies its whole records and fails.
TEST_P(CliValues, RecordedChangesReplayIntoTheStartingState) {
  Ok({"put", file, "Old/keep"}, "kept data");
  Ok({"put", file, "Old/gone"}, "gone");
  Ok({"put", file, "Data/B"}, "a folder will replace me");
  const std::string start = dir.File("start.kys"), rec = dir.File("r.rec");
  WriteAll(start, Image());
  const Args changes[] = {
      // clang-format off
      {"put", file, "A/B/c", "-"}, {"set", file, "A/Width", "640", "-t", "int"},
      {"set", file, "A/T", "text", "-t", "string"}, {"mkdir", "-p", file, "M/N"},
      {"rm", "-r", file, "Old/gone"}, {"mv", file, "A", "Moved"}, {"cp", file, "Moved", file, "Copy"},
      {"put", file, "Old/keep", "-"}, {"cp", file, "Moved", file, "Data"},
      {"set", file, "Copy/Width", "ff", "-t", "hex"},
      // clang-format on
  };
  for (const Args& c : changes) {  // Old/keep is emptied
    Args args = {"--record", rec};
    args.insert(args.end(), c.begin(), c.end());
    Ok(args, c[0] == "put" && c[2] != "Old/keep" ? "new data" : "");
  }
  const Bytes recording = ReadAll(rec);
  Fails({"--record", rec, "cp", file, "Moved", file, "Moved/B/c"}, "lies inside Moved");
  EXPECT_EQ(ReadAll(rec), recording);
  EXPECT_NE(Ok({"recording", rec}).find("remove     gone"), std::string::npos);
  const std::string applied = Ok({"replay", start, rec});
  EXPECT_EQ(applied, std::to_string(std::stoi(applied)) + " records applied\n");
  EXPECT_EQ(Dump(start), Dump(file));
  WriteAll(rec, Bytes(recording.begin(), recording.begin() + 9));  // enter A, then cut
  EXPECT_EQ(Fails({"replay", file, rec}, "cut short at byte 5 after 1 records").out,
            "1 records applied\n");
}

// Killed at any moment of a rebuild, compact leaves the storage whole with
// the same content, and a later compact succeeds.
TEST_P(CliValues, CompactKilledAtAnyMomentKeepsTheContent) {
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
  ASSERT_NE(storage, nullptr);
  for (int i = 0; i < 3000; ++i) storage->SetEntry(("e" + std::to_string(i)).c_str(), i);
  storage->Release();
  const auto content = Dump(file);
  for (int k : {1, 700, 2000, 2999, 3000}) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string run =
        "exec " + CommandLine({"compact", "--progress", file}) + " 2>&1 >/dev/null";
    const pid_t pid = fork();
    if (pid == 0 && dup2(fds[1], 1) == 1) execl("/bin/sh", "sh", "-c", run.c_str(), (char*)nullptr);
    if (pid == 0) _exit(127);
    close(fds[1]);
    std::string seen;  // each report ends in "done"; the first reports 0
    int done = -1;
    for (char c; done < k && read(fds[0], &c, 1) == 1;)
      if ((seen += c).size() > 4 && seen.compare(seen.size() - 4, 4, "done") == 0) ++done;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(fds[0]);
    EXPECT_GE(done, k) << seen.substr(0, 200);
    EXPECT_EQ(Dump(file), content) << k;
  }
  EXPECT_NE(Ok({"compact", file}).find("streams:     3000\n"), std::string::npos);
  EXPECT_EQ(Dump(file), content);
}

TEST_P(CliValues, GenericListsTheNumberedStreams) {
  Ok({"put", file, "65a0c000"}, "12345");
  Ok({"put", file, "settings"}, "x");
  Ok({"mkdir", "-p", file, "1a2b3c4d/a"});
  Ok({"put", file, "1a2b3c4d/b"}, "");
  Ok({"put", file, "fffffffe"}, "");
  char folder[80];  // two child slots after the count
  snprintf(folder, sizeof(folder), "1a2b3c4d   439041101  1983-11-30T11:51:41Z  %12zu  2\n",
           4 + 2 * W());
  EXPECT_EQ(Ok({"generic", file}),
            "name           value  time (UTC)                    size  children\n"
            "65a0c000  1705033728  2024-01-12T04:28:48Z             5  -\n" +
                std::string(folder) +
                "fffffffe  4294967294  -                                0  -\n");
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
