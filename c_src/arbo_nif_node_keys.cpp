// Instance keys: the element parser, the key order in its three modes, the
// comparison of Erlang key terms and the hash callbacks of a user-ordered
// list's index.
//
// Everything here walks the caller's buffers in place: no allocation, no copy.
// A corrupt element aborts the runtime; keys are never validated on entry, so
// the first comparison that reads a bad element is the one that stops.
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "arbo_alloc.h"
#include "arbo_bytes.h"
#include "arbo_codes.h"
#include "arbo_keys.h"

namespace arbo {

namespace {

// How the parser reads an element, by type code: the header length, then
// either a fixed payload length or a big-endian length field at offset 1
// (1, 2 or 4 bytes) that for some types also counts part of the header.
struct ElementRule {
  uint8_t hdr = 0;      // header length, type byte included (0 for type 204)
  uint8_t fixed = 0;    // payload length when field == 0
  uint8_t field = 0;    // bytes of the length field, 0 for fixed elements
  uint8_t counted = 0;  // header bytes the length field includes
  uint8_t flags = 0;
};
constexpr uint8_t kValid = 1, kVarlen = 2, kRest = 4;

struct ElementTable {
  ElementRule rule[256];
  constexpr ElementTable() {
    auto fixed = [this](int len, std::initializer_list<int> codes) {
      for (int c : codes) rule[c] = {1, static_cast<uint8_t>(len), 0, 0, kValid};
    };
    auto var = [this](int hdr, int field, int counted, uint8_t varlen,
                      std::initializer_list<int> codes) {
      for (int c : codes) {
        rule[c] = {static_cast<uint8_t>(hdr), 0, static_cast<uint8_t>(field),
                   static_cast<uint8_t>(counted), static_cast<uint8_t>(kValid | varlen)};
      }
    };
    fixed(0, {0});
    fixed(1, {6, 10, 17});
    fixed(2, {7, 11});
    fixed(4, {8, 12, 15, 28, 29, 31, 46});
    fixed(5, {40, 48});
    fixed(6, {20});
    fixed(8, {2, 9, 13, 30, 44, 209});
    fixed(9, {23, 43});
    fixed(13, {19});
    fixed(16, {16});
    fixed(17, {41, 49});
    fixed(28, {27});
    var(2, 1, 0, kVarlen, {14, 200});
    var(3, 2, 0, kVarlen, {34, 38, 208});
    var(5, 4, 0, kVarlen, {39, 47, 205, 206});
    // The length fields of these count part of the header; kept as stored.
    var(8, 1, 6, kVarlen, {201});
    var(9, 2, 6, kVarlen, {202});
    var(11, 4, 6, kVarlen, {203});
    var(7, 4, 2, kVarlen, {18});
    var(5, 4, 0, 0, {50});  // bit string: a length field, yet not variable-length
    rule[204] = {0, 0, 0, 0, kValid | kVarlen | kRest};
  }
};

constexpr ElementTable kElements;

[[noreturn]] void corrupt_type(int type, int32_t buf_len) {
  std::printf("type: %d (i=%d buf_len=%d)\r\n", type, 0, buf_len);
  std::fflush(stdout);  // abort() does not flush stdio
  ARBO_ASSERT_MSG(false, "0");
  __builtin_unreachable();
}

// memcmp that tolerates a null pointer when nothing is compared (an empty
// Erlang binary may have no data pointer).
inline int bytes_cmp(const unsigned char* a, const unsigned char* b, int32_t n) {
  return n > 0 ? std::memcmp(a, b, static_cast<size_t>(n)) : 0;
}

inline bool string_like(int type) { return type >= TYPE_STRING && type <= TYPE_STRING_LAST; }

inline int sign3(bool greater) { return greater ? 1 : -1; }

template <typename T>
inline int num_cmp(T a, T b) {
  return a == b ? 0 : sign3(a > b);
}

// Two opaque keys (kind 6 against kind 6): mode 1 orders by length first,
// every other mode lexicographically with the shorter key first on a tie.
int cmp_opaque(const unsigned char* a, int32_t alen, const unsigned char* b, int32_t blen,
               int mode) {
  if (mode == ORDER_LENGTH_FIRST) {
    if (alen != blen) return sign3(alen > blen);
    return bytes_cmp(a, b, alen);
  }
  const int r = bytes_cmp(a, b, alen < blen ? alen : blen);
  if (r != 0) return r;
  return alen == blen ? 0 : sign3(alen > blen);
}

// Bit string payloads. Bytes past a payload's end read as 0.
int cmp_bits(const unsigned char* a, int32_t alen, const unsigned char* b, int32_t blen,
             int mode) {
  const int32_t n = alen > blen ? alen : blen;
  auto at = [](const unsigned char* p, int32_t len, int32_t i) -> unsigned {
    return i < len ? p[i] : 0u;
  };
  if (mode == ORDER_LENGTH_FIRST || mode == ORDER_LENGTH_FIRST_BUT_LAST) {
    // Only bits 0 to 2 of each byte count, moved to bits 7 to 5, and the last
    // byte never takes part: stored lists are ordered this way.
    auto mapped = [](unsigned v) { return ((v & 1u) << 7) | ((v & 2u) << 5) | ((v & 4u) << 3); };
    for (int32_t i = 0; i < n - 1; ++i) {
      const unsigned x = mapped(at(a, alen, i));
      const unsigned y = mapped(at(b, blen, i));
      if (x != y) return sign3(x > y);
    }
    return 0;
  }
  for (int32_t i = n - 1; i >= 0; --i) {
    const unsigned x = at(a, alen, i);
    const unsigned y = at(b, blen, i);
    if (x != y) return sign3(x > y);
  }
  return 0;
}

// Bit masks in modes 1 and 2: the lowest differing bit decides, the mask that
// has it set sorting after. This is the order of the bit-reversed values,
// reached directly so that masks with bit 63 set end like any other.
inline int cmp_mask(uint64_t a, uint64_t b) {
  if (a == b) return 0;
  const int k = __builtin_ctzll(a ^ b);
  return sign3(((a >> k) & 1u) != 0);
}

inline uint64_t mask_value(const unsigned char* p, int type) {
  if (type == TYPE_BITMASK32)
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(be32(p))));
  return be64(p);
}

// The node-key comparison for a byte key stored in `node`.
int cmp_bin_node(const arbo_node* node, const unsigned char* bytes, int32_t len, int32_t int_key,
                 int mode) {
  if (bytes == nullptr) return -1;  // byte keys sort before integer keys
  const key_bytes k = node_key_bytes(node);
  const int node_single = node->has(F_KEY_IS_TUPLE) ? 1 : 0;
  if (int_key != 0 && node_single) return cmp_opaque(k.ptr, k.len, bytes, len, mode);
  return cmp_tuple_key(k.ptr, k.len, node_single, bytes, len, int_key, mode);
}

// lookup2's mixing step.
inline void mix(uint32_t& a, uint32_t& b, uint32_t& c) {
  a -= b; a -= c; a ^= (c >> 13);
  b -= c; b -= a; b ^= (a << 8);
  c -= a; c -= b; c ^= (b >> 13);
  a -= b; a -= c; a ^= (c >> 12);
  b -= c; b -= a; b ^= (a << 16);
  c -= a; c -= b; c ^= (b >> 5);
  a -= b; a -= c; a ^= (c >> 3);
  b -= c; b -= a; b ^= (a << 10);
  c -= a; c -= b; c ^= (b >> 15);
}

inline uint32_t le32(const unsigned char* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

constexpr uint32_t kGolden = 0x9e3779b9u;

uint32_t lookup2(const unsigned char* k, uint32_t length) {
  uint32_t a = kGolden, b = kGolden, c = 0;
  uint32_t len = length;
  while (len >= 12) {
    a += le32(k);
    b += le32(k + 4);
    c += le32(k + 8);
    mix(a, b, c);
    k += 12;
    len -= 12;
  }
  c += length;
  // The tail: bytes 0-3 into a, 4-7 into b, 8-10 into c above its low byte.
  for (uint32_t i = 0; i < len; ++i) {
    const uint32_t v = k[i];
    if (i < 4) a += v << (8 * i);
    else if (i < 8) b += v << (8 * (i - 4));
    else c += v << (8 * (i - 7));
  }
  mix(a, b, c);
  return c;
}

}  // namespace

namespace {

struct Element {
  int32_t hdr;
  int32_t len;
  int type;
  int varlen;
};

// The parser proper, inlined into the comparison loop. Lengths are worked
// out in 64 bits: a corrupt length field must fail the bounds assertion, not
// wrap past it. A length field smaller than the header part it counts is as
// corrupt as one that runs past the end.
[[gnu::always_inline]] inline Element parse_element(int single, const unsigned char* buf,
                                                    int32_t buf_len) {
  if (single) return {0, buf_len, TYPE_REST, 1};
  ARBO_ASSERT_MSG(buf_len >= 1, "i+len <= buf_len");
  const int t = buf[0];
  const ElementRule r = kElements.rule[t];
  int64_t len;
  if (r.field == 0) {
    if (!(r.flags & kValid)) [[unlikely]] corrupt_type(t, buf_len);
    if (r.flags & kRest) [[unlikely]] return {0, buf_len, t, 1};
    len = r.fixed;
  } else {
    // The length field sits inside the header; never read past the buffer.
    ARBO_ASSERT_MSG(r.hdr <= buf_len, "i+len <= buf_len");
    switch (r.field) {
      case 1: len = buf[1]; break;
      case 2: len = be16(buf + 1); break;
      default: len = be32(buf + 1); break;
    }
    len -= r.counted;
  }
  ARBO_ASSERT_MSG(len >= 0 && r.hdr + len <= buf_len, "i+len <= buf_len");
  return {r.hdr, static_cast<int32_t>(len), t, (r.flags & kVarlen) ? 1 : 0};
}

}  // namespace

void get_tuple_key(int single, const unsigned char* buf, int32_t buf_len, int32_t* hdr_len,
                   int32_t* payload_len, int* type, int* varlen) {
  const Element e = parse_element(single, buf, buf_len);
  *hdr_len = e.hdr;
  *payload_len = e.len;
  *type = e.type;
  *varlen = e.varlen;
}

int cmp_tuple_key(const unsigned char* a, int32_t alen, int a_single, const unsigned char* b,
                  int32_t blen, int b_single, int mode) {
  if (blen <= 0 || alen <= 0) {
    if (alen == 0 && blen == 0) return 0;
    return alen != 0 ? 1 : -1;
  }
  for (;;) {
    const Element ea = parse_element(a_single, a, alen);
    const Element eb = parse_element(b_single, b, blen);
    const int32_t ai = ea.hdr, alen1 = ea.len, bi = eb.hdr, blen1 = eb.len;
    const int at = ea.type, bt = eb.type;
    const int bvar = eb.varlen;  // b's element says whether the pair is variable-length

    if (at == bt) {
      if (at == TYPE_EMPTY) return 0;  // an empty element ends the comparison as equal
    } else if (!(string_like(at) && string_like(bt))) {
      // 209 sorts before 27: stored lists are ordered this way.
      if (at == TYPE_FIXED8_209 && bt == TYPE_FIXED28) return -1;
      if (at == TYPE_FIXED28 && bt == TYPE_FIXED8_209) return 1;
      return sign3(at > bt);
    }

    ARBO_ASSERT_MSG(int64_t{ai} + alen1 <= alen, "a+alen1 <= alen");
    ARBO_ASSERT_MSG(int64_t{bi} + blen1 <= blen, "b+blen1 <= blen");
    const unsigned char* pa = a + ai;
    const unsigned char* pb = b + bi;

    if (bvar) {
      const bool a_last = ai + alen1 >= alen;
      if ((mode == ORDER_LENGTH_FIRST || (mode == ORDER_LENGTH_FIRST_BUT_LAST && !a_last)) &&
          alen1 != blen1) return sign3(alen1 > blen1);
      const int r = bytes_cmp(pa, pb, alen1 < blen1 ? alen1 : blen1);
      if (r != 0) return r;
      if (alen1 != blen1) return sign3(alen1 > blen1);
    } else if (bt == TYPE_BITS) {
      const int r = cmp_bits(pa, alen1, pb, blen1, mode);
      if (r != 0) return r;
    } else {
      int r;
      switch (bt) {
        case TYPE_INT8:
          r = num_cmp<int8_t>(static_cast<int8_t>(pa[0]), static_cast<int8_t>(pb[0]));
          break;
        case TYPE_INT16:
          r = num_cmp<int16_t>(static_cast<int16_t>(be16(pa)), static_cast<int16_t>(be16(pb)));
          break;
        case TYPE_INT32:
          r = num_cmp<int32_t>(static_cast<int32_t>(be32(pa)), static_cast<int32_t>(be32(pb)));
          break;
        case TYPE_INT64:
        case TYPE_INT64_9:
          r = num_cmp<int64_t>(static_cast<int64_t>(be64(pa)), static_cast<int64_t>(be64(pb)));
          break;
        case TYPE_BOOL:
          // Reversed on purpose: "true" (1) sorts before "false" (0).
          r = num_cmp<int8_t>(static_cast<int8_t>(pb[0]), static_cast<int8_t>(pa[0]));
          break;
        case TYPE_BITMASK32:
        case TYPE_BITMASK64:
          if (mode == ORDER_LENGTH_FIRST || mode == ORDER_LENGTH_FIRST_BUT_LAST) {
            r = cmp_mask(mask_value(pa, bt), mask_value(pb, bt));
            break;
          }
          [[fallthrough]];
        default:
          r = bytes_cmp(pa, pb, blen1);
          break;
      }
      if (r != 0) return r;
    }

    a += ai + alen1;
    alen -= ai + alen1;
    b += bi + blen1;
    blen -= bi + blen1;
    if (blen <= 0 || alen <= 0) break;
  }
  if (alen <= 0 && blen <= 0) return 0;
  return alen > 0 ? 1 : -1;  // a proper prefix sorts first
}

int cmp(const arbo_node* node, const unsigned char* bytes, int32_t len, int32_t int_key,
        uint32_t ns, int mode) {
  // Integer keys first: this runs at every level of every skip-list step.
  if (!node->has(F_KEY_IS_BIN)) [[likely]] {
    if (bytes != nullptr) return 1;
    const int32_t k = static_cast<int32_t>(node->hkey());
    if (k != int_key) return k < int_key ? -1 : 1;
    const uint32_t nns = node_ns(node);
    return nns == ns ? 0 : (nns < ns ? -1 : 1);
  }
  return cmp_bin_node(node, bytes, len, int_key, mode);
}

int _arbo_nif_cmp_bin_keys(ErlNifEnv* env, ERL_NIF_TERM t1, int kind1, ERL_NIF_TERM t2, int kind2,
                           int mode, int* result) {
  ErlNifBinary b1, b2;
  if (!enif_inspect_binary(env, t1, &b1) || !enif_inspect_binary(env, t2, &b2)) return 0;
  const auto l1 = static_cast<int32_t>(b1.size);
  const auto l2 = static_cast<int32_t>(b2.size);
  if (kind1 == KEY_OPAQUE && kind2 == KEY_OPAQUE) {
    *result = cmp_opaque(b1.data, l1, b2.data, l2, mode);
  } else {
    *result =
        cmp_tuple_key(b1.data, l1, kind1 == KEY_OPAQUE, b2.data, l2, kind2 == KEY_OPAQUE, mode);
  }
  return 1;
}

namespace {

// KEY_NS_INT is {Ns, Int}, the namespace unread; every other kind a bare Int.
bool get_int_key(ErlNifEnv* env, ERL_NIF_TERM t, int kind, int* out) {
  if (kind == KEY_NS_INT) {
    int arity = 0;
    const ERL_NIF_TERM* elems = nullptr;
    if (!enif_get_tuple(env, t, &arity, &elems) || arity != 2) return false;
    return enif_get_int(env, elems[1], out) != 0;
  }
  return enif_get_int(env, t, out) != 0;
}

inline bool is_bin_kind(int kind) { return kind == KEY_TUPLE || kind == KEY_OPAQUE; }

}  // namespace

int _arbo_nif_cmp_int_keys(ErlNifEnv* env, ERL_NIF_TERM t1, int kind1, ERL_NIF_TERM t2, int kind2,
                           int mode, int* result) {
  (void)mode;
  int k1 = 0, k2 = 0;
  if (!get_int_key(env, t1, kind1, &k1) || !get_int_key(env, t2, kind2, &k2)) return 0;
  *result = num_cmp(k1, k2);
  return 1;
}

int _arbo_nif_cmp_keys(ErlNifEnv* env, ERL_NIF_TERM t1, int kind1, ERL_NIF_TERM t2, int kind2,
                       int mode, int* result) {
  const bool bin1 = is_bin_kind(kind1);
  const bool bin2 = is_bin_kind(kind2);
  if (bin1 && bin2) return _arbo_nif_cmp_bin_keys(env, t1, kind1, t2, kind2, mode, result);
  if (bin1 != bin2) {
    // Byte keys sort before integer keys; neither term is looked at.
    *result = bin1 ? -1 : 1;
    return 1;
  }
  return _arbo_nif_cmp_int_keys(env, t1, kind1, t2, kind2, mode, result);
}

uint32_t ht_hash_from_key(const void* key) {
  const auto* k = static_cast<const ht_key*>(key);
  const auto word = static_cast<uint32_t>(k->len_or_int);
  if (k->bytes != nullptr) return lookup2(k->bytes, word);
  // An integer key: one mix, as the byte hash would start it with 4 golden
  // ratios folded into a and b.
  constexpr uint32_t kFour = 4u * kGolden;  // 0x78DDE6E4
  uint32_t a = word + kFour, b = kFour, c = 0;
  mix(a, b, c);
  return c;
}

int ht_keys_equal(const void* a, const void* b) {
  const auto* x = static_cast<const ht_key*>(a);
  const auto* y = static_cast<const ht_key*>(b);
  if (x->bytes != nullptr && y->bytes != nullptr) {
    const auto n = static_cast<uint32_t>(x->len_or_int);
    if (n != static_cast<uint32_t>(y->len_or_int)) return 0;
    return n == 0 || std::memcmp(x->bytes, y->bytes, n) == 0;
  }
  return x->len_or_int == y->len_or_int;
}

void free_key(void* key, uint64_t arg) {
  _arbo_free_ht_key(static_cast<ht_key*>(key), reinterpret_cast<arbo_t*>(arg));
}

}  // namespace arbo
