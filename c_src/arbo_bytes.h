// Big-endian integers in byte buffers: the one set of readers and writers
// for keys, values, attributes and save files (every multi-byte integer
// the library stores or writes is big-endian).
#ifndef ARBO_BYTES_H
#define ARBO_BYTES_H

#include <cstdint>

namespace arbo {

inline uint32_t be16(const unsigned char* p) { return (uint32_t{p[0]} << 8) | p[1]; }
inline uint32_t be32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline uint64_t be64(const unsigned char* p) { return (uint64_t{be32(p)} << 32) | be32(p + 4); }
// The first `width` bytes (at most 8) as one big-endian number.
inline uint64_t be_n(const unsigned char* p, int width) {
  uint64_t v = 0;
  for (int i = 0; i < width; ++i) v = v << 8 | p[i];
  return v;
}
inline void put_be32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

}  // namespace arbo

#endif  // ARBO_BYTES_H
