// Shared by the folder tests: a storage of either offset width, and helpers
// that read a folder's data and build the bytes of a child slot as the file
// must hold them.
#ifndef KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/stream_fixture.h"

namespace kytest {

// Each test starts with a new, empty storage of the parameter's width.
class FolderTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ASSERT_NE(nullptr, Create()); }
  void TearDown() override {
    if (storage != nullptr) storage->Release();
  }
  bool B64() const { return GetParam(); }
  int64_t W() const { return B64() ? 92 : 80; }
  int64_t H() const { return B64() ? 40 : 20; }

  // A new storage at `path`, replacing the one the test holds.
  kyStorage* Create(DWORD blockSize = 256) {
    Close();
    kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0;  // restored by `globals`
    storage = kyStorage::Create(path.c_str(), kModeReadWriteShared, blockSize);
    return storage;
  }
  // Closes and opens the storage again.
  kyStorage* Reopen(DWORD mode = kModeReadWriteShared, int bLoadIntoMemory = 0) {
    Close();
    storage = kyStorage::Open(path.c_str(), mode, 256, bLoadIntoMemory);
    return storage;
  }
  void Close() {
    if (storage != nullptr) storage->Release();
    storage = nullptr;
  }
  // Opens a root stream of the storage held now.
  Held<kyStream> Open(const char* name, DWORD mode = kModeReadShared) {
    return Hold(storage->OpenStream(name, mode));
  }
  template <class P>
  static Held<kyStream> OpenIn(const P& folder, const char* name, DWORD mode = kModeReadShared) {
    return Hold(folder->OpenStream(name, mode));
  }
  // The names of a folder's children, in slot order.
  template <class P>
  static std::vector<std::string> ChildNames(const P& folder) {
    CStringArray names;
    folder->EnumStreams(names);
    std::vector<std::string> out;
    for (int i = 0; i < names.GetSize(); ++i) out.push_back(names[i].GetString());
    return out;
  }
  template <class P>
  static bool Finds(const P& folder, const char* name) {
    t_kyStreamU h;
    tag_kyStreamOffset o;
    return folder->FindStream(name, h, o);
  }
  kyStream* Root(const char* name, DWORD dwType = 1) {
    kyStream* s = storage->CreateStream(name, dwType, kModeReadWriteShared);
    EXPECT_NE(nullptr, s) << name;
    return s;
  }
  // Creates a child and releases it.
  template <class P>
  static void Child(const P& folder, const char* name, DWORD dwType = 0,
                    const std::string& data = "") {
    kyStream* c = folder->CreateStream(name, dwType, kModeReadWriteShared, 1);
    ASSERT_NE(nullptr, c) << name;
    if (!data.empty()) {
      EXPECT_EQ(static_cast<int64_t>(data.size()), c->Write(data.data(), data.size(), true));
    }
    c->Release();
  }
  // A stream's whole data, read from its start.
  template <class P>
  static Bytes DataOf(const P& s) {
    Bytes out(static_cast<size_t>(s->GetLength()), 0);
    if (s->Seek(0, 0, true) != 0) return Bytes();
    if (!out.empty()) {
      EXPECT_EQ(s->GetLength(), s->Read(out.data(), s->GetLength()));
    }
    return out;
  }
  template <class P>
  static std::string Text(const P& s) {
    Bytes b = DataOf(s);
    return std::string(b.begin(), b.end());
  }
  // The W bytes of a child slot.
  Bytes Slot(const char* name, uint16_t duration, uint8_t flags, int64_t length, int64_t last,
             int64_t first) const {
    Bytes b(static_cast<size_t>(W()), 0);
    Put32(b, 0, kStreamHeaderMagic);
    memcpy(&b[4], name, strlen(name));
    Put16(b, 65, duration);
    b[67] = flags;
    if (B64()) {
      Put64(b, 68, length);
      Put64(b, 76, last);
      Put64(b, 84, first);
    } else {
      Put32(b, 68, static_cast<uint32_t>(length));
      Put32(b, 72, static_cast<uint32_t>(last));
      Put32(b, 76, static_cast<uint32_t>(first));
    }
    return b;
  }
  // Slot `i` of a folder's data.
  Bytes SlotIn(const Bytes& data, size_t i) const {
    const size_t at = 4 + i * static_cast<size_t>(W());
    if (data.size() < at + static_cast<size_t>(W())) return Bytes();
    return Bytes(data.begin() + at, data.begin() + at + W());
  }
  template <class P>
  int64_t FirstBlock(const P& s) const {
    return kyTestAccess::Header(&*s).FirstBlock(B64());
  }
  template <class P>
  static int64_t HeaderOffset(const P& s) {
    return kyTestAccess::Offset(&*s).headerOffset;
  }

  GlobalsGuard globals;
  TempDir dir;
  std::string path = dir.File("tree.kys");
  kyStorage* storage = nullptr;
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_
