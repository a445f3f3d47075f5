// Bounded string helpers: bytes written, terminators, and the returned
// lengths a caller adds up when it appends pieces.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mirel_string.h"

using namespace arbo;

namespace {

constexpr char kFill = '#';

// A buffer of 8 fill bytes; `written` reports how many were touched.
struct Buf {
  char b[8];
  Buf() { std::memset(b, kFill, sizeof b); }
  int touched() const {
    int n = 0;
    for (char c : b) n += c != kFill;
    return n;
  }
};

TEST(MirelString, Strncpy) {
  const struct {
    int32_t dst_size;
    const char* src;
    int32_t src_len;
    int32_t ret;
    const char* text;  // written text, null when nothing is written
  } rows[] = {
      {4, "abcdef", 6, 3, "abc"},   {0, "abcdef", 6, 0, nullptr}, {-3, "abcdef", 6, 0, nullptr},
      {4, "abcdef", -5, 0, ""},     {8, "abcdef", 6, 6, "abcdef"}, {7, "abcdef", 6, 6, "abcdef"},
      {6, "abcdef", 6, 5, "abcde"}, {1, "abcdef", 6, 0, ""},        {8, "ab", 2, 2, "ab"},
  };
  for (const auto& r : rows) {
    Buf d;
    EXPECT_EQ(mirel_strncpy(d.b, r.dst_size, r.src, r.src_len), r.ret) << r.dst_size << r.src_len;
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
}

TEST(MirelString, Strlcpy) {
  const struct {
    const char* src;
    int32_t size;
    const char* text;
  } rows[] = {
      {"abcdef", 4, "abc"}, {"abcdef", 0, nullptr}, {"abcdef", -1, nullptr}, {"abcdef", 7, "abcdef"},
      {"abcdef", 1, ""},    {"", 8, ""},            {"abcdefghijkl", 8, "abcdefg"},
  };
  for (const auto& r : rows) {
    Buf d;
    EXPECT_EQ(mirel_strlcpy(d.b, r.src, r.size), static_cast<int32_t>(std::strlen(r.src)));
    if (r.text == nullptr) {
      EXPECT_EQ(d.touched(), 0);
    } else {
      EXPECT_STREQ(d.b, r.text);
    }
  }
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

TEST(MirelString, Snprintf) {
  Buf d;
  EXPECT_EQ(mirel_snprintf(d.b, -1, "%d", 12345), 5);
  EXPECT_EQ(d.touched(), 0);
  EXPECT_EQ(mirel_snprintf(d.b, 0, "%s", "xyz"), 3);
  EXPECT_EQ(d.touched(), 0);
  EXPECT_EQ(mirel_snprintf(d.b, 4, "%d-%s", 12, "ab"), 5);
  EXPECT_STREQ(d.b, "12-");
  EXPECT_EQ(mirel_snprintf(d.b, 8, "%x", 255), 2);
  EXPECT_STREQ(d.b, "ff");
}

}  // namespace
