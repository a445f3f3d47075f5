// The element parser and the key order: parser table, pinned comparisons in
// every mode and both operand orders, randomized order laws, node keys and
// the corrupt-key aborts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "arbo_keys.h"

using namespace arbo;

namespace {

using Bytes = std::vector<unsigned char>;

// Builds encoded tuple keys element by element, big-endian as stored.
struct Key {
  Bytes b;
  Key& put(uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) {
      b.push_back(i < 8 ? static_cast<unsigned char>(v >> (8 * i)) : 0);  // wide fields: leading 0s
    }
    return *this;
  }
  Key& el(int type, uint64_t v, int n) {
    b.push_back(static_cast<unsigned char>(type));
    return put(v, n);
  }
  Key& i8(int v) { return el(6, static_cast<uint8_t>(v), 1); }
  Key& i16(int v) { return el(7, static_cast<uint16_t>(v), 2); }
  Key& i32(int32_t v) { return el(8, static_cast<uint32_t>(v), 4); }
  Key& i64(int64_t v) { return el(9, static_cast<uint64_t>(v), 8); }
  Key& u8(unsigned v) { return el(10, v, 1); }
  Key& boolean(bool v) { return el(17, v ? 1 : 0, 1); }
  Key& mask32(uint32_t v) { return el(29, v, 4); }
  Key& mask64(uint64_t v) { return el(30, v, 8); }
  Key& empty() { return el(0, 0, 0); }
  // A variable-length element. Types 201-203 and 18 count part of their
  // header in the length field; the header bytes after the field are filler.
  Key& str(const std::string& s, int type = 200) {
    int field = 4, counted = 0;
    switch (type) {
      case 14: case 200: field = 1; break;
      case 34: case 38: case 208: field = 2; break;
      case 201: field = 1; counted = 6; break;
      case 202: field = 2; counted = 6; break;
      case 203: counted = 6; break;
      case 18: counted = 2; break;
      default: break;
    }
    b.push_back(static_cast<unsigned char>(type));
    put(s.size() + static_cast<size_t>(counted), field);
    b.insert(b.end(), static_cast<size_t>(counted), 0x5a);
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  Key& bits(const Bytes& v) {
    el(50, v.size(), 4);
    b.insert(b.end(), v.begin(), v.end());
    return *this;
  }
};

Bytes raw(const std::string& s) { return Bytes(s.begin(), s.end()); }

int sgn(int v) { return (v > 0) - (v < 0); }

int cmpk(const Bytes& a, int as, const Bytes& b, int bs, int mode) {
  return sgn(cmp_tuple_key(a.data(), static_cast<int32_t>(a.size()), as, b.data(),
                           static_cast<int32_t>(b.size()), bs, mode));
}

struct Parsed {
  int32_t hdr, len;
  int type, varlen;
};
Parsed parse(const Bytes& buf, int single = 0) {
  Parsed p{};
  get_tuple_key(single, buf.data(), static_cast<int32_t>(buf.size()), &p.hdr, &p.len, &p.type,
                &p.varlen);
  return p;
}

// ---- parser -----------------------------------------------------------------

TEST(KeyParser, EveryValidTypeCode) {
  // {codes, header length, payload length (fixed) or -1, length field bytes,
  //  bytes of the header counted by the field, varlen}
  struct Row {
    std::vector<int> codes;
    int hdr, fixed, field, counted, varlen;
  };
  const Row rows[] = {
      {{0}, 1, 0, 0, 0, 0},
      {{6, 10, 17}, 1, 1, 0, 0, 0},
      {{7, 11}, 1, 2, 0, 0, 0},
      {{8, 12, 15, 28, 31, 46, 29}, 1, 4, 0, 0, 0},
      {{2, 9, 13, 44, 209, 30}, 1, 8, 0, 0, 0},
      {{23, 43}, 1, 9, 0, 0, 0},
      {{40, 48}, 1, 5, 0, 0, 0},
      {{20}, 1, 6, 0, 0, 0},
      {{19}, 1, 13, 0, 0, 0},
      {{16}, 1, 16, 0, 0, 0},
      {{41, 49}, 1, 17, 0, 0, 0},
      {{27}, 1, 28, 0, 0, 0},
      {{14, 200}, 2, -1, 1, 0, 1},
      {{201}, 8, -1, 1, 6, 1},
      {{202}, 9, -1, 2, 6, 1},
      {{203}, 11, -1, 4, 6, 1},
      {{34, 38, 208}, 3, -1, 2, 0, 1},
      {{39, 47, 205, 206}, 5, -1, 4, 0, 1},
      {{18}, 7, -1, 4, 2, 1},
      {{50}, 5, -1, 4, 0, 0},
  };
  int seen = 0;
  for (const Row& r : rows) {
    for (int code : r.codes) {
      ++seen;
      for (int payload : {0, 3, 300}) {
        if (r.fixed >= 0 && payload != 0) continue;
        const int len = r.fixed >= 0 ? r.fixed : payload;
        if (r.field == 1 && len + r.counted > 255) continue;
        Bytes buf{static_cast<unsigned char>(code)};
        Key k;
        k.put(static_cast<uint64_t>(len + r.counted), r.field);
        buf.insert(buf.end(), k.b.begin(), k.b.end());
        buf.resize(static_cast<size_t>(r.hdr + len), 0xee);
        buf.push_back(0x01);  // the next element's byte: not part of this one
        const Parsed p = parse(buf);
        SCOPED_TRACE("type " + std::to_string(code) + " payload " + std::to_string(len));
        EXPECT_EQ(p.type, code);
        EXPECT_EQ(p.hdr, r.hdr);
        EXPECT_EQ(p.len, len);
        EXPECT_EQ(p.varlen, r.varlen);
      }
    }
  }
  EXPECT_EQ(seen, 43);  // every valid code but 204, checked next

  const Bytes rest{204, 7, 7, 7};
  const Parsed p = parse(rest);
  EXPECT_EQ(p.type, 204);
  EXPECT_EQ(p.hdr, 0);
  EXPECT_EQ(p.len, 4);  // the type byte belongs to the payload
  EXPECT_EQ(p.varlen, 1);
  // A single opaque key is one element whatever its first byte says.
  for (const Bytes& any : {Bytes{1, 2, 3}, Bytes{8, 0}, Bytes{255}}) {
    const Parsed s = parse(any, 1);
    EXPECT_EQ(s.type, 204);
    EXPECT_EQ(s.hdr, 0);
    EXPECT_EQ(s.len, static_cast<int32_t>(any.size()));
    EXPECT_EQ(s.varlen, 1);
  }
}

// The abort message of the assertion reporter, and the printed line that
// precedes it for an unknown type (stdout sent to stderr so it can be seen).
void parse_to_stderr(const Bytes& buf) {
  dup2(2, 1);
  parse(buf);
}

TEST(KeyParserDeathTest, UnknownTypesAbort) {
  const std::vector<int> invalid_low = {1, 3, 4, 5, 21, 22, 24, 25, 26, 32, 33, 35, 36, 37, 42, 45};
  int invalid = 0;
  for (int code = 0; code < 256; ++code) {
    const bool bad = std::find(invalid_low.begin(), invalid_low.end(), code) != invalid_low.end() ||
                     (code >= 51 && code <= 199) || code == 207 || code >= 210;
    if (!bad) continue;
    Bytes probe(64, 0);
    probe[0] = static_cast<unsigned char>(code);
    ++invalid;
    const std::string line = "type: " + std::to_string(code) + " \\(i=0 buf_len=64\\)";
    EXPECT_DEATH(parse_to_stderr(probe), line) << code;
  }
  EXPECT_EQ(invalid, 212);
  EXPECT_DEATH(parse(Bytes{3, 0}), "Assertion `0' failed");
}

TEST(KeyParserDeathTest, ElementsPastTheEndAbort) {
  const char* msg = "Assertion `i\\+len <= buf_len' failed";
  const Bytes cases[] = {
      {8, 0, 0, 0},               // fixed payload cut short
      {200, 4, 'a', 'b', 'c'},    // length field beyond the buffer
      {205, 0, 0},                // length field itself cut short
      {206, 0xff, 0xff, 0xff, 0xff, 'x'},  // a huge 4-byte length
      {201, 3, 0, 0, 0, 0, 0, 0, 0, 0},    // field smaller than the header it counts
      {18, 0, 0, 0, 1, 0, 0},              // same, the 2-byte count
  };
  for (const Bytes& c : cases) EXPECT_DEATH(parse(c), msg) << int{c[0]};
  // The comparison stops at the first bad element it reads: a corrupt tail
  // after a difference is never reached.
  Bytes bad = Key().i32(1).b;
  bad.push_back(3);
  EXPECT_EQ(cmpk(Key().i32(0).b, 0, bad, 0, 0), -1);
  EXPECT_EQ(cmpk(Key().i32(1).b, 0, bad, 0, 0), -1);  // stops when the shorter key ends
  EXPECT_DEATH(cmpk(Key().i32(1).i32(5).b, 0, bad, 0, 0), "Assertion `0' failed");
}

// ---- pinned comparisons ----------------------------------------------------

struct Case {
  const char* what;
  Bytes a;
  int as;
  Bytes b;
  int bs;
  int m0, m1, m2;  // expected sign in modes 0, 1, 2
};

TEST(KeyOrder, PinnedCasesInEveryModeAndBothOrders) {
  const Case cases[] = {
      {"two empty keys", {}, 0, {}, 0, 0, 0, 0},
      {"empty first", {}, 0, Key().i32(0).b, 0, -1, -1, -1},
      {"empty opaque", {}, 1, raw("a"), 1, -1, -1, -1},
      {"type 0 ends equal", Key().empty().i32(1).b, 0, Key().empty().i32(2).str("x").b, 0, 0, 0,
       0},
      {"type 0 after equal prefix", Key().i8(3).empty().u8(1).b, 0, Key().i8(3).empty().b, 0, 0,
       0, 0},
      {"string vs opaque", Key().str("abc").b, 0, raw("abc"), 1, 0, 0, 0},
      {"string types 200-206 are one type", Key().str("ab", 200).b, 0, Key().str("ab", 205).b, 0,
       0, 0, 0},
      {"string class orders by payload", Key().str("b", 206).b, 0, Key().str("a", 200).b, 0, 1, 1,
       1},
      {"lower type code first", Key().i32(100).b, 0, Key().i64(-5).b, 0, -1, -1, -1},
      {"209 before 27", Key().el(209, 0, 8).b, 0, Key().el(27, 0, 28).b, 0, -1, -1, -1},
      {"27 before 200 (no wrap)", Key().el(27, 0, 28).b, 0, Key().str("").b, 0, -1, -1, -1},
      {"opaque is type 204 against fixed", raw("zz"), 1, Key().i32(0).b, 0, 1, 1, 1},
      {"signed 8", Key().i8(-1).b, 0, Key().i8(0).b, 0, -1, -1, -1},
      {"signed 16", Key().i16(-300).b, 0, Key().i16(5).b, 0, -1, -1, -1},
      {"signed 32", Key().i32(INT32_MIN).b, 0, Key().i32(1).b, 0, -1, -1, -1},
      {"signed 64", Key().i64(-1).b, 0, Key().i64(1).b, 0, -1, -1, -1},
      {"type 43 signed on 8 bytes", Key().el(43, 0xff00000000000000ull, 8).put(0, 1).b, 0,
       Key().el(43, 1, 8).put(9, 1).b, 0, -1, -1, -1},
      {"type 43 ignores byte 9", Key().el(43, 5, 8).put(0xff, 1).b, 0,
       Key().el(43, 5, 8).put(0, 1).b, 0, 0, 0, 0},
      {"unsigned 8 by bytes", Key().u8(255).b, 0, Key().u8(1).b, 0, 1, 1, 1},
      {"unsigned 32 by bytes", Key().el(12, 0xffffffff, 4).b, 0, Key().el(12, 1, 4).b, 0, 1, 1, 1},
      {"unsigned 64 by bytes", Key().el(13, ~0ull, 8).b, 0, Key().el(13, 1, 8).b, 0, 1, 1, 1},
      {"true before false", Key().boolean(true).b, 0, Key().boolean(false).b, 0, -1, -1, -1},
      {"booleans read signed", Key().el(17, 0x80, 1).b, 0, Key().el(17, 1, 1).b, 0, 1, 1, 1},
      {"prefix first", Key().i32(1).b, 0, Key().i32(1).i32(2).b, 0, -1, -1, -1},
      {"decided before the prefix", Key().i32(2).b, 0, Key().i32(1).i32(2).b, 0, 1, 1, 1},
      {"b vs aa", Key().str("b").b, 0, Key().str("aa").b, 0, 1, -1, 1},
      {"b,x vs aa,x", Key().str("b").i8(0).b, 0, Key().str("aa").i8(0).b, 0, 1, -1, -1},
      {"equal strings go on", Key().str("ab").i8(1).b, 0, Key().str("ab").i8(2).b, 0, -1, -1, -1},
      {"2-byte length strings", Key().str("abc", 208).b, 0, Key().str("abd", 208).b, 0, -1, -1,
       -1},
      {"longer wins a tie", Key().str("ab", 38).b, 0, Key().str("abc", 38).b, 0, -1, -1, -1},
      {"opaque vs encoded string, longer", raw("abcd"), 1, Key().str("abc").i8(1).b, 0, 1, 1, 1},
      {"bits: last byte most significant in mode 0", Key().bits({1, 0}).b, 0,
       Key().bits({0, 1}).b, 0, -1, 1, 1},
      {"bits: low 3 bits only, last byte skipped", Key().bits({8, 0}).b, 0,
       Key().bits({0, 7}).b, 0, -1, 0, 0},
      {"bits: bit 0 weighs most", Key().bits({1, 0, 0}).b, 0, Key().bits({6, 0, 0}).b, 0, -1, 1,
       1},
      {"bits: one byte is equal in modes 1, 2", Key().bits({5}).b, 0, Key().bits({2}).b, 0, 1, 0,
       0},
      {"bits: zero padding", Key().bits({1}).b, 0, Key().bits({1, 0, 0}).b, 0, 0, 0, 0},
      {"bits: equal goes on", Key().bits({1, 2}).i8(1).b, 0, Key().bits({1, 2}).i8(2).b, 0, -1,
       -1, -1},
      {"mask64 lowest bit decides", Key().mask64(2).b, 0, Key().mask64(1).b, 0, 1, -1, -1},
      {"mask64 bit 63 against 0", Key().mask64(1ull << 63).b, 0, Key().mask64(0).b, 0, 1, 1, 1},
      {"mask64 bit 63 vs bit 62", Key().mask64(1ull << 63).b, 0, Key().mask64(1ull << 62).b, 0, 1,
       -1, -1},
      {"mask64 all ones", Key().mask64(~0ull).b, 0, Key().mask64(~1ull).b, 0, 1, 1, 1},
      {"mask32 bit 31 vs bit 0", Key().mask32(0x80000000u).b, 0, Key().mask32(1).b, 0, 1, -1, -1},
      {"mask32 bit 31 vs bit 30", Key().mask32(0x80000000u).b, 0, Key().mask32(0x40000000u).b, 0,
       1, -1, -1},
      {"mask32 0xffffffff vs 0x7fffffff", Key().mask32(0xffffffffu).b, 0,
       Key().mask32(0x7fffffffu).b, 0, 1, 1, 1},
      {"equal masks go on", Key().mask32(5).i8(1).b, 0, Key().mask32(5).i8(0).b, 0, 1, 1, 1},
  };
  for (const Case& c : cases) {
    const int want[3] = {c.m0, c.m1, c.m2};
    for (int mode = 0; mode < 3; ++mode) {
      EXPECT_EQ(cmpk(c.a, c.as, c.b, c.bs, mode), want[mode]) << c.what << " mode " << mode;
      if (mode < 2) {
        EXPECT_EQ(cmpk(c.b, c.bs, c.a, c.as, mode), -want[mode]) << c.what << " swapped " << mode;
      }
    }
    // Modes other than 0, 1 and 2 behave as 0.
    EXPECT_EQ(cmpk(c.a, c.as, c.b, c.bs, 7), c.m0) << c.what;
  }
}

TEST(KeyOrder, ModeTwoIsDeliberatelyAsymmetric) {
  // Only the first operand's element position decides whether length comes
  // first, so (aa, x) and (b) each sort after the other.
  const Bytes aax = Key().str("aa").str("x").b;
  const Bytes b = Key().str("b").b;
  EXPECT_EQ(cmpk(aax, 0, b, 0, 2), 1);
  EXPECT_EQ(cmpk(b, 0, aax, 0, 2), 1);
}

// ---- randomized laws ------------------------------------------------------------

struct Gen {
  std::mt19937_64 rng;
  explicit Gen(uint64_t seed) : rng(seed) {}
  int pick(int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); }
  // Few distinct byte values, so that ties and near-ties are common.
  unsigned char byte() {
    static const unsigned char v[] = {0, 1, 2, 7, 0x80, 0xff};
    return v[pick(6)];
  }
  uint64_t word(int n) {
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | byte();
    return v;
  }
  std::string text() {
    std::string s;
    for (int n = pick(4); n > 0; --n) s.push_back(static_cast<char>('a' + pick(3)));
    return s;
  }
  // A well-formed key from the given element types.
  Key key(const std::vector<int>& types) {
    Key k;
    for (int n = pick(4); n > 0; --n) {
      const int t = types[static_cast<size_t>(pick(static_cast<int>(types.size())))];
      switch (t) {
        case 6: case 10: case 17: k.el(t, word(1), 1); break;
        case 7: k.el(t, word(2), 2); break;
        case 8: case 29: k.el(t, word(4), 4); break;
        case 9: case 30: case 209: k.el(t, word(8), 8); break;
        case 43: k.el(t, word(8), 8).put(word(1), 1); break;
        case 27: k.el(t, word(8), 8).put(0, 20); break;
        case 0: k.empty(); break;
        case 204:  // the rest of the buffer, its type byte included
          k.b.push_back(204);
          for (int m = pick(3); m > 0; --m) k.b.push_back(byte());
          return k;
        case 50: {
          Bytes v;
          for (int m = pick(4); m > 0; --m) v.push_back(byte());
          k.bits(v);
          break;
        }
        default: k.str(text(), t); break;
      }
    }
    return k;
  }
};

struct RandKey {
  Bytes b;
  int single;
};

std::vector<RandKey> random_keys(Gen& g, int n, const std::vector<int>& types) {
  std::vector<RandKey> keys;
  for (int i = 0; i < n; ++i) {
    if (g.pick(6) == 0) {
      keys.push_back({raw(g.text()), 1});
    } else {
      keys.push_back({g.key(types).b, 0});
    }
  }
  return keys;
}

const std::vector<int> kAllTypes = {0,  6,   7,   8,   9,   10,  14,  17,  18,  27,  29, 30,
                                    38, 43,  50,  200, 201, 202, 203, 204, 205, 208, 209};

TEST(KeyOrder, AntisymmetricInModesZeroAndOne) {
  Gen g(1);
  const auto keys = random_keys(g, 150, kAllTypes);
  for (const RandKey& x : keys) {
    for (int mode = 0; mode < 3; ++mode) EXPECT_EQ(cmpk(x.b, x.single, x.b, x.single, mode), 0);
    for (const RandKey& y : keys) {
      for (int mode = 0; mode < 2; ++mode) {
        ASSERT_EQ(cmpk(x.b, x.single, y.b, y.single, mode),
                  -cmpk(y.b, y.single, x.b, x.single, mode))
            << "mode " << mode;
      }
    }
  }
}

// 209-before-27 breaks transitivity against the types between them, and in
// modes 1 and 2 so does the bit-string rule (it skips the last byte of the
// longer operand); both are left out here and pinned above.
void expect_transitive(const std::vector<RandKey>& keys, int mode) {
  const size_t n = keys.size();
  std::vector<int> c(n * n);
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < n; ++j)
      c[i * n + j] = cmpk(keys[i].b, keys[i].single, keys[j].b, keys[j].single, mode);
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < n; ++j)
      for (size_t k = 0; k < n; ++k) {
        const int ij = c[i * n + j], jk = c[j * n + k], ik = c[i * n + k];
        if (ij <= 0 && jk <= 0) {
          ASSERT_LE(ik, 0) << "mode " << mode << " keys " << i << " " << j << " " << k;
          if (ij < 0 || jk < 0) {
            ASSERT_LT(ik, 0) << "mode " << mode;
          }
        }
      }
}

TEST(KeyOrder, TransitiveOnWellFormedKeys) {
  Gen g(2);
  std::vector<int> no209 = kAllTypes;
  std::erase(no209, 209);
  expect_transitive(random_keys(g, 70, no209), 0);
  std::vector<int> no50 = no209;
  std::erase(no50, 50);
  expect_transitive(random_keys(g, 70, no50), 1);
}

// ---- node keys --------------------------------------------------------------------

// A gen node in local storage with a byte key inline or in a fake arbo_bin.
struct TestNode {
  alignas(16) unsigned char mem[160] = {};
  std::vector<uint64_t> bin;
  arbo_node* n() { return reinterpret_cast<arbo_node*>(mem); }

  static TestNode bytes(const Bytes& k, bool single, bool out_of_line) {
    TestNode t;
    arbo_node* n = t.n();
    n->tw = T_GEN_NODE_ONE | F_KEY_IS_BIN | (single ? F_KEY_IS_TUPLE : 0);
    if (out_of_line) {
      t.bin.assign(2 + k.size() / 8, 0);
      auto* b = reinterpret_cast<arbo_bin*>(t.bin.data());
      b->len = k.size();
      if (!k.empty()) std::memcpy(b->bytes(), k.data(), k.size());
      n->key = reinterpret_cast<uintptr_t>(b);
    } else {
      EXPECT_LE(k.size(), 10u);
      if (!k.empty()) std::memcpy(as_gen(n)->val, k.data(), k.size());
      as_gen(n)->small_len = static_cast<uint8_t>(k.size());
    }
    return t;
  }
  static TestNode integer(uint32_t type, int32_t key, uint32_t ns) {
    TestNode t;
    arbo_node* n = t.n();
    n->tw = type | F_KEY_IS_TUPLE;
    n->set_hkey(static_cast<uint32_t>(key));
    set_node_ns(n, ns);
    return t;
  }
};

int cmpn(TestNode& t, const Bytes* k, int32_t int_key, uint32_t ns, int mode) {
  if (k == nullptr) return sgn(cmp(t.n(), nullptr, 0, int_key, ns, mode));
  static const unsigned char kEmpty = 0;
  return sgn(cmp(t.n(), k->empty() ? &kEmpty : k->data(), static_cast<int32_t>(k->size()),
                 int_key, ns, mode));
}

TEST(NodeKeyOrder, IntegerKeys) {
  struct Row {
    uint32_t type;
    int32_t key;
    uint32_t ns;
    int32_t search;
    uint32_t search_ns;
    int want;
  };
  const Row rows[] = {
      {T_GEN_NODE_ONE, -1, 0, 0, 0, -1},  // signed
      {T_GEN_NODE_TWO, 0, 0, -1, 0, 1},
      {T_GEN_NODE_MAX, INT32_MIN, 9, INT32_MAX, 0, -1},
      {T_GEN_NODE_ONE, 5, 1, 5, 2, -1},  // equal keys order by namespace
      {T_GEN_NODE_ONE, 5, 2, 5, 1, 1},
      {T_GEN_NODE_ONE, 5, 0xffffffffu, 5, 1, 1},  // namespaces unsigned
      {T_GEN_NODE_ONE, 5, 3, 5, 3, 0},
      {T_DYN_NODE, 7, 4, 7, 4, 0},
      {T_DYN_NODE, 7, 4, 7, 0, 1},
      {T_INT_NODE, 7, 0, 7, 1, -1},  // a container's namespace counts as 0
  };
  for (const Row& r : rows) {
    TestNode t = TestNode::integer(r.type, r.key, r.ns);
    for (int mode = 0; mode < 4; ++mode) {
      EXPECT_EQ(cmpn(t, nullptr, r.search, r.search_ns, mode), r.want)
          << r.type << " " << r.key << " " << r.search;
    }
  }
  // Byte search keys sort before every integer node.
  TestNode t = TestNode::integer(T_GEN_NODE_ONE, INT32_MIN, 0);
  const Bytes empty;
  EXPECT_EQ(cmpn(t, &empty, 0, 0, 0), 1);
  const Bytes k = Key().i32(1).b;
  EXPECT_EQ(cmpn(t, &k, 1, 0, 1), 1);
}

TEST(NodeKeyOrder, ByteKeysInlineOrOutOfLineAgreeWithKeyOrder) {
  Gen g(3);
  auto keys = random_keys(g, 80, kAllTypes);
  keys.push_back({raw("abcdefghijklmnop"), 1});
  keys.push_back({Key().str("a longer string key").b, 0});
  for (const RandKey& x : keys) {
    const bool fits = x.b.size() <= 10;
    TestNode inl = TestNode::bytes(fits ? x.b : Bytes{}, x.single, false);
    TestNode bin = TestNode::bytes(x.b, x.single, true);
    for (const RandKey& y : keys) {
      for (int mode = 0; mode < 3; ++mode) {
        const int want = cmpk(x.b, x.single, y.b, y.single, mode);
        const int got = cmpn(bin, &y.b, y.single, 0, mode);
        ASSERT_EQ(got, want) << "mode " << mode;
        if (fits) {
          ASSERT_EQ(cmpn(inl, &y.b, y.single, 0, mode), want);
        }
      }
    }
    EXPECT_EQ(cmpn(bin, nullptr, 0, 0, 0), -1);  // before integer keys
    EXPECT_EQ(cmpn(bin, nullptr, INT32_MIN, 0, 1), -1);
  }
}

}  // namespace
