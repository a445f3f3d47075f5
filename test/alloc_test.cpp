// The user-flags table and the flag calls. Node accounting under random
// sequences lives in pool_test.cpp; the binary accounting drift is pinned
// exactly through the NIF (edit_tests).
#include <gtest/gtest.h>

#include "arbo_alloc.h"
#include "enif_shim.h"

using namespace arbo;

TEST(Alloc, UserFlagsInlineSharedAndGrowth) {
  arbo_shim::TestTable t;
  flags_table& ft = t.table.alloc_state->ft;
  arbo_node* a = _arbo_nif_node_alloc(&t.ctx, T_GEN_NODE_ONE);
  arbo_node* b = _arbo_nif_node_alloc(&t.ctx, T_GEN_NODE_ONE);
  a->set(F_KEY_IS_TUPLE | F_VAL_IS_BIN);
  const uint32_t low = a->tw & kLowBitsMask;
  const uint16_t used0 = ft.used, cap0 = ft.capacity;
  EXPECT_EQ(_arbo_nif_set_flags(nullptr, a, 0x3fffff), 0x3fffffu);  // fits inline
  EXPECT_TRUE((a->tw & kUflagsIndexed) == 0 && ft.used == used0);
  const uint64_t wide = 0x8000000000000001ull + used0;
  _arbo_nif_set_flags(nullptr, a, wide);
  _arbo_nif_set_flags(nullptr, b, wide);  // the same value shares one slot
  EXPECT_TRUE(ft.used == used0 + 1 && _arbo_nif_get_flags(nullptr, a) == wide);
  EXPECT_EQ(a->tw & kLowBitsMask, low);  // type and key/value bits survive
  // Filling the table to capacity and one more grows it by 64 and 512 bytes.
  const uint64_t lib0 = t.table.alloc_state->mem.load();
  uint64_t v = 0x10000000000ull;
  while (ft.used < cap0) _arbo_nif_set_flags(nullptr, a, ++v);
  EXPECT_EQ(ft.capacity, cap0);
  _arbo_nif_set_flags(nullptr, a, ++v);
  EXPECT_TRUE(ft.capacity == cap0 + 64 && t.table.alloc_state->mem.load() == lib0 + 512);
  EXPECT_EQ(_arbo_nif_get_flags(nullptr, a), v);
  _arbo_nif_set_flags(nullptr, a, 5);  // back inline
  EXPECT_TRUE((a->tw & kUflagsIndexed) == 0 && _arbo_nif_get_flags(nullptr, a) == 5u);
  // set_flag and clr_flag answer the new flags, across the boundary.
  const struct { bool set; uint64_t bits, want; } steps[] = {
      {false, 1, 4}, {true, 0x400000, 0x400004}, {false, 0x400000, 4}, {true, ~0ull, ~0ull}, {false, ~0ull, 0}};
  for (const auto& s : steps) {
    EXPECT_EQ((s.set ? _arbo_nif_set_flag : _arbo_nif_clr_flag)(nullptr, a, s.bits), s.want) << s.bits;
    EXPECT_EQ(_arbo_nif_get_flags(nullptr, a), s.want);
  }
  _arbo_nif_node_free(a, &t.ctx);
  _arbo_nif_node_free(b, &t.ctx);
}
