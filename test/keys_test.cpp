// The key order: pinned comparisons in every mode and both operand orders,
// and randomized order laws. Which codes exist, their lengths and the
// parser's aborts are checked in type_codes_test.cpp; node keys (inline, out
// of line, integer with namespace) against a model of the list order in
// store_model_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "arbo_keys.h"

using namespace arbo;

namespace {

using Bytes = std::vector<unsigned char>;

// Every valid type code but 204: {codes, header length, payload length
// (fixed) or -1, length field bytes, bytes of the header counted by the
// field, varlen}.
struct Row { std::vector<int> codes; int hdr, fixed, field, counted, varlen; };
const Row kRows[] = {
    {{0}, 1, 0, 0, 0, 0}, {{6, 10, 17}, 1, 1, 0, 0, 0}, {{7, 11}, 1, 2, 0, 0, 0}, {{23, 43}, 1, 9, 0, 0, 0},
    {{8, 12, 15, 28, 31, 46, 29}, 1, 4, 0, 0, 0}, {{40, 48}, 1, 5, 0, 0, 0}, {{20}, 1, 6, 0, 0, 0},
    {{2, 9, 13, 44, 209, 30}, 1, 8, 0, 0, 0}, {{19}, 1, 13, 0, 0, 0}, {{16}, 1, 16, 0, 0, 0},
    {{41, 49}, 1, 17, 0, 0, 0}, {{27}, 1, 28, 0, 0, 0}, {{14, 200}, 2, -1, 1, 0, 1}, {{201}, 8, -1, 1, 6, 1},
    {{202}, 9, -1, 2, 6, 1}, {{203}, 11, -1, 4, 6, 1}, {{34, 38, 208}, 3, -1, 2, 0, 1},
    {{39, 47, 205, 206}, 5, -1, 4, 0, 1}, {{18}, 7, -1, 4, 2, 1}, {{50}, 5, -1, 4, 0, 0}};
const Row* row_of(int code) {
  for (const Row& r : kRows) if (std::ranges::find(r.codes, code) != r.codes.end()) return &r;
  return nullptr;
}

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
  // A variable-length element; header bytes after the length field are filler.
  Key& str(const std::string& s, int type = 200) {
    const Row* r = row_of(type);
    el(type, s.size() + static_cast<size_t>(r->counted), r->field);
    return add(Bytes(static_cast<size_t>(r->counted), 0x5a)).add(Bytes(s.begin(), s.end()));
  }
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

// Reflexive in every mode, antisymmetric in modes 0 and 1, and transitive,
// over random well-formed keys from few distinct byte values (ties and
// near-ties are common; one in six is a single opaque key). 209-before-27
// breaks transitivity against the types between them, and in modes 1 and 2
// so does the bit-string rule (it skips the last byte of the longer
// operand); both are left out of the transitivity sets and pinned above.
TEST(KeyOrder, RandomKeysObeyTheOrderLaws) {
  std::vector<int> all{204}, no50;
  for (const Row& r : kRows) all.insert(all.end(), r.codes.begin(), r.codes.end());
  std::vector<int> no209 = all;
  std::erase(no209, 209), std::ranges::remove_copy(no209, std::back_inserter(no50), 50);
  const struct { std::vector<int> types; int mode; bool transitive; } runs[] = {
      {all, 0, false}, {all, 1, false}, {all, 2, false}, {no209, 0, true}, {no50, 1, true}};
  for (const auto& run : runs) {
    std::mt19937_64 rng(static_cast<uint64_t>(run.mode + 1));
    auto pick = [&](size_t n) { return static_cast<int>(rng() % n); };
    auto some = [&](int n) {
      Bytes out(static_cast<size_t>(n));
      return std::ranges::for_each(out, [&](auto& x) { x = std::array<unsigned char, 6>{0, 1, 2, 7, 0x80, 0xff}[pick(6)]; }), out;
    };
    auto text = [&] { std::string s(pick(4), 'a'); for (char& c : s) c = char(c + pick(3)); return s; };
    std::vector<std::pair<Bytes, int>> keys;  // (bytes, single)
    while (keys.size() < 80) {
      Key k;
      const int single = pick(6) == 0;
      for (int n = single ? 0 : pick(4), t = 0; n > 0 && t != 204; --n) {
        const Row* r = row_of(t = run.types[static_cast<size_t>(pick(run.types.size()))]);
        // 204: the rest of the buffer, its type byte included
        t == 204 || r->fixed >= 0 ? k.el(t, 0, 0).add(some(t == 204 ? pick(3) : r->fixed))
                                  : t == 50 ? k.bits(some(pick(4))) : k.str(text(), t);
      }
      keys.emplace_back(single ? raw(text()) : k.b, single);
    }
    const size_t n = keys.size();
    std::vector<int> c(n * n);
    for (size_t i = 0; i < n * n; ++i)
      c[i] = cmpk(keys[i / n].first, keys[i / n].second, keys[i % n].first, keys[i % n].second, run.mode);
    for (size_t i = 0; i < n; ++i) {
      ASSERT_EQ(c[i * n + i], 0) << "mode " << run.mode;
      for (size_t j = 0; j < n && run.mode < 2; ++j) ASSERT_EQ(c[i * n + j], -c[j * n + i]);
      for (size_t j = 0; j < n && run.transitive; ++j)
        for (size_t k = 0; k < n; ++k) {  // a <= b <= c: a <= c, and a < c if either step is strict
          const int ij = c[i * n + j], jk = c[j * n + k], ik = c[i * n + k];
          ASSERT_TRUE(ij > 0 || jk > 0 || ik <= ((ij < 0 || jk < 0) ? -1 : 0)) << run.mode << i << j << k;
        }
    }
  }
}

}  // namespace
