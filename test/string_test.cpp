// Bounded string helpers: bytes written, terminators, and the returned
// lengths a caller adds up when it appends pieces.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "mirel_string.h"

using namespace arbo;

TEST(MirelString, CopiesAndFormats) {
  enum Fn { kStrncpy, kStrlcpy, kSnprintf };
  const struct { Fn fn; int32_t dst_size; const char* src; int32_t src_len, ret; const char* text; }
      rows[] = {  // text: what is written, null when nothing is
          {kStrncpy, 4, "abcdef", 6, 3, "abc"},    {kStrncpy, 0, "abcdef", 6, 0, nullptr},
          {kStrncpy, -3, "abcdef", 6, 0, nullptr}, {kStrncpy, 4, "abcdef", -5, 0, ""},
          {kStrncpy, 7, "abcdef", 6, 6, "abcdef"}, {kStrlcpy, 4, "abcdef", 0, 6, "abc"},
          {kStrlcpy, -1, "abcdef", 0, 6, nullptr}, {kStrlcpy, 1, "abcdef", 0, 6, ""},
          {kSnprintf, -1, "12345", 0, 5, nullptr}, {kSnprintf, 4, "12-ab", 0, 5, "12-"}};
  for (const auto& r : rows) {
    char b[8];
    std::memset(b, '#', sizeof b);
    const int32_t got = r.fn == kStrncpy   ? mirel_strncpy(b, r.dst_size, r.src, r.src_len)
                        : r.fn == kStrlcpy ? mirel_strlcpy(b, r.src, r.dst_size)
                                           : mirel_snprintf(b, r.dst_size, "%s", r.src);
    EXPECT_EQ(got, r.ret) << r.fn << " " << r.dst_size << " " << r.src;
    const auto touched = 8 - std::count(b, b + 8, '#');
    EXPECT_EQ(touched, r.text ? static_cast<long>(std::strlen(r.text)) + 1 : 0);
    if (r.text) {
      EXPECT_STREQ(b, r.text);
    }
  }
  // Exactly n bytes: an embedded NUL does not stop the copy.
  char d[8];
  EXPECT_EQ(mirel_strncpy(d, 8, "a\0b", 3), 3);
  EXPECT_EQ(std::memcmp(d, "a\0b\0", 4), 0);
  // Appending pieces: the position runs past the end, the capacity handed on
  // falls to zero or below, and nothing more is written.
  char line[8];
  int pos = 0;
  for (const char* piece : {"abc", "defg", "hij", "k"})
    pos += mirel_strlcpy(line + (pos < 8 ? pos : 8), piece, 8 - pos);
  EXPECT_EQ(pos, 11);
  EXPECT_STREQ(line, "abcdefg");
}
