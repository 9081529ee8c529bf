// kystore export, import and dump: round trips through a directory tree,
// the refusals that come before anything is written, failures half-way
// that leave nothing behind, and the exact layout of a dump.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include <gtest/gtest.h>

#ifdef KYSTORE_CLI_PATH

#include "support/cli_fixture.h"

namespace {

using namespace kytest;

INSTANTIATE_TEST_SUITE_P(Widths, Cli, ::testing::Bool());

// Everything below `root`: relative path to contents, "<dir>" for a
// directory, "<other>" for the rest.
std::map<std::string, std::string> Listing(const std::string& root, const std::string& rel = "") {
  std::map<std::string, std::string> found;
  DIR* d = opendir((root + rel).c_str());
  for (struct dirent* e = d ? readdir(d) : nullptr; e != nullptr; e = readdir(d)) {
    const std::string name = e->d_name, path = rel + "/" + name;
    struct stat st;
    if (name == "." || name == ".." || lstat((root + path).c_str(), &st) != 0) continue;
    if (!S_ISDIR(st.st_mode)) {
      const Bytes b = S_ISREG(st.st_mode) ? ReadAll(root + path) : Bytes();
      found[path] = S_ISREG(st.st_mode) ? std::string(b.begin(), b.end()) : "<other>";
      continue;
    }
    found[path] = "<dir>";
    for (const auto& below : Listing(root, path)) found.insert(below);
  }
  if (d != nullptr) closedir(d);
  return found;
}

// Binary data, an empty stream, an empty folder, nested folders and a name
// with a control character, out and back in again into new storages of
// both widths and into a folder of an existing one.
TEST_P(Cli, ExportImportRoundTrip) {
  const std::string bin = Pattern(70000, 3), odd = std::string("odd\x01 name");
  Ok({"put", file, "Bin"}, bin);
  Ok({"put", file, "Top/Mid/Leaf"}, Pattern(5000, 4));
  Ok({"put", file, "Top/empty"}, "");
  Ok({"mkdir", "-p", file, "Top/Hollow"});
  Ok({"put", file, odd}, "x");
  const std::string out = dir.File("out");
  EXPECT_EQ(Ok({"export", file, out}), "");
  const auto listing = Listing(out);
  const std::map<std::string, std::string> expected = {
      {"/Bin", bin},      {"/Top", "<dir>"},        {"/Top/Mid", "<dir>"},
      {"/Top/empty", ""}, {"/Top/Hollow", "<dir>"}, {"/Top/Mid/Leaf", Pattern(5000, 4)},
      {"/" + odd, "x"}};
  EXPECT_EQ(listing, expected);
  for (const char* width : {"32", "64"}) {
    const std::string copy = dir.File(std::string("copy") + width), again = copy + ".out";
    Ok({"import", "--width", width, out, copy});
    EXPECT_NE(Ok({"info", copy}).find(std::string("width:     ") + width), std::string::npos);
    Ok({"export", copy, again});
    EXPECT_EQ(Listing(again), listing) << width;
  }
  Ok({"import", out, file, "In/Copy"});
  Ok({"export", file, "In/Copy", dir.File("sub")});
  EXPECT_EQ(Listing(dir.File("sub")), listing);
}

// What cannot be carried over is named, and nothing is written: no output
// directory, no storage (nor a temporary one), no change to a storage.
TEST_P(Cli, RefusalsWriteNothing) {
  Ok({"put", file, "Keep"}, "k");
  const std::string work = dir.File("w"), src = work + "/src", out = work + "/out",
                    fresh = work + "/new.kys";
  ASSERT_EQ(mkdir(work.c_str(), 0777), 0);
  ASSERT_EQ(mkdir(src.c_str(), 0777), 0);
  WriteAll(src + "/Keep", Bytes(3, 'k'));
  WriteAll(src + "/" + std::string(61, 'n'), Bytes());
  ASSERT_EQ(symlink("Keep", (src + "/link").c_str()), 0);
  ASSERT_EQ(mkfifo((src + "/fifo").c_str(), 0600), 0);
  const Bytes before = Image();
  const auto made = Listing(work);
  const struct {
    Args args;
    std::string err;
  } refused[] = {
      {{"import", src, fresh}, "/" + std::string(61, 'n') + ": a stream name has at most 60"},
      {{"import", src, fresh}, "/link: is a symbolic link"},
      {{"import", src, fresh}, "/fifo: is neither a regular file nor a directory"},
      {{"import", src, file}, "nothing was imported"},
      {{"export", file, work}, "is not empty"},
      {{"export", file, file}, "exists and is not a directory"},
      {{"export", file, "Keep", out}, "Keep: not a folder"},
  };
  for (const auto& r : refused) {
    SCOPED_TRACE(r.err);
    Fails(r.args, r.err, "", 1, "exec timeout -s KILL 20 ");
    EXPECT_EQ(Listing(work), made);
    EXPECT_EQ(Image(), before);
  }
  // Only the good file left: the names already in the storage are refused.
  for (const char* bad : {"/link", "/fifo"}) unlink((src + bad).c_str());
  unlink((src + "/" + std::string(61, 'n')).c_str());
  Fails({"import", src, file}, file + ": Keep: exists");
  Fails({"import", src, file, "Keep"}, file + ": Keep: exists");
  Fails({"import", src, file, "Keep/In"}, file + ": Keep: not a folder");
  Fails({"import", "--width", GetParam() ? "32" : "64", src, file}, "--width chooses");
  Fails({"--record", dir.File("rec"), "import", src, file, "New"}, "not recorded", "", 2);
  EXPECT_EQ(Image(), before);
  // Names of the storage that cannot be file names here.
  AddRoots({"..", "a/b"});
  Fails({"export", file, out}, file + ": ..: '..' cannot be a file name");
  Fails({"export", file, out}, file + ": a/b: a file name cannot hold '/'");
  EXPECT_FALSE(Exists(out));
}

// Writes that fail half-way (past the file size limit, as on a full disk)
// leave the storage as it was, no new storage, and no export directory.
TEST_P(Cli, FailuresHalfWayLeaveNothing) {
  const std::string work = dir.File("w"), src = work + "/src", fresh = work + "/new.kys";
  ASSERT_EQ(mkdir(work.c_str(), 0777), 0);
  ASSERT_EQ(mkdir(src.c_str(), 0777), 0);
  ASSERT_EQ(mkdir((src + "/Sub").c_str(), 0777), 0);
  WriteAll(src + "/Sub/a", Bytes(1000, 'a'));
  const std::string big = Pattern(300000, 5);
  WriteAll(src + "/Sub/z", Bytes(big.begin(), big.end()));
  Ok({"put", file, "Big"}, big);
  const Bytes before = Image();
  const auto made = Listing(work);
  const struct {
    Args args;
    int64_t limitKb;
  } failing[] = {{{"import", src, file}, FileSize(file) / 1024 + 1},
                 {{"import", src, fresh}, 64},
                 {{"export", file, work + "/out"}, 64}};
  for (const auto& f : failing) {
    Fails(f.args, strerror(EFBIG), "", 1,
          "trap '' XFSZ; ulimit -f " + std::to_string(f.limitKb) + "; exec ");
    EXPECT_EQ(Image(), before);
    EXPECT_EQ(Listing(work), made) << f.args[0] << " " << f.args[2];
  }
}

TEST_P(Cli, DumpShowsHexAndText) {
  Ok({"put", file, "S"}, std::string("0123456789abcdefXYZ\0\xff", 21));
  EXPECT_EQ(Ok({"dump", file, "S"}),
            "00000000: 3031 3233 3435 3637 3839 6162 6364 6566  0123456789abcdef\n"
            "00000010: 5859 5a00 ff                             XYZ..\n");
  EXPECT_EQ(Ok({"dump", file, "S", "--offset", "3", "--length", "14"}),
            "00000003: 3334 3536 3738 3961 6263 6465 6658       3456789abcdefX\n");
  EXPECT_EQ(Ok({"dump", file, "S", "--offset", "21"}), "");
  Fails({"dump", file, "S", "--offset", "-1"}, "'-1' is not a byte count", "", 2);
  Fails({"dump", file, "S", "--length", "x"}, "'x' is not a byte count", "", 2);
  Ok({"mkdir", file, "F"});
  Fails({"dump", file, "F"}, "F: is a folder");
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
