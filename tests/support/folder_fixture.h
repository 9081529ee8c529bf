// Shared by the folder tests: the storage fixture with a second storage for
// copies, readers of a folder's data and the bytes a child slot must hold.
#ifndef KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_

#include <cstring>
#include <string>

#include "support/stream_fixture.h"

namespace kytest {

// Each test starts with a new, empty storage of the parameter's width.
class FolderTest : public StorageTest {
 protected:
  static constexpr DWORD RW = kModeReadWriteShared, RO = kModeReadShared;
  void SetUp() override {
    StorageTest::SetUp();
    Make(256);
  }
  void TearDown() override {
    if (other != nullptr) other->Release();
    StorageTest::TearDown();
  }
  kyStorage* Reopen(DWORD mode = RW, int load = 0) { return StorageTest::Reopen(mode, load); }
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
  // A stream's whole data ("!" without a stream, "?" when the read fails).
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
  Bytes ChildSlot(const char* name, uint16_t duration, uint8_t flags, int64_t length, int64_t last,
                  int64_t first) const {
    Bytes b(static_cast<size_t>(W()), 0);
    Put32(b, 0, kStreamHeaderMagic);
    memcpy(&b[4], name, strlen(name));
    Put16(b, 65, duration);
    b[67] = flags;
    PutOff(b, 68, length);
    PutOff(b, B64() ? 76 : 72, last);
    PutOff(b, B64() ? 84 : 76, first);
    return b;
  }
  // Writes into the file a field of the storage's width, or a DWORD.
  void Patch(int64_t at, int64_t v, bool widthField = true) {
    Bytes image = ReadAll(path);
    widthField ? PutOff(image, at, v) : Put32(image, size_t(at), uint32_t(v));
    WriteAll(path, image);
  }
  int64_t FirstBlock(kyStream* s) const { return kyTestAccess::Header(s).FirstBlock(B64()); }

  std::string otherPath = dir.File("other.kys");
  kyStorage* other = nullptr;
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_FOLDER_FIXTURE_H_
