// The library's two type-code tables against the Erlang codecs', over all
// 256 codes: the value-length table against arbo_val, the key parser against
// arbo_key. The Erlang side's answers come from a file the build writes with
// test/type_codes_export.erl (ARBO_TYPE_CODES_FILE), so a code added to or
// changed in one table and not the other fails here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "arbo_keys.h"
#include "arbo_store.h"

using namespace arbo;

namespace {

std::vector<unsigned char> unhex(const std::string& h) {
  std::vector<unsigned char> b;
  for (size_t i = 0; i + 1 < h.size(); i += 2) b.push_back(uint8_t(std::stoi(h.substr(i, 2), nullptr, 16)));
  return b;
}

// The value-length table in the export's words.
std::string val_rule(int code) {
  int variable = 0, nested = 0;
  const int n = _arbo_nif_val_len(uint8_t(code), &variable, &nested);
  if (!variable) return "fixed " + std::to_string(n);
  if (n == 1 || n == 2 || n == 4) return "prefix " + std::to_string(n);
  return "unknown";  // the loader refuses such a value
}

// "val" lines: the value-length table against arbo_val, code by code.
// "key" lines: every probe arbo_key walks gets the same extent of its first
// element from the parser (a code the parser does not know aborts this
// test); for the first probe arbo_key refuses, per code, the parser aborts.
TEST(TypeCodesDeathTest, BothTablesAgreeWithTheErlangCodecs) {
  std::ifstream in(ARBO_TYPE_CODES_FILE);
  std::string line;
  size_t vals = 0, keys = 0;
  std::vector<bool> death_checked(256, false);
  while (std::getline(in, line)) {
    std::istringstream s(line);
    std::string tag, hex, extent;
    int code = 0;
    s >> tag >> code;
    if (tag == "val") {
      ++vals;
      std::getline(s >> std::ws, extent);
      EXPECT_EQ(val_rule(code), extent) << "type code " << code;
      continue;
    }
    ++keys;
    s >> hex >> extent;
    const std::vector<unsigned char> probe = unhex(hex);
    const auto len = int32_t(probe.size());
    int32_t hdr = 0, payload = 0;
    int type = 0, varlen = 0;
    if (extent != "error") {
      get_tuple_key(0, probe.data(), len, &hdr, &payload, &type, &varlen);
      EXPECT_EQ(hdr + payload, std::stoi(extent)) << line;
      EXPECT_EQ(type, code);
    } else if (!death_checked[size_t(code)]) {
      death_checked[size_t(code)] = true;
      EXPECT_DEATH({
        dup2(2, 1);  // the parser's line on stdout goes with the assertion
        get_tuple_key(0, probe.data(), len, &hdr, &payload, &type, &varlen);
      },
                   "Assertion `(0|i\\+len <= buf_len)' failed")
          << line;
    }
  }
  EXPECT_TRUE(vals == 256 && keys == 256 * 6) << "no full export at " << ARBO_TYPE_CODES_FILE;
}

}  // namespace
