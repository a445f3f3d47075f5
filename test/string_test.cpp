// Bounded string helpers: bytes written, terminators, and the returned
// lengths a caller adds up when it appends pieces.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "mirel_string.h"

using namespace arbo;

namespace {

// A buffer of 8 fill bytes; `touched` counts those written.
struct Buf {
  char b[8];
  Buf() { std::memset(b, '#', sizeof b); }
  int touched() const { return static_cast<int>(8 - std::count(b, b + 8, '#')); }
};

TEST(MirelString, CopiesAndFormats) {
  enum Fn { kStrncpy, kStrlcpy, kSnprintf };
  const struct {
    Fn fn;
    int32_t dst_size;
    const char* src;
    int32_t src_len, ret;
    const char* text;  // written text, null when nothing is written
  } rows[] = {
      {kStrncpy, 4, "abcdef", 6, 3, "abc"},
      {kStrncpy, 0, "abcdef", 6, 0, nullptr},
      {kStrncpy, -3, "abcdef", 6, 0, nullptr},
      {kStrncpy, 4, "abcdef", -5, 0, ""},
      {kStrncpy, 7, "abcdef", 6, 6, "abcdef"},
      {kStrncpy, 6, "abcdef", 6, 5, "abcde"},
      {kStrncpy, 1, "abcdef", 6, 0, ""},
      {kStrlcpy, 4, "abcdef", 0, 6, "abc"},
      {kStrlcpy, 0, "abcdef", 0, 6, nullptr},
      {kStrlcpy, -1, "abcdef", 0, 6, nullptr},
      {kStrlcpy, 7, "abcdef", 0, 6, "abcdef"},
      {kStrlcpy, 1, "abcdef", 0, 6, ""},
      {kStrlcpy, 8, "abcdefghijkl", 0, 12, "abcdefg"},
      {kSnprintf, -1, "12345", 0, 5, nullptr},
      {kSnprintf, 0, "xyz", 0, 3, nullptr},
      {kSnprintf, 4, "12-ab", 0, 5, "12-"},
      {kSnprintf, 8, "ff", 0, 2, "ff"},
  };
  for (const auto& r : rows) {
    Buf d;
    const int32_t got = r.fn == kStrncpy   ? mirel_strncpy(d.b, r.dst_size, r.src, r.src_len)
                        : r.fn == kStrlcpy ? mirel_strlcpy(d.b, r.src, r.dst_size)
                                           : mirel_snprintf(d.b, r.dst_size, "%s", r.src);
    EXPECT_EQ(got, r.ret) << r.fn << " " << r.dst_size << " " << r.src;
    if (r.text == nullptr) {
      EXPECT_EQ(d.touched(), 0);
    } else {
      EXPECT_STREQ(d.b, r.text);
      EXPECT_EQ(d.touched(), static_cast<int>(std::strlen(r.text)) + 1);
    }
  }
  // Exactly n bytes: an embedded NUL does not stop the copy.
  Buf d;
  EXPECT_EQ(mirel_strncpy(d.b, 8, "a\0b", 3), 3);
  EXPECT_EQ(std::memcmp(d.b, "a\0b\0", 4), 0);
  EXPECT_EQ(mirel_snprintf(d.b, 8, "%d-%x", 12, 255), 5);
  EXPECT_STREQ(d.b, "12-ff");
  // Appending pieces: the position runs past the end, the capacity handed on
  // falls to zero or below, and nothing more is written.
  char line[8];
  int pos = 0;
  for (const char* piece : {"abc", "defg", "hij", "k"}) {
    pos += mirel_strlcpy(line + (pos < 8 ? pos : 8), piece, 8 - pos);
  }
  EXPECT_EQ(pos, 11);
  EXPECT_STREQ(line, "abcdefg");
}

}  // namespace
