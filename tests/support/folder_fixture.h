// Shared by the folder tests: a storage of either offset width (and a second
// one for copies), helpers that read a folder's data, build the bytes of a
// child slot as the file must hold them, and patch the file.
#ifndef KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/stream_fixture.h"

namespace kytest {

typedef std::vector<std::string> Names;

// Each test starts with a new, empty storage of the parameter's width.
class FolderTest : public ::testing::TestWithParam<bool> {
 protected:
  static constexpr DWORD RW = kModeReadWriteShared, RO = kModeReadShared;
  void SetUp() override { ASSERT_NE(nullptr, Create()); }
  void TearDown() override {
    Close();
    if (other != nullptr) other->Release();
  }
  bool B64() const { return GetParam(); }
  int64_t W() const { return B64() ? 92 : 80; }
  int64_t H() const { return B64() ? 40 : 20; }

  // A new storage, or the file opened again, in place of the one held.
  kyStorage* Create(DWORD blockSize = 256) {
    Close();
    kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0;  // restored by `globals`
    return storage = kyStorage::Create(path.c_str(), RW, blockSize);
  }
  kyStorage* Reopen(DWORD mode = RW, int bLoadIntoMemory = 0) {
    Close();
    return storage = kyStorage::Open(path.c_str(), mode, 256, bLoadIntoMemory);
  }
  void Close() {
    if (storage != nullptr) storage->Release();
    storage = nullptr;
  }
  // The second storage at `otherPath`, made new or opened again.
  kyStorage* Other(bool create, DWORD blockSize = 64) {
    if (other != nullptr) other->Release();
    return other = create ? kyStorage::Create(otherPath.c_str(), RW, blockSize)
                          : kyStorage::Open(otherPath.c_str(), RW, blockSize, 0);
  }
  Held<kyStream> Open(const char* name, DWORD mode = RO) {
    return Hold(storage->OpenStream(name, mode));
  }
  template <class P>
  static Held<kyStream> OpenIn(const P& folder, const char* name, DWORD mode = RO) {
    return Hold(folder->OpenStream(name, mode));
  }
  kyStream* Root(const char* name, DWORD dwType = 1) {
    kyStream* s = storage->CreateStream(name, dwType, RW);
    EXPECT_NE(nullptr, s) << name;
    return s;
  }
  // Creates a child, writes `data` into it and releases it.
  template <class P>
  static void Child(const P& folder, const char* name, DWORD dwType = 0, std::string data = "") {
    kyStream* c = folder->CreateStream(name, dwType, RW, 1);
    ASSERT_NE(nullptr, c) << name;
    EXPECT_EQ(int64_t(data.size()), data.empty() ? 0 : c->Write(&data[0], data.size(), true));
    c->Release();
  }
  // The names of a folder's children, in slot order.
  template <class P>
  static Names ChildNames(const P& folder) {
    CStringArray names;
    folder->EnumStreams(names);
    Names out;
    for (int i = 0; i < names.GetSize(); ++i) out.push_back(names[i].GetString());
    return out;
  }
  template <class P>
  static bool Finds(const P& folder, const char* name) {
    t_kyStreamU h;
    tag_kyStreamOffset o;
    return folder->FindStream(name, h, o);
  }
  // A stream's whole data, read from its start ("!" without a stream, "?"
  // when the read fails).
  template <class P>
  static Bytes DataOf(const P& s) {
    if (!s) return Bytes(1, '!');
    Bytes out(static_cast<size_t>(s->GetLength()), 0);
    if (out.empty()) return out;  // a seek in a stream without a block fails
    const bool ok =
        s->Seek(0, 0, true) == 0 && s->Read(out.data(), s->GetLength()) == s->GetLength();
    return ok ? out : Bytes(1, '?');
  }
  template <class P>
  static std::string Text(const P& s) {
    const Bytes b = DataOf(s);
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
    PutField(b, 68, length);
    PutField(b, B64() ? 76 : 72, last);
    PutField(b, B64() ? 84 : 76, first);
    return b;
  }
  // Writes an offset or length of the storage's width into `b`.
  void PutField(Bytes& b, int64_t at, int64_t v) const {
    if (B64())
      Put64(b, size_t(at), v);
    else
      Put32(b, size_t(at), uint32_t(v));
  }
  // Writes into the file a field of the storage's width, or a DWORD.
  void Patch(int64_t at, int64_t v, bool widthField = true) {
    Bytes image = ReadAll(path);
    widthField ? PutField(image, at, v) : Put32(image, size_t(at), uint32_t(v));
    WriteAll(path, image);
  }
  int64_t FirstBlock(kyStream* s) const { return kyTestAccess::Header(s).FirstBlock(B64()); }
  static int64_t HeaderOffset(kyStream* s) { return kyTestAccess::Offset(s).headerOffset; }

  GlobalsGuard globals;
  TempDir dir;
  std::string path = dir.File("tree.kys"), otherPath = dir.File("other.kys");
  kyStorage* storage = nullptr;
  kyStorage* other = nullptr;
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_
