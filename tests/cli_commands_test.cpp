// The reading commands' --json output against their text, names that are
// not plain text, the everyday commands (ls PATH, mv, cp at the root, du,
// stat, rm -rf, --), and the changing commands' refusals on bad files.
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "support/cli_fixture.h"

namespace {

using kytest::Args;
using kytest::Bytes;
using kytest::Cli;
using kytest::CliResult;

class CliCommands : public Cli {
 protected:
  // Parses `json` with Python and prints `expr` of the document `d`.
  std::string Py(const std::string& json, const std::string& expr) {
    const std::string in = dir.File("j.json"), out = dir.File("j.out");
    kytest::WriteAll(in, Bytes(json.begin(), json.end()));
    const std::string script = "import json,sys\nd=json.load(sys.stdin)\nprint(" + expr + ")";
    EXPECT_EQ(std::system(("python3 -c " + kytest::Quote(script) + " <" + kytest::Quote(in) + " >" +
                           kytest::Quote(out))
                              .c_str()),
              0)
        << json;
    const Bytes o = kytest::ReadAll(out);
    return {o.begin(), o.end()};
  }
};

// Columns `name` and `value` (-1: none) of each text line after `skip`
// header lines, "name value" per line; a folder's trailing '/' is dropped.
std::string Columns(const std::string& text, int name, int value, int skip) {
  std::istringstream lines(text);
  std::string line, out;
  for (int n = 0; std::getline(lines, line); ++n) {
    if (n < skip) continue;
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string word; words >> word;) w.push_back(word);
    std::string first = w[name < 0 ? w.size() + name : name];
    if (first.back() == '/') first.pop_back();
    out += first + (value < 0 ? "" : " " + w[value]) + "\n";
  }
  return out;
}

TEST_P(CliCommands, JsonParsesAndMatchesTheText) {
  Ok({"put", file, "Settings/Display/Width"}, "640\n");
  Ok({"set", file, "Settings/Count", "7", "-t", "int"});
  Ok({"put", file, "65a0c000"}, "first sample");
  Ok({"mkdir", file, "Empty"});
  const std::string lines = "'\\n'.join(%s for s in d['%s'])";
  auto pairs = [&](const char* fields, const char* list) {
    char expr[200];
    snprintf(expr, sizeof expr, lines.c_str(), fields, list);
    return std::string(expr);
  };
  const std::string nameLength = "s['name']+' '+str(s['length'])";
  const struct {
    Args text;
    std::string expr;
    int name, value, skip;
  } cases[] = {
      {{"ls", "-l", file}, pairs(nameLength.c_str(), "streams"), -1, 1, 1},
      {{"ls", "-l", file, "Settings"}, pairs(nameLength.c_str(), "streams"), -1, 1, 1},
      {{"tree", file}, pairs(nameLength.c_str(), "streams"), 0, 1, 0},
      {{"tree", file, "Settings"}, pairs("s['path']", "streams"), 0, -1, 0},
      {{"entries", file, "Settings"},
       pairs("s['name']+' '+s['value'].split()[0]", "entries"),
       0,
       1,
       0},
      {{"generic", file}, pairs("s['name']+' '+str(s['size'])", "streams"), 0, 3, 1},
      {{"get", file, "Settings/Count"}, "d['value'].split()[1]", 1, -1, 0},
      {{"info", file}, "str(d['root_streams'])", 2, -1, 6},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text[0] + " " + c.text.back());
    Args json = c.text;
    json.insert(json.begin() + 1, "--json");
    std::string text = Ok(c.text);
    if (c.text[0] == "tree" && c.value < 0) {  // whole paths, built from the indentation
      text = "Settings\nSettings/Display\nSettings/Display/Width\nSettings/Count\n";
      EXPECT_EQ(Columns(Ok(c.text), 0, -1, 0), "Settings\nDisplay\nWidth\nCount\n");
    } else {
      text = Columns(c.text[0] == "info" ? text.substr(0, text.find("file size")) : text, c.name,
                     c.value, c.skip);
    }
    EXPECT_EQ(Py(Ok(json), c.expr), text);
  }
}

TEST_P(CliCommands, NamesThatAreNotTextAreEscaped) {
  const std::string control = "ctl\x01\x1b[2J", invalid = "bad\xff";
  AddRoots({control, invalid, "back\\slash"});
  EXPECT_EQ(Ok({"ls", file}), "ctl\\x01\\x1b[2J\nbad\\xff\nback\\\\slash\n");
  EXPECT_EQ(Py(Ok({"ls", "--json", file}),
               "ascii([(s['name'], s.get('name_hex')) for s in d['streams']][:2])"),
            "[('ctl\\x01\\x1b[2J', None), ('bad\\ufffd', '626164ff')]\n");
  EXPECT_NE(Ok({"tree", file}).find("bad\\xff "), std::string::npos);
  Fails({"cat", file, invalid + "/x"}, ": bad\\xff: not a folder");
  Fails({"put", file, std::string(61, 'n')}, "stream names have 1 to 60 bytes", "", 2);
}

TEST_P(CliCommands, EverydayCommandsWorkAsTheirShellNamesakes) {
  const std::string big = kytest::Pattern(70000, 3);
  Ok({"put", file, "A/big"}, big);
  Ok({"put", file, "A/Sub/x"}, "12345");
  Ok({"mkdir", "-p", file, "B"});
  EXPECT_EQ(Ok({"ls", file, "A"}), "big\nSub\n");
  EXPECT_EQ(Ok({"du", file}), "5\tA/Sub\n70005\tA\n0\tB\n70005\t/\n");
  EXPECT_EQ(Ok({"du", "-s", file, "A"}), "70005\tA\n");
  const std::string stat = Ok({"stat", file, "A/big"});
  EXPECT_NE(stat.find("length:        70000 bytes\n"), std::string::npos) << stat;
  EXPECT_NE(stat.find("kind:          data stream\n"), std::string::npos);
  EXPECT_NE(stat.find("chain:         "), std::string::npos);
  Ok({"mv", file, "A", "B"});               // into an existing folder
  Ok({"mv", file, "B/A/Sub", "/"});         // to the root, keeping its name
  Ok({"mv", file, "B/A/big", "Sub/huge"});  // to a new name in another folder
  EXPECT_EQ(Ok({"cat", file, "Sub/huge"}), big);
  EXPECT_EQ(Ok({"cat", file, "Sub/x"}), "12345");
  Fails({"mv", file, "B", "B/A"}, "cannot move a folder into itself");
  const std::string other = dir.File("o.kys");
  Ok({"create", other});
  Ok({"cp", file, "/", other, "All"});
  Ok({"cp", file, "Sub", other, "/"});
  EXPECT_EQ(Ok({"ls", other}), "All\nx\nhuge\n");
  EXPECT_EQ(Ok({"cat", other, "All/Sub/huge"}), big);
  Ok({"put", file, "--", "-dash"}, "d");
  Ok({"rm", "-rf", file, "Nothing", "B", "--", "-dash"});
  EXPECT_EQ(Ok({"ls", file}), "Sub\n");
}

// A changing command on a bad file says so in one line, exits 1 and leaves
// the file byte for byte as it was.
TEST_P(CliCommands, ChangingCommandsOnBadFilesChangeNothing) {
  Ok({"put", file, "A/x"}, "data");
  const Bytes good = Image();
  Bytes damaged = good;
  damaged[GetParam() ? 32 : 32] ^= 0xFF;  // the first directory block's magic
  const std::string notStorage = "plain text, not a storage\n";
  const struct {
    const char* what;
    Bytes image;
    bool directory, readOnly;
  } files[] = {
      {"damaged", damaged, false, false},
      {"empty", Bytes(), false, false},
      {"directory", Bytes(), true, false},
      {"not a storage", Bytes(notStorage.begin(), notStorage.end()), false, false},
      {"missing", Bytes(), false, false},
      {"read-only", good, false, true},
  };
  chmod(dir.path().c_str(), 0755);
  for (const auto& f : files) {
    const std::string target = dir.File(std::string("bad-") + f.what);
    if (f.directory) mkdir(target.c_str(), 0755);
    if (!f.directory && std::string(f.what) != "missing") kytest::WriteAll(target, f.image);
    if (f.readOnly) chmod(target.c_str(), 0444);
    // root ignores file modes: the read-only case runs as nobody.
    const std::string shell =
        f.readOnly && geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
    for (const Args& args : {Args{"mv", target, "A/x", "A/y"}, Args{"cp", file, "A", target, "B"},
                             Args{"cp", target, "/", file, "C"}, Args{"rm", "-rf", target, "A"}}) {
      SCOPED_TRACE(std::string(f.what) + ": " + args[0]);
      const CliResult r = Run(args, "", shell);
      EXPECT_EQ(r.status, 1) << r.err;
      EXPECT_EQ(r.err.rfind("kystore: ", 0), 0u) << r.err;
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      if (!f.directory) {
        EXPECT_EQ(kytest::Exists(target) ? kytest::ReadAll(target) : Bytes(), f.image);
      }
      EXPECT_EQ(Image(), good);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, CliCommands, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Offsets64" : "Offsets32";
                         });

}  // namespace
