// Filter text comparison and the text forms of encoded elements. The matcher
// itself works on runtime terms and is tested by the EUnit suites
// (test/filter_tests.erl).
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "arbo_nif_node_filter.h"
#include "arbo_filter.h"
#include "enif_shim.h"

using namespace arbo;

static int cmp_str(uint32_t op, const std::string& text, const std::string& pattern) {
  return filter_cmp_str(op, text.c_str(), int32_t(text.size()), pattern.data(), int32_t(pattern.size()));
}

// One row per rule: text equality, numbers not text order, doubles when
// either side is no integer, out-of-range integers as doubles, huge doubles
// and non-numbers answer 3.
TEST(FilterText, CompareAsTextAndNumbers) {
  const struct { uint32_t op; const char *text, *pattern; int want; } cases[] = {
      {1, "abc", "abc", 1}, {1, "ab", "abc", 0}, {2, "abc", "ab", 1}, {3, "10", "9", 1},
      {5, "-3", "2", 1}, {3, " 12", "+11", 1}, {5, "2.5", "3", 1}, {6, "1e3", "1000", 1},
      {4, "0x10", "16", 1}, {3, "99999999999999999999", "1", 1}, {3, "1e999", "1", 3},
      {5, "1e-400", "1", 3}, {3, "abc", "9", 3}, {3, "", "1", 3}, {6, "1 ", "1", 3}};
  for (const auto& c : cases)
    EXPECT_EQ(cmp_str(c.op, c.text, c.pattern), c.want) << c.op << c.text << "/" << c.pattern;
  // The pattern is copied, so it needs no NUL of its own; long ones too.
  EXPECT_EQ(cmp_str(5, "7", "1" + std::string(100, '0')), 1);
  EXPECT_EQ(filter_cmp_str(3, "123", 3, "12x", 2), 1);
  EXPECT_DEATH(cmp_str(7, "a", "a"), "Assertion `0' failed");  // no such operator
}

// Text forms of the elements that have one, cut to the buffer.
TEST(FilterText, ElementTextForms) {
  using B = std::basic_string<unsigned char>;
  const struct { B element; std::string text; } cases[] = {
      {B{205, 0, 0, 0, 2, 'h', 'i'}, "hi"}, {B{7, 0xfe, 0xd4}, "-300"}, {B{17, 0}, "false"},
      {B{13} + B(8, 0xff), "18446744073709551615"}, {B{15, 192, 168, 0, 1}, "192.168.0.1"},
      {B{17, 2}, "true"}, {B{20, 0xff, 0xff, 12, 31, 0, 0}, "-1-12-31"},
      {B{200, 100} + B(100, 'q'), std::string(64, 'q')}};  // cut to the buffer
  char buf[65];
  for (const auto& [e, text] : cases) {
    ASSERT_EQ(_arbo_nif_fmt_cs_val(e.data(), buf, sizeof buf), int32_t(text.size()));
    EXPECT_STREQ(buf, text.c_str());
    // The element's whole length, or 0 when one byte is missing.
    EXPECT_TRUE(text_element_len(e.data(), e.size()) == e.size() && !text_element_len(e.data(), e.size() - 1));
  }
  const unsigned char none[16] = {50, 1, 2, 3};  // a bit string has no text form
  EXPECT_TRUE(_arbo_nif_fmt_cs_val(none, buf, sizeof buf) == -1 && text_element_len(none, 16) == 0);
}

// Integers skip their text: the shortcut must answer what the text would.
TEST(FilterText, IntegersAnswerAsTheirText) {
  const char* patterns[] = {"-0", "+7", " 7", "-7", "10", "9.5", "1e3", "abc", "", "7x", "1e19",
      "9223372036854775808", "-9223372036854775809", "18446744073709551616"};
  std::vector<std::pair<bool, uint64_t>> values = {
      {false, 0}, {true, 7}, {false, LLONG_MAX}, {true, LLONG_MAX + 1ull}, {false, ULLONG_MAX}};
  std::mt19937_64 rng(12345);
  for (int i = 0; i < 300; ++i) values.push_back({(rng() & 1) != 0, rng() >> (rng() % 64)});
  for (const auto& [negative, mag] : values) {
    char digits[24];  // (a string sum here trips GCC 12's -Wrestrict at -O3)
    std::snprintf(digits, sizeof digits, "%s%llu", negative && mag ? "-" : "",
                  static_cast<unsigned long long>(mag));
    const std::string text = digits;
    for (const char* pattern : patterns) {
      CmpPattern p{.is_binary = true, .bytes = pattern, .len = int32_t(std::strlen(pattern))};
      parse_pattern_numbers(&p);
      for (uint32_t op = 1; op <= 6; ++op)
        EXPECT_EQ(cmp_int_prepared(op, negative && mag, mag, p), cmp_str(op, text, pattern))
            << text << " " << op << " '" << pattern;
    }
  }
}
