// Bounded string helpers for building text in fixed buffers. They never
// allocate and never fail.
#ifndef MIREL_STRING_H
#define MIREL_STRING_H

#include <cstdint>

namespace arbo {

// vsnprintf into at most `size` bytes (negative counts as 0); returns the
// length the whole text would have.
int mirel_snprintf(char* dst, int32_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Copies n = src_len bytes (negative counts as 0, cut to dst_size - 1) and a
// NUL; nothing when dst_size < 1. Returns n.
int32_t mirel_strncpy(char* dst, int32_t dst_size, const char* src, int32_t src_len);
// Copies src up to its NUL or size - 1 bytes and a NUL; nothing when
// size < 1. Returns the full length of src.
int32_t mirel_strlcpy(char* dst, const char* src, int32_t size);

}  // namespace arbo

#endif  // MIREL_STRING_H
