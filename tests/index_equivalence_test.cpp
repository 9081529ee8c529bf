// The in-memory indexes only shorten searches, and gathering writes only
// saves system calls: one long seeded sequence of changes, run with the
// indexes, with every search starting at the beginning, and with writes
// gathered now and then, must leave byte-identical files.

#include <unistd.h>

#include <random>
#include <string>

#include "container/file_indexes.h"
#include "support/stream_fixture.h"

namespace {

using namespace kytest;

const DWORD kFolder = 1;

// The changes, drawn from a fixed seed so that both runs make the same
// calls: every draw is made whatever earlier calls returned, so that a
// result that differs shows as different bytes, not as another sequence.
class Sequence {
 public:
  Sequence(const TempDir& dir, bool b64)
      : m_path(dir.File("seq.kys")), m_link(dir.File("seq-link.kys")), m_b64(b64) {}

  Bytes Run(bool bypassed, bool batches) {
    m_batches = batches;
    kyStorage::g_bUse64BitOffsets = m_b64 ? 1 : 0;
    kyFileIndexes::SetBypassed(bypassed);
    unlink(m_link.c_str());
    if (symlink(m_path.c_str(), m_link.c_str()) != 0) return Bytes();
    m_rng.seed(20261123);
    m_a = kyStorage::Create(m_path.c_str(), kRW, 4096);
    // One folder object stays open through the run beside the short-lived ones.
    m_kept = m_a->OpenOrCreateStream("f0", 1);
    for (int i = 0; i < 4000; ++i) Step();
    if (m_kept) m_kept->Release();
    if (m_b) m_b->Release();
    m_a->Release();
    m_a = m_b = nullptr;
    kyFileIndexes::SetBypassed(false);
    return ReadAll(m_path);
  }

 private:
  unsigned Below(unsigned n) { return m_rng() % n; }
  std::string Root() { return "r" + std::to_string(Below(600)); }
  std::string Child() { return "c" + std::to_string(Below(300)); }
  std::string FolderName() { return "f" + std::to_string(Below(3)); }
  // Storage object A or, while it is open, B: the same file under another path.
  kyStorage* Either() { return Below(2) && m_b != nullptr ? m_b : m_a; }

  void WriteAndRelease(kyStream* s) {
    const unsigned size = 100 + Below(50);
    const std::string data(size, static_cast<char>('a' + Below(26)));
    if (s == nullptr) return;
    // A creation moves the shared file position (the folder writes its
    // count after the child's): the new stream is positioned first.  A
    // folder's data are its slots, not written here.
    if (!s->IsFolder()) {
      s->Seek(0, 0, true);
      s->Write(data.data(), static_cast<__int64>(data.size()));
    }
    s->Release();
  }
  static void Rename(kyStream* s, const std::string& name) {
    if (s == nullptr) return;
    s->Rename(name.c_str());
    s->Release();
  }
  static void RemoveOrRelease(kyStream* s) {
    if (s != nullptr && !s->Remove()) s->Release();
  }
  // The held folder object or one opened now; `opened` says which.
  kyStream* Folder(bool& opened) {
    if (Below(2) && m_kept != nullptr) {
      opened = false;
      return m_kept;
    }
    opened = true;
    return Either()->OpenOrCreateStream(FolderName().c_str(), 1);
  }

  void Step() {
    // A small limit, so that gathered writes also reach the file mid-batch.
    // Opening B ends A's batch; A cannot start one while B is open.
    if (Below(40) == 0 && m_batches)
      m_batching = m_batching ? !m_a->EndWriteBatch() : m_a->BeginWriteBatch(64 << 10);
    const unsigned op = Below(100);
    if (op < 30) {
      WriteAndRelease(Either()->CreateStream(Root().c_str(), kRW));
    } else if (op < 45) {
      RemoveOrRelease(Either()->OpenStream(Root().c_str(), kRW));
    } else if (op < 50) {
      kyStorage* st = Either();
      const std::string name = Root();
      Rename(st->OpenStream(name.c_str(), kRW), Root());
    } else if (op < 54) {
      kyStream* src = Either()->OpenStream(Root().c_str(), kRO);
      kyStream* dst = Either()->OpenStream(Root().c_str(), kRW);
      if (src != nullptr && dst != nullptr) src->CopyStream(dst);
      if (dst != nullptr) dst->Release();
      if (src != nullptr) src->Release();
    } else if (op < 94) {
      FolderStep(op);
    } else if (op < 97) {
      if (m_kept) m_kept->Release();
      m_a->Release();
      m_a = kyStorage::Open(m_path.c_str(), kRW, 4096, 0);
      m_batching = false;
      m_kept = m_a->OpenOrCreateStream("f0", 1);
    } else if (m_b != nullptr) {
      m_b->Release();
      m_b = nullptr;
    } else {
      m_b = kyStorage::Open(m_link.c_str(), kRW, 4096, 0);
    }
  }

  void FolderStep(unsigned op) {
    bool opened = false;
    kyStream* f = Folder(opened);
    const std::string name = Child(), other = Child();
    const bool childFolder = Below(8) == 0, check = Below(2) != 0;
    if (f == nullptr) return;
    if (op < 75) {
      WriteAndRelease(f->CreateStream(name.c_str(), childFolder ? kFolder : 0, kRW, 1));
    } else if (op < 85) {
      RemoveOrRelease(f->OpenStream(name.c_str(), kRW));
    } else if (op < 88) {
      Rename(f->OpenStream(name.c_str(), kRW), other);
    } else if (op < 91) {
      f->PreloadChildren();
      WriteAndRelease(f->CreateStream(name.c_str(), 0, kRW, check));
    } else {
      WriteAndRelease(f->OpenOrCreateStream(name.c_str(), 0));
    }
    if (opened) f->Release();
  }

  std::string m_path, m_link;
  bool m_b64;
  bool m_batches = false, m_batching = false;
  std::mt19937 m_rng;
  kyStorage* m_a = nullptr;
  kyStorage* m_b = nullptr;
  kyStream* m_kept = nullptr;
};

class IndexEquivalence : public ::testing::TestWithParam<bool> {};

TEST_P(IndexEquivalence, SameBytesWithAndWithoutIndexes) {
  TempDir dir;
  Sequence seq(dir, GetParam());
  const Bytes indexed = seq.Run(false, false);
  const Bytes walked = seq.Run(true, false);
  const Bytes gathered = seq.Run(false, true);
  ASSERT_GT(walked.size(), 100000u);
  EXPECT_TRUE(indexed == walked) << "sizes " << indexed.size() << " and " << walked.size();
  EXPECT_TRUE(gathered == walked) << "sizes " << gathered.size() << " and " << walked.size();
}

INSTANTIATE_TEST_SUITE_P(Widths, IndexEquivalence, ::testing::Bool(), WidthName);

}  // namespace
