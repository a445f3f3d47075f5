// Text side of filter comparisons: encoded elements written as text, and a
// text compared with a pattern as bytes or as numbers. No runtime terms here.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arbo_bytes.h"
#include "arbo_codes.h"
#include "arbo_filter.h"
#include "arbo_nif_node_filter.h"

namespace arbo {

namespace {

int32_t copy_text(char* dst, int32_t cap, const unsigned char* src, uint64_t len) {
  if (cap < 1) return 0;
  const uint64_t n = len < static_cast<uint64_t>(cap - 1) ? len : static_cast<uint64_t>(cap - 1);
  std::memcpy(dst, src, n);
  dst[n] = '\0';
  return static_cast<int32_t>(n);
}

// snprintf's full length, cut to what the buffer holds.
int32_t bounded(int n, int32_t cap) {
  if (n < 0 || cap < 1) return 0;
  return n < cap ? n : cap - 1;
}

// Whole text as a base-10 integer; out of range counts as no number.
bool parse_ll(const char* s, size_t len, long long* out) {
  if (len == 0) return false;
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(s, &end, 10);
  if (errno == ERANGE && (v == LLONG_MIN || v == LLONG_MAX)) return false;
  if (end != s + len) return false;
  *out = v;
  return true;
}

// Whole text as a double; an overflow or underflow to 0 counts as no number.
bool parse_d(const char* s, size_t len, double* out) {
  if (len == 0) return false;
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(s, &end);
  if (errno == ERANGE && (v == 0.0 || std::isinf(v))) return false;
  if (end != s + len) return false;
  *out = v;
  return true;
}

}  // namespace

int32_t _arbo_nif_fmt_cs_val(const unsigned char* e, char* dst, int32_t cap) {
  const unsigned char* p = e + 1;
  switch (e[0]) {
    case TYPE_STRING: return copy_text(dst, cap, e + 2, e[1]);
    case TYPE_STRING32: return copy_text(dst, cap, e + 5, be32(e + 1));
    case TYPE_INT8: return bounded(std::snprintf(dst, cap, "%d", static_cast<int8_t>(p[0])), cap);
    case TYPE_INT16:
      return bounded(std::snprintf(dst, cap, "%d", static_cast<int16_t>(be16(p))), cap);
    case TYPE_INT32:
      return bounded(std::snprintf(dst, cap, "%d", static_cast<int32_t>(be32(p))), cap);
    case TYPE_INT64:
      return bounded(
          std::snprintf(dst, cap, "%lli", static_cast<long long>(static_cast<int64_t>(be64(p)))),
          cap);
    case TYPE_UINT8:
      return bounded(std::snprintf(dst, cap, "%u", static_cast<unsigned>(p[0])), cap);
    case TYPE_UINT16:
      return bounded(std::snprintf(dst, cap, "%u", static_cast<unsigned>(be16(p))), cap);
    case TYPE_UINT32:
      return bounded(std::snprintf(dst, cap, "%u", static_cast<unsigned>(be32(p))), cap);
    case TYPE_UINT64:
      return bounded(
          std::snprintf(dst, cap, "%llu", static_cast<unsigned long long>(be64(p))), cap);
    case TYPE_IPV4:
      return bounded(std::snprintf(dst, cap, "%d.%d.%d.%d", p[0], p[1], p[2], p[3]), cap);
    case TYPE_BOOL:
      return bounded(std::snprintf(dst, cap, "%s", p[0] == 0 ? "false" : "true"), cap);
    case TYPE_DATE:
      return bounded(std::snprintf(dst, cap, "%d-%02d-%02d", static_cast<int16_t>(be16(p)), p[2],
                                   p[3]),
                     cap);
    default: return -1;
  }
}

void parse_pattern_numbers(CmpPattern* p) {
  ScratchText pat(p->bytes, p->len);
  const size_t n = pat.capacity() - 1;
  p->ll_ok = parse_ll(pat.data(), n, &p->ll);
  p->d_ok = parse_d(pat.data(), n, &p->d);
}

int cmp_text_prepared(uint32_t cmp_op, const char* text, int32_t text_len, const CmpPattern& p) {
  switch (cmp_op) {
    case 1:
    case 2: {
      const bool same =
          text_len == p.len && (text_len <= 0 || std::memcmp(text, p.bytes, text_len) == 0);
      return (cmp_op == 1) == same ? 1 : 0;
    }
    case 3:
    case 4:
    case 5:
    case 6: {
      const size_t tlen = text_len > 0 ? static_cast<size_t>(text_len) : 0;
      long long a = 0;
      if (p.ll_ok && parse_ll(text, tlen, &a)) return ordered(cmp_op, a, p.ll);
      double x = 0;
      if (!parse_d(text, tlen, &x) || !p.d_ok) return kMatchUnsupported;
      return ordered(cmp_op, x, p.d);
    }
    default:
      ARBO_ASSERT_MSG(false, "0");
  }
}

int filter_cmp_str(uint32_t cmp_op, const char* text, int32_t text_len, const char* pattern,
                   int32_t pattern_len) {
  CmpPattern p;
  p.is_binary = true;
  p.bytes = pattern;
  p.len = pattern_len;
  if (cmp_op >= 3 && cmp_op <= 6) parse_pattern_numbers(&p);
  return cmp_text_prepared(cmp_op, text, text_len, p);
}

}  // namespace arbo
