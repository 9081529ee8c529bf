// FuzzInput: the fuzzer's bytes read as a stream of small choices.
//
// Every call consumes what it needs from the front; once the bytes are used
// up every choice is 0, so a run always ends in a defined state.
#ifndef KYSTORE_FUZZ_OPS_INPUT_H_
#define KYSTORE_FUZZ_OPS_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <string>

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

  bool Done() const { return p_ >= end_; }

  uint8_t Byte() { return p_ < end_ ? *p_++ : 0; }

  bool Bit() { return (Byte() & 1) != 0; }

  // A number in [0, n): one byte for n up to 256, two above.
  uint32_t Below(uint32_t n) {
    if (n <= 1) return 0;
    uint32_t v = Byte();
    if (n > 256) v |= static_cast<uint32_t>(Byte()) << 8;
    return v % n;
  }

  // A number in [0, limit], cheap for small limits; limit must be >= 0.
  long long UpTo(long long limit) {
    if (limit <= 0) return 0;
    if (limit < 0xFFFF) return static_cast<long long>(Below(static_cast<uint32_t>(limit) + 1));
    uint64_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | Byte();
    return static_cast<long long>(v % static_cast<uint64_t>(limit + 1));
  }

  // `n` bytes of content: taken from the input while it lasts, then a
  // pattern seeded by one byte, so that large writes stay cheap to describe.
  std::string Content(size_t n) {
    std::string out(n, '\0');
    size_t i = 0;
    const size_t literal = n < 16 ? n : 16;
    for (; i < literal && p_ < end_; ++i) out[i] = static_cast<char>(*p_++);
    uint32_t seed = Byte() * 2654435761u + static_cast<uint32_t>(n);
    for (; i < n; ++i) {
      seed = seed * 1103515245u + 12345u;
      out[i] = static_cast<char>(seed >> 16);
    }
    return out;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

#endif  // KYSTORE_FUZZ_OPS_INPUT_H_
