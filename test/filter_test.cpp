// Filter text comparison, the text forms of encoded elements and the node
// stack's growth rule. The matcher itself works on runtime terms and is
// tested by the EUnit suites (test/filter_tests.erl).
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>

#include "../src/arbo_nif_node_filter.h"
#include "arbo_filter.h"
#include "enif_shim.h"

using namespace arbo;

namespace {

int cmp_str(uint32_t op, const std::string& text, const std::string& pattern) {
  return filter_cmp_str(op, text.c_str(), static_cast<int32_t>(text.size()), pattern.data(),
                        static_cast<int32_t>(pattern.size()));
}

}  // namespace

TEST(FilterText, CompareAsTextAndNumbers) {
  const struct { uint32_t op; const char *text, *pattern; int want; } cases[] = {
      {1, "abc", "abc", 1},  {1, "abc", "abd", 0},   {1, "ab", "abc", 0},  {1, "", "", 1},
      {2, "abc", "abc", 0},  {2, "abc", "ab", 1},    {2, "", "x", 1},
      // numbers, not text order
      {3, "10", "9", 1},     {5, "10", "9", 0},      {4, "7", "7", 1},     {6, "7", "7", 1},
      {3, "7", "7", 0},      {5, "-3", "2", 1},      {3, " 12", "+11", 1},
      // doubles when either side is no integer
      {3, "2.5", "2", 1},    {5, "2.5", "3", 1},     {6, "1e3", "1000", 1}, {3, "1e3", "999.5", 1},
      {4, "0x10", "16", 1},
      // out of range integers fall back to doubles; huge doubles are no number
      {3, "99999999999999999999", "1", 1},           {3, "1e999", "1", 3}, {3, "1", "-1e999", 3},
      {5, "1e-400", "1", 3},
      // no number at all
      {3, "abc", "9", 3},    {3, "9", "abc", 3},     {3, "", "1", 3},      {3, "1", "", 3},
      {4, "12abc", "1", 3},  {6, "1 ", "1", 3},
  };
  for (const auto& c : cases)
    EXPECT_EQ(cmp_str(c.op, c.text, c.pattern), c.want)
        << "op " << c.op << " '" << c.text << "' vs '" << c.pattern << "'";
  // The pattern is copied, so it needs no NUL of its own; long ones too.
  const std::string longnum = "1" + std::string(100, '0');
  EXPECT_EQ(filter_cmp_str(5, "7", 1, longnum.data(), static_cast<int32_t>(longnum.size())), 1);
  EXPECT_EQ(filter_cmp_str(3, "123", 3, "12x", 2), 1);
}

// Text forms of the elements that have one, cut to the buffer.
TEST(FilterText, ElementTextForms) {
  using B = std::basic_string<unsigned char>;
  const struct { B element; std::string text; } cases[] = {
      {B{200, 3, 'a', 'b', 'c'}, "abc"},  {B{200, 0}, ""},
      {B{205, 0, 0, 0, 2, 'h', 'i'}, "hi"}, {B{6, 0xfd}, "-3"},
      {B{7, 0xfe, 0xd4}, "-300"},        {B{8, 0x80, 0, 0, 0}, "-2147483648"},
      {B{9, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfb}, "-5"},
      {B{10, 200}, "200"},               {B{11, 0xff, 0xff}, "65535"},
      {B{13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, "18446744073709551615"},
      {B{15, 192, 168, 0, 1}, "192.168.0.1"}, {B{17, 0}, "false"}, {B{17, 2}, "true"},
      {B{20, 0x07, 0xe8, 2, 9, 0, 0}, "2024-02-09"}, {B{20, 0xff, 0xff, 12, 31, 0, 0}, "-1-12-31"},
      {B{200, 100} + B(100, 'q'), std::string(64, 'q')},
  };
  for (const auto& c : cases) {
    char buf[65];
    std::memset(buf, 'X', sizeof buf);
    ASSERT_EQ(_arbo_nif_fmt_cs_val(c.element.data(), buf, sizeof buf),
              static_cast<int32_t>(c.text.size()))
        << "type " << int{c.element[0]};
    EXPECT_STREQ(buf, c.text.c_str());
    EXPECT_EQ(text_element_len(c.element.data(), c.element.size()), c.element.size());
    EXPECT_EQ(text_element_len(c.element.data(), c.element.size() - 1), 0u);  // one byte short
  }
  char small[6];
  EXPECT_EQ(_arbo_nif_fmt_cs_val(cases[9].element.data(), small, sizeof small), 5);
  EXPECT_STREQ(small, "18446");
  for (unsigned char t : {0, 2, 14, 16, 29, 30, 50, 201, 204, 255}) {  // no text form
    const unsigned char e[16] = {t, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    char buf[65];
    EXPECT_EQ(_arbo_nif_fmt_cs_val(e, buf, sizeof buf), -1) << int{t};
    EXPECT_EQ(text_element_len(e, sizeof e), 0u) << int{t};
  }
  EXPECT_EQ(text_element_len(nullptr, 0), 0u);
}

// The stack grows two entries at a time; a null node is an entry like any other.
TEST(NodeStack, GrowsByTwoAndPopsTopFirst) {
  node_stack* s = node_stack_init();
  ERL_NIF_TERM f = 77;
  EXPECT_EQ(node_stack_pop(s, &f), nullptr);
  EXPECT_EQ(f, 77u);  // left alone on an empty stack
  for (int32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(node_stack_push(s, i == 3 ? nullptr : reinterpret_cast<arbo_node*>(s), 1000 + i), i);
    EXPECT_EQ(s->size, (i + 2) / 2 * 2);
  }
  for (int32_t i = 4; i >= 0; --i) EXPECT_EQ(node_stack_pop(s, &f) == nullptr, i == 3);
  EXPECT_EQ(f, 1000u);
  node_stack_clear(s);
}

// Integers skip their text: the shortcut must answer what the text would.
TEST(FilterText, IntegersAnswerAsTheirText) {
  const char* patterns[] = {"0", "-0", "7", "+7", " 7", "-7", "10", "9.5", "-2.5", "1e3", "abc",
                            "", "7x", "9223372036854775807", "9223372036854775808",
                            "-9223372036854775808", "-9223372036854775809",
                            "18446744073709551615", "18446744073709551616", "1e19", "-1e19"};
  const uint64_t big = static_cast<uint64_t>(LLONG_MAX);
  std::vector<std::pair<bool, uint64_t>> values = {
      {false, 0}, {true, 7}, {false, big}, {false, big + 1}, {true, big + 1}, {false, ULLONG_MAX}};
  std::mt19937_64 rng(12345);
  for (int i = 0; i < 300; ++i) values.push_back({(rng() & 1) != 0, rng() >> (rng() % 64)});
  for (const auto& [negative, mag] : values) {
    if (negative && mag == 0) continue;  // no "-0" text is ever written
    const std::string text = (negative ? "-" : "") + std::to_string(mag);
    for (const char* pattern : patterns) {
      CmpPattern p{
          .is_binary = true, .bytes = pattern, .len = static_cast<int32_t>(std::strlen(pattern))};
      parse_pattern_numbers(&p);
      for (uint32_t op = 1; op <= 6; ++op)
        EXPECT_EQ(cmp_int_prepared(op, negative, mag, p), cmp_str(op, text, pattern))
            << text << " op " << op << " '" << pattern << "'";
    }
  }
}

TEST(FilterTextDeathTest, UnknownOperatorAborts) {
  EXPECT_DEATH(cmp_str(7, "a", "a"), "Assertion `0' failed");
  EXPECT_DEATH(cmp_int_prepared(7, false, 1, CmpPattern{}), "Assertion `0' failed");
}
