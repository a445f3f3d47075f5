// One filter comparison: a node (its user flags, whether it holds a value,
// its value or an element of its key) against the comparison's Value.
//
// Values and key elements compare as the text form of their encoded element
// (filter_cmp_str). Plain binary values and opaque keys are read the same
// way, their first byte taken as the type code: most have no text form, and
// the comparison then answers "unsupported". Integer elements take a
// shortcut that gives the same answers without writing and re-reading their
// text.
#include <climits>
#include <cstring>

#include "arbo_alloc.h"
#include "arbo_keys.h"
#include "arbo_nif_node_filter.h"
#include "arbo_store.h"

namespace arbo {

namespace {

// What a comparison looks at: nothing, something without a text form, an
// integer, or an encoded element with a text form (type byte first, bounds
// checked; `text_len` is the whole length of a string's text, which may not
// fit the buffer).
struct Subject {
  enum Kind { kNone, kNoText, kInt, kElement } kind = kNone;
  bool negative = false;
  uint64_t mag = 0;
  const unsigned char* bytes = nullptr;
  size_t len = 0;
  size_t text_len = 0;
};

uint64_t be(const unsigned char* p, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

Subject signed_int(int64_t v) {
  Subject s;
  s.kind = Subject::kInt;
  s.negative = v < 0;
  s.mag = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  return s;
}

Subject unsigned_int(uint64_t v) {
  Subject s;
  s.kind = Subject::kInt;
  s.mag = v;
  return s;
}

// An encoded element that lies within `avail` bytes.
Subject element(const unsigned char* e, size_t avail) {
  if (avail < 1) return Subject{Subject::kNoText};
  const unsigned char* p = e + 1;
  // Integers first, each with its own bounds check: the usual values.
  switch (e[0]) {
    case 6: if (avail >= 2) return signed_int(static_cast<int8_t>(p[0])); break;
    case 7: if (avail >= 3) return signed_int(static_cast<int16_t>(be(p, 2))); break;
    case 8: if (avail >= 5) return signed_int(static_cast<int32_t>(be(p, 4))); break;
    case 9: if (avail >= 9) return signed_int(static_cast<int64_t>(be(p, 8))); break;
    case 10: if (avail >= 2) return unsigned_int(p[0]); break;
    case 11: if (avail >= 3) return unsigned_int(be(p, 2)); break;
    case 12: if (avail >= 5) return unsigned_int(be(p, 4)); break;
    case 13: if (avail >= 9) return unsigned_int(be(p, 8)); break;
    default: break;
  }
  // An integer type that did not fit lands here too and has no text.
  const size_t n = text_element_len(e, avail);
  if (n == 0) return Subject{Subject::kNoText};
  Subject s{Subject::kElement};
  s.bytes = e;
  s.len = n;
  s.text_len = e[0] == 200 ? n - 2 : e[0] == 205 ? n - 5 : 0;
  return s;
}

// The bytes of the node's value, whatever its kind (encoded inline or out of
// line, or a plain binary); false when it has none (an out-of-line value
// may be empty). Read in place (the layout of arbo_node.h): this runs for
// every sibling a filtered walk examines.
inline bool value_bytes(const arbo_node* node, const unsigned char** e, size_t* len) {
  if (!node->is_gen() || node->has(F_KEY_IS_BIN)) return false;
  const gen_node* g = as_gen(node);
  if (!node->has(F_VAL_IS_BIN)) {
    *e = g->val;
    *len = g->small_len;
    return *len != 0;
  }
  const arbo_bin* b;
  std::memcpy(&b, g->val, sizeof b);  // `val` is not pointer-aligned
  *e = b->bytes();
  *len = b->len;
  return true;
}

// The node's value as an encoded element (an empty one has no text form).
Subject value_subject(const arbo_node* node) {
  const unsigned char* e;
  size_t len;
  return value_bytes(node, &e, &len) ? element(e, len) : Subject{};
}

// A value that is an integer element, read in place; false for any other
// value or none.
inline bool int_value(const arbo_node* node, bool* negative, uint64_t* mag) {
  const unsigned char* e;
  size_t len;
  if (!value_bytes(node, &e, &len) || len < 2) return false;
  const unsigned char* q = e + 1;
  int64_t sv;
  switch (e[0]) {
    case 6: sv = static_cast<int8_t>(q[0]); break;
    case 7: if (len < 3) return false; sv = static_cast<int16_t>(be(q, 2)); break;
    case 8: if (len < 5) return false; sv = static_cast<int32_t>(be(q, 4)); break;
    case 9: if (len < 9) return false; sv = static_cast<int64_t>(be(q, 8)); break;
    case 10: *negative = false; *mag = q[0]; return true;
    case 11: if (len < 3) return false; *negative = false; *mag = be(q, 2); return true;
    case 12: if (len < 5) return false; *negative = false; *mag = be(q, 4); return true;
    case 13: if (len < 9) return false; *negative = false; *mag = be(q, 8); return true;
    default: return false;
  }
  *negative = sv < 0;
  *mag = sv < 0 ? 0 - static_cast<uint64_t>(sv) : static_cast<uint64_t>(sv);
  return true;
}

// Element `index` of the node's key; an integer key is the signed tag.
Subject key_subject(const arbo_node* node, uint32_t index) {
  if (!node->has(F_KEY_IS_BIN)) return signed_int(static_cast<int32_t>(node->hkey()));
  const key_bytes kb = node_key_bytes(node);
  const int single = node->has(F_KEY_IS_TUPLE) ? 1 : 0;
  const unsigned char* p = kb.ptr;
  int32_t left = kb.len;
  for (uint32_t i = 0;; ++i) {
    if (left <= 0) return Subject{};  // the key has fewer elements
    int32_t hdr = 0, payload = 0;
    int type = 0, varlen = 0;
    get_tuple_key(single, p, left, &hdr, &payload, &type, &varlen);
    // An opaque key is one element starting at its first byte, read as a
    // type code like any element's.
    if (i == index) return element(p, static_cast<size_t>(hdr) + static_cast<size_t>(payload));
    p += hdr + payload;
    left -= hdr + payload;
  }
}

bool holds_value(const arbo_node* node) {
  const unsigned char* e;
  size_t len;
  return value_bytes(node, &e, &len);
}

}  // namespace

// Length of a well-formed element of a type that has a text form, or 0 when
// the type has none or the element does not fit in `avail` bytes.
size_t text_element_len(const unsigned char* e, size_t avail) {
  if (avail < 1) return 0;
  size_t need;
  switch (e[0]) {
    case 6: case 10: case 17: need = 2; break;
    case 7: case 11: need = 3; break;
    case 8: case 12: case 15: need = 5; break;
    case 9: case 13: need = 9; break;
    case 20: need = 7; break;
    case 200: need = avail >= 2 ? 2 + size_t{e[1]} : 2; break;
    case 205: need = avail >= 5 ? 5 + size_t{be(e + 1, 4)} : 5; break;
    default: return 0;
  }
  return need <= avail ? need : 0;
}

// The decimal text of an integer always reads back whole: as the same
// integer when it fits in 64 signed bits, else as its nearest double. So
// the text need not be written for an ordering, only for an equality.
int cmp_int_prepared(uint32_t cmp_op, bool negative, uint64_t mag, const CmpPattern& p) {
  switch (cmp_op) {
    case 1:
    case 2: {
      char digits[24];
      char* end = digits + sizeof digits;
      char* q = end;
      uint64_t m = mag;
      do {
        *--q = static_cast<char>('0' + m % 10);
        m /= 10;
      } while (m != 0);
      if (negative) *--q = '-';
      return cmp_text_prepared(cmp_op, q, static_cast<int32_t>(end - q), p);
    }
    case 3:
    case 4:
    case 5:
    case 6: {
      constexpr uint64_t kMaxPos = static_cast<uint64_t>(LLONG_MAX);
      const bool fits = negative ? mag <= kMaxPos + 1 : mag <= kMaxPos;
      if (fits && p.ll_ok) {
        const long long v = negative ? static_cast<long long>(0 - mag) : static_cast<long long>(mag);
        return ordered(cmp_op, v, p.ll);
      }
      if (!p.d_ok) return kMatchUnsupported;
      const double x = negative ? -static_cast<double>(mag) : static_cast<double>(mag);
      return ordered(cmp_op, x, p.d);
    }
    default:
      ARBO_ASSERT_MSG(false, "0");
  }
}

void prepare_pattern(ErlNifEnv* env, ERL_NIF_TERM value, CmpPattern* p) {
  *p = CmpPattern{};
  ErlNifUInt64 u = 0;
  if (enif_get_uint64(env, value, &u)) {
    p->is_uint = true;
    p->u = u;
  }
  ErlNifBinary bin;
  if (enif_inspect_binary(env, value, &bin)) {
    p->is_binary = true;
    p->bytes = reinterpret_cast<const char*>(bin.data);
    p->len = static_cast<int32_t>(bin.size);
    parse_pattern_numbers(p);
  }
}

int filter_cmp_prepared(arbo_node* node, int match_flag, uint32_t cmp_op, ErlNifEnv* env,
                        const CmpPattern& p, int64_t index, uint64_t mask) {
  // The usual case first: an integer value against a text pattern.
  bool negative = false;
  uint64_t mag = 0;
  if (node != nullptr && index < 0 && p.is_binary && cmp_op >= 1 && cmp_op <= 6 &&
      int_value(node, &negative, &mag))
    return cmp_int_prepared(cmp_op, negative, mag, p);
  switch (cmp_op) {
    case 1000:    // every bit of the mask is set
    case 1001: {  // no bit of the mask is set
      if (!p.is_uint) return kMatchUnsupported;
      if (node == nullptr) return cmp_op == 1000 ? kMatchNone : kMatchFull;
      const uint64_t f = _arbo_nif_get_flags(env, node);
      return (cmp_op == 1000 ? (f & p.u) == p.u : (f & p.u) == 0) ? kMatchFull : kMatchNone;
    }
    case 1003:  // the flags under the operator's mask equal the value
      if (!p.is_uint) return kMatchUnsupported;
      if (node == nullptr) return kMatchNone;
      return (_arbo_nif_get_flags(env, node) & mask) == p.u ? kMatchFull : kMatchNone;
    default:
      break;
  }
  if (node == nullptr) return match_flag != 0 ? kMatchMissing : kMatchNone;
  if (cmp_op == 1002) return holds_value(node) ? kMatchFull : kMatchNone;
  if (cmp_op == 9 || cmp_op == 10) return kMatchUnsupported;
  if (!p.is_binary) return kMatchUnsupported;
  const Subject s = index < 0 ? value_subject(node) : key_subject(node, static_cast<uint32_t>(index));
  if (s.kind == Subject::kNone) return kMatchNone;
  if (s.kind == Subject::kNoText) return kMatchUnsupported;
  // An integer's text never comes near the buffer's 64 bytes.
  if (s.kind == Subject::kInt) return cmp_int_prepared(cmp_op, s.negative, s.mag, p);
  // Room for the pattern's length, at least 64, and the terminating NUL.
  ScratchText buf((p.len > 64 ? static_cast<size_t>(p.len) : 64) + 1);
  const int32_t cap = static_cast<int32_t>(buf.capacity());
  const int32_t len = _arbo_nif_fmt_cs_val(s.bytes, buf.data(), cap);
  int r = cmp_text_prepared(cmp_op, buf.data(), len, p);
  // What is compared is the text as the buffer holds it; when that is only
  // the head of a longer text, a match is "missing", not "full". A text that
  // fits exactly (as long as the pattern, or 64) is whole.
  if (r == kMatchFull && s.text_len > buf.capacity() - 1) r = kMatchMissing;
  return r;
}

int filter_cmp(arbo_node* node, int match_flag, uint32_t cmp_op, ErlNifEnv* env,
               ERL_NIF_TERM value, int64_t index, uint64_t mask) {
  CmpPattern p;
  prepare_pattern(env, value, &p);
  return filter_cmp_prepared(node, match_flag, cmp_op, env, p, index, mask);
}

}  // namespace arbo
