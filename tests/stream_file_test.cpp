// The file-class adapter over a stream, its run-time class record, and the
// hash word helpers.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

// Without a stream everything is empty or fails; the class record.
TEST(StreamFile, WithoutAStreamAndItsClass) {
  CKyStreamFile file;
  char buf[4] = {'u', 'n', 't', 'o'};
  file.Write(buf, 4);
  EXPECT_EQ(0u, file.Read(buf, 4) + file.GetLength() + file.GetStorageName().GetLength());
  EXPECT_TRUE(file.Seek(0, 0) == -1 && file.Duplicate() == nullptr);
  CFile& base = file;  // CFile's own 64-bit operations: no file behind them
  EXPECT_EQ(0u, base.Seek(100, CFile::begin));

  EXPECT_TRUE(file.IsKindOf(RUNTIME_CLASS(CFile)) && file.IsKindOf(RUNTIME_CLASS(CObject)));
  EXPECT_FALSE(file.IsKindOf(RUNTIME_CLASS(CFileException)) ||
               CFile().IsKindOf(RUNTIME_CLASS(CKyStreamFile)));
}

class StreamFileOverStream : public RootTest {};

TEST_P(StreamFileOverStream, ReadsWritesAndSeeksTheStream) {
  Make();
  kyStream* stm = Must(storage->CreateStream("s", kRW));
  {
    CKyStreamFile file(stm);
    file.Write("0123456789", 10);
    EXPECT_TRUE(file.GetLength() == 10 && file.GetStorageName() == CString("s"));
    char buf[8] = {};
    // offset, from, result of the seek, what a read then gives
    const std::tuple<LONG, UINT, LONG, std::string> cases[] = {{-4, 0, 0, "6789"}, {0, 2, 0, "01"},
                                                               {3, 0, 0, "34"},    {2, 1, 0, "78"},
                                                               {11, 0, -1, "9"},   {5, 7, 0, "01"}};
    for (const auto& [offset, from, result, read] : cases) {
      EXPECT_EQ(result, file.Seek(offset, from)) << offset;
      ASSERT_EQ(read.size(), file.Read(buf, static_cast<UINT>(read.size())));
      EXPECT_EQ(read, std::string(buf, read.size()));
    }
    file.Close();
    EXPECT_EQ(0, file.Seek(0, 0));
    EXPECT_EQ(2u, file.Read(buf, 2));
  }
  // The adapter is gone; the stream is still open and usable.
  char buf[3] = {};
  EXPECT_EQ(0, stm->Seek(7, 0));
  EXPECT_EQ(3, stm->Read(buf, 3));
  const int64_t block = kyTestAccess::Header(stm).FirstBlock(B64());
  stm->Release();
  Close();
  Bytes image = ReadAll(path);  // a damaged block: the read's -1 cut to 32 bits
  Put32(image, static_cast<size_t>(block), 0);
  WriteAll(path, image);
  Reopen();
  Held<kyStream> damaged = Hold(OpenRoot("s"));
  EXPECT_EQ(0xFFFFFFFFu, CKyStreamFile(damaged.get()).Read(buf, 3));
}

INSTANTIATE_TEST_SUITE_P(OffsetWidths, StreamFileOverStream, ::testing::Bool(), RootWidthName);

TEST(HashWords, IndexLoadAndStore) {
  DWORD table[10] = {};
  const DWORD cases[][4] = {// shift, mask, hash, index
                            {28, 0xF, 0xA1234567, 10},
                            {32, 0xFF, 0x12345678, 0x78},
                            {4, 0xFF, 0x1234, 0x23}};
  for (const auto& c : cases) {
    table[4] = c[0];
    table[9] = c[1];
    EXPECT_EQ(c[3], FormHashIndexDword(table, c[2]));
  }
  unsigned char word[5] = {};
  EXPECT_EQ(0xDEADBEEFu, HashStoreHashWord(word + 1, 0xDEADBEEF));  // any alignment
  EXPECT_EQ(0xDEADBEEFu, HashLoadHashWord(word + 1));
  EXPECT_EQ(0xEFu, word[1]);  // little-endian
  EXPECT_EQ(0u, HashLoadHashWord(nullptr));
}

}  // namespace
