// Bounded string helpers: they write at most the capacity they are given,
// always NUL-terminate when they write at all, and report lengths so that a
// caller appending pieces can tell when its buffer ran out.
#include "mirel_string.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace arbo {

int mirel_snprintf(char* dst, int32_t size, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(dst, size > 0 ? static_cast<size_t>(size) : 0, format, ap);
  va_end(ap);
  return n;
}

int32_t mirel_strncpy(char* dst, int32_t dst_size, const char* src, int32_t src_len) {
  if (dst_size < 1) return 0;
  int32_t n = src_len < 0 ? 0 : src_len;
  if (n >= dst_size) n = dst_size - 1;
  // Exactly n bytes: a NUL inside src does not stop the copy.
  if (n > 0) std::memcpy(dst, src, static_cast<size_t>(n));
  dst[n] = '\0';
  return n;
}

int32_t mirel_strlcpy(char* dst, const char* src, int32_t size) {
  const size_t len = std::strlen(src);
  if (size >= 1) {
    const size_t n = len < static_cast<size_t>(size) - 1 ? len : static_cast<size_t>(size) - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
  }
  return static_cast<int32_t>(len);
}

}  // namespace arbo
