// The generic stream file: opening, walks, names, reads and writes,
// removals, copies, and removing a directory's files.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>
#include <tuple>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

class TolvarTest : public RootTest {
 protected:
  // The bytes of the current child, read from its start.
  std::string ChildText() {
    file.GoToBeginningOfGenericChildStream();
    std::string text(static_cast<size_t>(file.GetChildStreamSize()), '\0');
    EXPECT_EQ(static_cast<int64_t>(text.size()),
              file.ReadGenericChildStream(reinterpret_cast<unsigned char*>(&text[0]), 64));
    return text;
  }
  static unsigned char* U(const char* s) { return reinterpret_cast<unsigned char*>(C(s)); }
  static char* C(const char* s) { return const_cast<char*>(s); }
  CTolvarFile file;
};

TEST_P(TolvarTest, WalksOverTheRootStreams) {
  ASSERT_EQ(1, file.Open(path.c_str(), 2));  // new and empty: nothing to walk
  EXPECT_EQ(0, file.OpenNextGenericStream());
  EXPECT_EQ(nullptr, file.GetNextStreamName(kRO));
  file.Close();
  Make();
  const Names all = {"settings", "1a2b3c4d", "0abcdef1", "fffffffe"};
  for (const std::string& name : all) Add(name);
  Close();
  ASSERT_EQ(1, file.Open(path.c_str(), 1));
  auto walk = [&](int (CTolvarFile::*step)()) {
    Names names;
    while ((file.*step)()) names.push_back(file.GetStreamName());
    EXPECT_EQ(nullptr, file.m_pStream);  // the end closes the stream
    return names;
  };
  for (int pass = 0; pass < 2; ++pass)  // the walk starts again after its end
    EXPECT_EQ(Names({"1a2b3c4d", "fffffffe"}), walk(&CTolvarFile::OpenNextStream));
  EXPECT_EQ(all, walk(&CTolvarFile::OpenNextGenericStream));
  Names names;
  while (char* name = file.GetNextStreamName(kRO)) names.push_back(name);
  EXPECT_EQ(all, names);
  EXPECT_STREQ("fffffffe", file.GetStreamName());  // the end keeps the last one
}

TEST_P(TolvarTest, CreateStreamNameSpellsHexadecimal) {
  char buf[20];
  const std::pair<DWORD, const char*> cases[] = {
      {0x1A2B3C4D, "1a2b3c4d"}, {255, "ff"}, {0, "0"}, {0xFFFFFFFF, "ffffffff"}};
  for (const auto& c : cases) EXPECT_STREQ(c.second, CTolvarFile::CreateStreamName(c.first, buf));
  char* shared = CTolvarFile::CreateStreamName(1, nullptr);
  EXPECT_EQ(shared, CTolvarFile::CreateStreamName(0x10000000, nullptr));
  EXPECT_STREQ("10000000", shared);
}

TEST_P(TolvarTest, OpenModesCreateOnlyWhereNoFileExists) {
  const std::string other = dir.File("other.txt");
  WriteAll(other, Bytes{'k', 'e', 'e', 'p'});
  // name, mode, result, created
  const std::tuple<std::string, int, int, int> cases[] = {
      {path, 1, 0, 0}, {path, 3, 0, 0},  {path, 4, 0, 0},  {path, 2, 1, 1},
      {path, 1, 1, 0}, {other, 2, 0, 0}, {other, 1, 0, 0}, {path, 0, 0, 0}};
  for (const auto& [name, mode, result, created] : cases) {
    CTolvarFile f;
    EXPECT_EQ(result, f.Open(name.c_str(), mode)) << name << mode;
    EXPECT_EQ(Names({std::to_string(created), std::to_string(result ? mode : 0)}),
              Names({std::to_string(f.m_bCreated), std::to_string(f.m_iMode)}));
  }
  EXPECT_EQ(Bytes({'k', 'e', 'e', 'p'}), ReadAll(other));
}

TEST_P(TolvarTest, ChildWritesAppendOrEraseChildNamesWalkAndReadsSeekBack) {
  ASSERT_EQ(1, file.Open(path.c_str(), 2));
  int created = 0;
  ASSERT_EQ(1, file.OpenOrCreateGenericStream("1a2b3c4d", 0, 1, created));
  EXPECT_EQ(1, created);
  ASSERT_EQ(1, file.WriteGenericChildStream("c", U("abcdef"), 6, 0, 0));
  const std::tuple<const char*, int, int, const char*> cases[] = {
      {"XY", 0, 0, "XYcdef"}, {"12", 1, 0, "XYcdef12"}, {"Q", 0, 1, "Q"}, {"RS", 1, 1, "QRS"}};
  for (const auto& [data, bAppend, bEraseOld, after] : cases) {
    const LONG n = static_cast<LONG>(strlen(data));
    ASSERT_EQ(1, file.WriteGenericChildStream("c", U(data), n, bAppend, bEraseOld));
    ASSERT_EQ(1, file.OpenGenericStreams(C("1a2b3c4d"), C("c")));
    EXPECT_EQ(after, ChildText());
  }
  ASSERT_EQ(1, file.GoToEndOfGenericChildStream());
  EXPECT_EQ(2u, file.WriteGenericChildOpenedStream(U("!!"), 2, 0));
  EXPECT_EQ("QRS!!", ChildText());
  ASSERT_EQ(1, file.WriteGenericChildStream("d", U("x"), 1, 0, 0));
  for (int pass = 0; pass < 2; ++pass) {  // a null child starts the walk of names again
    kyStream* child = nullptr;
    Names names;
    for (char* n; (n = file.GetNextChildStreamName(child)), child != nullptr;) names.push_back(n);
    EXPECT_EQ(Names({"c", "d"}), names);
  }

  // A plain stream: no child is opened; a tag read leaves the position.
  ASSERT_EQ(1, file.OpenOrCreateGenericStream("plain", 0, 0, created));
  ASSERT_EQ(1, file.WriteGenericStream(U("TAG1body"), 8));
  EXPECT_EQ(1, file.OpenGenericStreams(C("plain"), C("c")));
  EXPECT_EQ(nullptr, file.m_pChildStream);
  kyStream* none = nullptr;
  EXPECT_EQ(nullptr, file.GetNextChildStreamName(none));
  unsigned char tag[16] = {};
  for (int64_t want : {4, 16}) {  // a full read and a short one
    ASSERT_EQ(1, file.GoToBeginningOfGenericStream());
    ASSERT_EQ(1, file.SeekForward(2));
    EXPECT_EQ(std::min<int64_t>(want, 6), file.ReadTagSeekBack(tag, want));
    EXPECT_EQ(4, file.ReadGenericStream(tag, 4));
    EXPECT_EQ("G1bo", std::string(reinterpret_cast<char*>(tag), 4));
  }
  EXPECT_EQ(0, file.SeekForward(100));
  ASSERT_EQ(1, file.OpenOrCreateGenericStream("plain", 1, 0));
  EXPECT_EQ(0, file.ReadTagSeekBack(tag, 4));  // at the end
}

TEST_P(TolvarTest, RemovalsCloseWhatPointsIntoTheRemovedStream) {
  ASSERT_EQ(1, file.Open(path.c_str(), 2));
  for (const char* name : {"10000001", "10000002"}) {
    ASSERT_EQ(1, file.OpenOrCreateGenericStream(name, 0, 1));
    ASSERT_EQ(1, file.WriteGenericChildStream("kid", U("x"), 1, 0, 0));
  }
  ASSERT_EQ(1, file.OpenGenericStreams(C("10000001"), C("kid")));
  EXPECT_EQ(1, file.RemoveGenericStream());  // the child open
  EXPECT_EQ(nullptr, file.m_pStream);
  EXPECT_EQ(nullptr, file.m_pChildStream);
  EXPECT_EQ(0, file.OpenGenericStream(C("10000001")));
  EXPECT_EQ(1, file.RemoveGenericChildStream("10000002", "none"));
  EXPECT_EQ(nullptr, file.m_pStream);
  EXPECT_EQ(1, file.RemoveGenericChildStream("10000002", "kid"));
  EXPECT_EQ(0, file.OpenGenericStreams(C("10000002"), C("kid")));
  EXPECT_EQ(0, file.RemoveGenericChildStream("missing", "kid"));
  EXPECT_EQ(1, file.RemoveGenericStream("10000002"));
  EXPECT_EQ(0, file.RemoveGenericStream("10000002"));
  EXPECT_EQ(0, file.OpenNextGenericStream());
}

// Copies start closed, so either object may go first.
TEST_P(TolvarTest, CopiesNeverShareTheOpenFile) {
  for (bool copyFirst : {false, true}) {
    auto a = std::make_unique<CTolvarFile>();
    ASSERT_EQ(1, a->Open(path.c_str(), 2));
    ASSERT_EQ(1, a->OpenOrCreateGenericStream("10000000", 0, 0));
    auto b = std::make_unique<CTolvarFile>(*a);
    auto c = std::make_unique<CTolvarFile>();
    ASSERT_EQ(1, c->Open(path.c_str(), 1));
    *c = *a;
    for (CTolvarFile* copy : {b.get(), c.get()})
      EXPECT_TRUE(!copy->m_pStorage && !copy->m_pStream && !copy->m_iMode &&
                  copy->m_bCreated == a->m_bCreated);
    (copyFirst ? b : a).reset();
    (copyFirst ? a : b).reset();
  }
}

// Removing a directory: files without an extension go, others stay, and
// the directory goes only when that empties it.
TEST_P(TolvarTest, RemoveDeletesExtensionlessFilesOfADirectory) {
  auto makeDir = [](const std::string& d, Names files) {
    mkdir(d.c_str(), 0700);
    for (const std::string& f : files) WriteAll(d + "/" + f, Bytes{1});
  };
  const std::string mixed = dir.File("mixed"), plain = dir.File("plain");
  makeDir(mixed, {"a", "b.txt", "c"});
  mkdir((mixed + "/sub").c_str(), 0700);
  makeDir(plain, {"10000000", "20000000"});
  CTolvarFile::Remove(mixed.c_str());
  CTolvarFile::Remove(plain.c_str());
  EXPECT_FALSE(Exists(mixed + "/a") || Exists(mixed + "/c") || Exists(plain));
  EXPECT_TRUE(Exists(mixed + "/b.txt") && Exists(mixed + "/sub"));
  CTolvarFile::Remove((mixed + "/b.txt").c_str());  // a file: nothing happens
  EXPECT_TRUE(Exists(mixed + "/b.txt"));

  // A file path too long to delete throws; a directory of 257 is not looked at.
  std::string longDir = dir.path() + "/";
  longDir += std::string(256 - longDir.size(), 'd');
  makeDir(longDir, {"xyz"});
  makeDir(longDir + "e", {"xyz"});
  CTolvarFile::Remove((longDir + "e").c_str());
  EXPECT_TRUE(Exists(longDir + "e/xyz"));
  int cause = -1;
  try {
    CTolvarFile::Remove(longDir.c_str());
  } catch (CFileException* e) {
    cause = e->m_cause;
    EXPECT_STREQ((longDir + "/xyz").c_str(), e->m_strFileName);
    e->Delete();
  }
  EXPECT_EQ(CFileException::badPath, cause);
  EXPECT_TRUE(Exists(longDir));
}

INSTANTIATE_TEST_SUITE_P(OffsetWidths, TolvarTest, ::testing::Bool(), RootWidthName);

}  // namespace
