// Allocator accounting and the user-flags table.
#include <gtest/gtest.h>

#include "arbo_alloc.h"
#include "enif_shim.h"

using namespace arbo;

TEST(Alloc, NodeAndBinaryAccounting) {
  arbo_shim::TestTable t;
  const uint64_t mem0 = t.table.mem, lib0 = t.table.alloc_state->mem.load();
  EXPECT_EQ(mem0, node_size(T_GEN_NODE_MAX));  // the root counts in mem, not size
  EXPECT_EQ(t.table.size, 0u);
  arbo_node* n = _arbo_nif_node_alloc(&t.ctx, T_GEN_NODE_TWO);
  EXPECT_EQ(n->type(), T_GEN_NODE_TWO);
  EXPECT_EQ(t.table.size, 1u);
  EXPECT_EQ(t.table.mem, mem0 + node_size(T_GEN_NODE_TWO));
  EXPECT_EQ(t.table.alloc_state->mem.load(), lib0 + node_size(T_GEN_NODE_TWO));
  EXPECT_EQ(_arbo_nif_node_free(n, &t.ctx), 1);
  EXPECT_EQ(_arbo_nif_node_free(nullptr, &t.ctx), 0);
  EXPECT_EQ(t.table.mem, mem0);
  EXPECT_EQ(t.table.alloc_state->mem.load(), lib0);

  // A binary counts 8 bytes more in the table than in the library, and its
  // release takes the 8 from both: the library's count drifts down, as kept.
  unsigned char bytes[100] = {1, 2, 3};
  arbo_bin* b = _arbo_nif_alloc_binary(sizeof bytes, bytes, &t.ctx);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->len, 100u);
  EXPECT_EQ(b->bytes()[2], 3);
  EXPECT_EQ(t.table.mem, mem0 + 108);
  EXPECT_EQ(t.table.alloc_state->mem.load(), lib0 + 100);
  _arbo_nif_free_binary(b, &t.ctx);
  EXPECT_EQ(t.table.mem, mem0);
  EXPECT_EQ(t.table.alloc_state->mem.load(), lib0 - 8);
  arbo_shim::refuse_resources(true);
  EXPECT_EQ(_arbo_nif_alloc_binary(3, bytes, &t.ctx), nullptr);
  arbo_shim::refuse_resources(false);
  EXPECT_EQ(t.table.mem, mem0);
}

TEST(Alloc, UserFlagsInlineAndShared) {
  arbo_shim::TestTable t;
  flags_table& ft = t.table.alloc_state->ft;
  arbo_node* a = _arbo_nif_node_alloc(&t.ctx, T_GEN_NODE_ONE);
  arbo_node* b = _arbo_nif_node_alloc(&t.ctx, T_GEN_NODE_ONE);
  a->set(F_KEY_IS_TUPLE | F_VAL_IS_BIN);
  const uint32_t low = a->tw & kLowBitsMask;
  const uint16_t used0 = ft.used;
  EXPECT_EQ(_arbo_nif_set_flags(nullptr, a, 0x3fffff), 0x3fffffu);  // fits inline
  EXPECT_EQ(a->tw & kUflagsIndexed, 0u);
  EXPECT_EQ(ft.used, used0);
  EXPECT_EQ(_arbo_nif_get_flags(nullptr, a), 0x3fffffu);

  const uint64_t wide = 0x8000000000000001ull + used0;
  _arbo_nif_set_flags(nullptr, a, wide);
  _arbo_nif_set_flags(nullptr, b, wide);  // the same value shares one slot
  EXPECT_NE(a->tw & kUflagsIndexed, 0u);
  EXPECT_EQ(ft.used, used0 + 1);
  EXPECT_EQ(_arbo_nif_get_flags(nullptr, a), wide);
  EXPECT_EQ(_arbo_nif_get_flags(nullptr, b), wide);
  EXPECT_EQ(a->tw & kLowBitsMask, low);  // type and key/value bits survive
  EXPECT_EQ(_arbo_nif_clr_flag(nullptr, a, 0x8000000000000000ull), wide & ~0x8000000000000000ull);
  EXPECT_EQ(_arbo_nif_set_flag(nullptr, b, 0x2), wide | 0x2);
  _arbo_nif_set_flags(nullptr, a, 5);  // back inline; the slot is never reused
  EXPECT_EQ(a->tw & kUflagsIndexed, 0u);
  EXPECT_EQ(_arbo_nif_get_flags(nullptr, a), 5u);

  // Filling the table to capacity and one more grows it by 64 and 512 bytes.
  const uint64_t lib0 = t.table.alloc_state->mem.load();
  const uint16_t cap0 = ft.capacity;
  uint64_t v = 0x10000000000ull;
  while (ft.used < cap0) _arbo_nif_set_flags(nullptr, a, ++v);
  EXPECT_EQ(ft.capacity, cap0);
  _arbo_nif_set_flags(nullptr, a, ++v);
  EXPECT_EQ(ft.capacity, cap0 + 64);
  EXPECT_EQ(t.table.alloc_state->mem.load(), lib0 + 512);
  EXPECT_EQ(_arbo_nif_get_flags(nullptr, a), v);
  _arbo_nif_node_free(a, &t.ctx);
  _arbo_nif_node_free(b, &t.ctx);
}
