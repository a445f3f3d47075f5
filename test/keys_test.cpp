// The key order: pinned comparisons in every mode and both operand orders.
// Which codes exist, their lengths and the parser's aborts are checked in
// type_codes_test.cpp; node keys (inline, out of line, integer with
// namespace) against a model of the list order in store_model_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "arbo_keys.h"

using namespace arbo;

namespace {

using Bytes = std::vector<unsigned char>;

// Builds encoded tuple keys element by element, big-endian as stored.
struct Key {
  Bytes b;
  Key& el(int type, uint64_t v, int n) {  // the type byte, then n bytes of v big-endian
    b.push_back(static_cast<unsigned char>(type));
    for (int i = n - 1; i >= 0; --i) b.push_back(i < 8 ? static_cast<unsigned char>(v >> (8 * i)) : 0);
    return *this;
  }
  Key& i32(int32_t v) { return el(8, static_cast<uint32_t>(v), 4); }
  Key& add(const Bytes& v) { return b.insert(b.end(), v.begin(), v.end()), *this; }
  Key& str(const std::string& s) { return el(200, s.size(), 1).add(Bytes(s.begin(), s.end())); }
  Key& bits(const Bytes& v) { return el(50, v.size(), 4).add(v); }
};
Key K() { return Key(); }
Bytes raw(const std::string& s) { return Bytes(s.begin(), s.end()); }
int cmpk(const Bytes& a, int as, const Bytes& b, int bs, int mode) {
  const int r = cmp_tuple_key(a.data(), int32_t(a.size()), as, b.data(), int32_t(b.size()), bs, mode);
  return (r > 0) - (r < 0);
}

TEST(KeyOrder, PinnedCasesInEveryModeAndBothOrders) {
  const struct { Bytes a; int as; Bytes b; int bs; int want[3]; } cases[] = {  // sign per mode
      // Empty before anything; a type-0 element ends the comparison; a string
      // equals the same opaque bytes; 209 sorts before 27 and 27 before 200
      // (no wrap); opaque (204) after 8; int16 signed; a 9-byte type
      // compares its first 8 bytes; uint64 unsigned by bytes; true before
      // false; booleans read signed; a prefix first; length first in mode 1.
      {{}, 1, raw("a"), 1, {-1, -1, -1}}, {K().str("abc").b, 0, raw("abc"), 1, {0, 0, 0}},
      {K().el(0, 0, 0).i32(1).b, 0, K().el(0, 0, 0).i32(2).str("x").b, 0, {0, 0, 0}},
      {K().el(209, 0, 8).b, 0, K().el(27, 0, 28).b, 0, {-1, -1, -1}}, {K().el(27, 0, 28).b, 0, K().str("").b, 0, {-1, -1, -1}},
      {raw("zz"), 1, K().i32(0).b, 0, {1, 1, 1}}, {K().el(7, 0xfed4, 2).b, 0, K().el(7, 5, 2).b, 0, {-1, -1, -1}},
      {K().el(43, 5, 8).add({0xff}).b, 0, K().el(43, 5, 8).add({0}).b, 0, {0, 0, 0}},
      {K().el(13, ~0ull, 8).b, 0, K().el(13, 1, 8).b, 0, {1, 1, 1}}, {K().el(17, 1, 1).b, 0, K().el(17, 0, 1).b, 0, {-1, -1, -1}},
      {K().el(17, 0x80, 1).b, 0, K().el(17, 1, 1).b, 0, {1, 1, 1}}, {K().i32(1).b, 0, K().i32(1).i32(2).b, 0, {-1, -1, -1}},
      {K().str("b").el(6, 0, 1).b, 0, K().str("aa").el(6, 0, 1).b, 0, {1, -1, -1}},
      {K().str("a").b, 0, K().str("ab").b, 0, {-1, -1, -1}},
      // Mode 2 is deliberately asymmetric: only the first operand's position
      // decides whether length comes first, so each sorts after the other.
      {K().str("aa").str("x").b, 0, K().str("b").b, 0, {-1, 1, 1}},
      {K().str("b").b, 0, K().str("aa").str("x").b, 0, {1, -1, 1}},
      // Bit strings: last byte most significant in mode 0; in modes 1 and 2
      // bit 0 weighs most, only the low 3 bits of the last byte count and the
      // longer operand's last byte is skipped.
      {K().bits({1, 0}).b, 0, K().bits({0, 1}).b, 0, {-1, 1, 1}}, {K().bits({8, 0}).b, 0, K().bits({0, 7}).b, 0, {-1, 0, 0}},
      {K().bits({5}).b, 0, K().bits({2}).b, 0, {1, 0, 0}}, {K().bits({1}).b, 0, K().bits({1, 0, 0}).b, 0, {0, 0, 0}},
      {K().el(30, 2, 8).b, 0, K().el(30, 1, 8).b, 0, {1, -1, -1}},
      // Opaque keys: length first in mode 1 only.
      {raw("b"), 1, raw("aa"), 1, {1, -1, 1}}, {raw("ab"), 1, raw("abc"), 1, {-1, -1, -1}},
  };
  for (const auto& c : cases)
    for (int mode : {0, 1, 2, 7}) {  // modes other than 0, 1 and 2 behave as 0
      const int want = c.want[mode == 7 ? 0 : mode];
      EXPECT_EQ(cmpk(c.a, c.as, c.b, c.bs, mode), want) << "case " << &c - cases << " mode " << mode;
      EXPECT_TRUE(mode == 2 || cmpk(c.b, c.bs, c.a, c.as, mode) == -want) << "case " << &c - cases;
    }
}

}  // namespace
